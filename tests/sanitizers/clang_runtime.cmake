# Given to CMake as CMAKE_PROJECT_INCLUDE by scripts/ci_sanitizers.sh for the clang sanitizer builds.
#
# clang links the sanitizer runtime into executables only: a shared library built with
# -fsanitize=... keeps the runtime's entry points (__asan_*, __tsan_*, __ubsan_*) undefined and
# finds them in the program that loads it. The project's shared libraries are linked with
# --no-undefined, which refuses exactly that, so this file lifts the check in sanitizer builds once
# every target is defined. (The shared form of the runtime, -shared-libsan, is no way out: clang 14's
# shared ThreadSanitizer runtime crashes before main because libstdc++ registers exit handlers
# before it has initialised.)

if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang" OR "${OVRA_KB_SANITIZE}" STREQUAL "")
  return()
endif()

function(ovra_kb_allow_sanitizer_runtime_symbols dir)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "MODULE_LIBRARY")
      get_target_property(options ${target} LINK_OPTIONS)
      if(options)
        list(REMOVE_ITEM options "-Wl,--no-undefined" "-Wl,-z,defs")
        set_property(TARGET ${target} PROPERTY LINK_OPTIONS "${options}")
      endif()
    endif()
  endforeach()
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    ovra_kb_allow_sanitizer_runtime_symbols("${subdir}")
  endforeach()
endfunction()

cmake_language(DEFER DIRECTORY "${CMAKE_SOURCE_DIR}" CALL ovra_kb_allow_sanitizer_runtime_symbols "${CMAKE_SOURCE_DIR}")
