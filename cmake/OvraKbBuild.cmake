# Build settings shared by every target of the project.

add_compile_options(-Wall -Wextra -Werror)

# A fuzz build is an AddressSanitizer build whose every target also carries libFuzzer's coverage.
if(OVRA_KB_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang" OR OVRA_KB_SANITIZE STREQUAL "thread")
    message(FATAL_ERROR "OVRA_KB_BUILD_FUZZ needs clang (libFuzzer) and AddressSanitizer, not OVRA_KB_SANITIZE=thread")
  endif()
  set(OVRA_KB_SANITIZE address)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(OVRA_KB_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(OVRA_KB_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT OVRA_KB_SANITIZE STREQUAL "")
  message(FATAL_ERROR "OVRA_KB_SANITIZE must be empty, 'address' or 'thread', not '${OVRA_KB_SANITIZE}'")
endif()

# Shared libraries resolve every symbol at link time, except in clang's sanitizer builds: clang puts
# the sanitizer runtime into the executable that loads them, so their __asan_*/__tsan_* references
# stay open until then.
if(NOT OVRA_KB_SANITIZE STREQUAL "" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  set(OVRA_KB_NO_UNDEFINED "")
else()
  set(OVRA_KB_NO_UNDEFINED "-Wl,--no-undefined")
endif()

# Every library source logs under its own base name (without directory or extension).
function(ovra_kb_name_sources target)
  get_target_property(sources ${target} SOURCES)
  foreach(source IN LISTS sources)
    get_filename_component(base "${source}" NAME_WE)
    set_property(SOURCE "${source}" TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_DEFINITIONS
                 "OVRA_KB_SOURCE_NAME=\"${base}\"")
  endforeach()
endfunction()
