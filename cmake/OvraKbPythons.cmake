# The CPython interpreters the tests run against, as "label=/path/to/python3" items.
# Every shared-library CPython 3 under pyenv is used, plus the system's /usr/bin/python3.
# Set OVRA_KB_TEST_PYTHONS on the command line to choose others. Without the tests and the benchmarks (which
# choose theirs among these) nothing is probed.

if(OVRA_KB_BUILD_TESTS OR OVRA_KB_BUILD_BENCH)
  if(NOT DEFINED OVRA_KB_TEST_PYTHONS)
    set(_pythons "")
    if(DEFINED ENV{PYENV_ROOT})
      set(_pyenv_root "$ENV{PYENV_ROOT}")
    else()
      set(_pyenv_root "$ENV{HOME}/.pyenv")
    endif()
    file(GLOB _pyenv_versions LIST_DIRECTORIES true "${_pyenv_root}/versions/3.*")
    list(SORT _pyenv_versions COMPARE NATURAL)
    foreach(_dir IN LISTS _pyenv_versions)
      if(EXISTS "${_dir}/bin/python3")
        get_filename_component(_version "${_dir}" NAME)
        string(REGEX MATCH "^3\\.[0-9]+" _minor "${_version}")
        list(APPEND _pythons "py${_minor}=${_dir}/bin/python3")
      endif()
    endforeach()
    if(EXISTS /usr/bin/python3)
      list(APPEND _pythons "system=/usr/bin/python3")
    endif()
    set(OVRA_KB_TEST_PYTHONS "${_pythons}" CACHE STRING "label=path items of the interpreters to test against")
  endif()

  # The interpreter of the single-version tests: pyenv's 3.11 when present, else the first found.
  if(NOT DEFINED OVRA_KB_DEFAULT_TEST_PYTHON)
    set(_default "")
    foreach(_item IN LISTS OVRA_KB_TEST_PYTHONS)
      string(REGEX REPLACE "^[^=]*=" "" _path "${_item}")
      if(_item MATCHES "^py3\\.11=" OR _default STREQUAL "")
        set(_default "${_path}")
      endif()
    endforeach()
    set(OVRA_KB_DEFAULT_TEST_PYTHON "${_default}" CACHE FILEPATH "Interpreter of the single-version tests")
  endif()
  message(STATUS "Test interpreters: ${OVRA_KB_TEST_PYTHONS}")
  message(STATUS "Default test interpreter: ${OVRA_KB_DEFAULT_TEST_PYTHON}")
endif()

# Asks the interpreter `python` about itself and sets, in the caller's scope:
#   <prefix>_INCLUDE_DIR  its headers' directory       <prefix>_EXT_SUFFIX  its extension-module suffix
#   <prefix>_LIBRARY      LIBDIR/LDLIBRARY              <prefix>_VERSION     major.minor.micro
#   <prefix>_FOUND        TRUE when it answered and its Python.h exists
function(ovra_kb_describe_python python prefix)
  set(program [=[
import sys, sysconfig
print(sysconfig.get_paths()["include"])
print(sysconfig.get_config_var("EXT_SUFFIX") or "")
print((sysconfig.get_config_var("LIBDIR") or "") + "/" + (sysconfig.get_config_var("LDLIBRARY") or ""))
print("%d.%d.%d" % sys.version_info[:3])
]=])
  execute_process(COMMAND "${python}" -c "${program}"
    OUTPUT_VARIABLE answers OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
  string(REPLACE "\n" ";" answers "${answers}")
  list(LENGTH answers count)
  set(found FALSE)
  if(NOT failed AND count EQUAL 4)
    list(GET answers 0 include_dir)
    list(GET answers 1 suffix)
    list(GET answers 2 library)
    list(GET answers 3 version)
    if(EXISTS "${include_dir}/Python.h")
      set(found TRUE)
    endif()
  endif()
  set(${prefix}_FOUND ${found} PARENT_SCOPE)
  set(${prefix}_INCLUDE_DIR "${include_dir}" PARENT_SCOPE)
  set(${prefix}_EXT_SUFFIX "${suffix}" PARENT_SCOPE)
  set(${prefix}_LIBRARY "${library}" PARENT_SCOPE)
  set(${prefix}_VERSION "${version}" PARENT_SCOPE)
endfunction()

# pybind11's headers: the benchmarks' baseline and the extension module of the tests with Python as the host.
find_path(OVRA_KB_PYBIND11_INCLUDE_DIR pybind11/pybind11.h)
