# Settings of the clang sanitizer builds, given to CMake as CMAKE_PROJECT_INCLUDE by
# scripts/ci_sanitizers.sh (which also passes OVRA_KB_SANITIZER_OPTIONS; see below). It acts only
# when OVRA_KB_SANITIZE is set and the compiler is clang, once every target is defined.
#
# 1. (The shared libraries' --no-undefined is already left out of clang sanitizer builds, see
#    cmake/OvraKbBuild.cmake. The shared form of the runtime, -shared-libsan, is no way out of
#    linking the runtime into executables: clang 14's shared ThreadSanitizer runtime crashes before
#    main, because libstdc++ registers its exit handlers before the runtime has initialised.)
# 2. ovra_kb_sanitized_python (sanitized_python.cpp): the interpreter that runs the host tests, the
#    tests in which Python is the process and loads the instrumented library (see
#    run_host_tests.py).
# 3. Every executable gets default_options.cpp, which answers the runtime's questions for default
#    options with the job's own settings, so that a process started by a test with an environment of
#    its own still halts on a report and still reads the suppression files. Variables in the
#    environment take precedence over these defaults.
#
# OVRA_KB_SANITIZER_OPTIONS is a list of NAME=VALUE items, NAME being ASAN_OPTIONS, LSAN_OPTIONS,
# UBSAN_OPTIONS or TSAN_OPTIONS: the same values the job exports.

if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang" OR "${OVRA_KB_SANITIZE}" STREQUAL "")
  return()
endif()

set(OVRA_KB_SANITIZER_OPTIONS "" CACHE STRING "NAME=VALUE defaults of the sanitizer runtimes, built into every program")

function(ovra_kb_sanitizer_targets dir out)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    ovra_kb_sanitizer_targets("${subdir}" more)
    list(APPEND targets ${more})
  endforeach()
  set(${out} "${targets}" PARENT_SCOPE)
endfunction()

function(ovra_kb_sanitizer_adjust_targets)
  set(defaults ovra_kb_sanitizer_defaults)
  add_library(${defaults} OBJECT "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/default_options.cpp")
  foreach(item IN LISTS OVRA_KB_SANITIZER_OPTIONS)
    if(NOT item MATCHES "^(ASAN|LSAN|UBSAN|TSAN)_OPTIONS=(.*)$")
      message(FATAL_ERROR "OVRA_KB_SANITIZER_OPTIONS: '${item}' is not ASAN|LSAN|UBSAN|TSAN_OPTIONS=value")
    endif()
    target_compile_definitions(${defaults} PRIVATE "OVRA_KB_DEFAULT_${CMAKE_MATCH_1}_OPTIONS=\"${CMAKE_MATCH_2}\"")
  endforeach()

  add_executable(ovra_kb_sanitized_python "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/sanitized_python.cpp")
  target_link_libraries(ovra_kb_sanitized_python PRIVATE ${CMAKE_DL_LIBS})

  ovra_kb_sanitizer_targets("${CMAKE_SOURCE_DIR}" targets)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    get_target_property(imported ${target} IMPORTED)
    if(imported)
      continue()
    endif()
    if(type STREQUAL "EXECUTABLE")
      target_sources(${target} PRIVATE $<TARGET_OBJECTS:${defaults}>)
    endif()
  endforeach()
endfunction()

cmake_language(DEFER DIRECTORY "${CMAKE_SOURCE_DIR}" CALL ovra_kb_sanitizer_adjust_targets)
