# Test suites written with Python's unittest register one CTest test per case: the suite's script
# lists its cases when asked, and each case then runs in a process of its own.

# Sets <out> to the list of cases that `interpreter script ARGS...` prints, one per line; a failure
# to list them stops the configuration. The script is a configure dependency.
function(ovra_kb_list_python_cases out interpreter script)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${script}")
  execute_process(COMMAND "${interpreter}" "${script}" ${ARGN}
    OUTPUT_VARIABLE cases RESULT_VARIABLE listed OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT listed EQUAL 0)
    message(FATAL_ERROR "Cannot list the cases of ${script} with ${interpreter}")
  endif()
  string(REPLACE "\n" ";" cases "${cases}")
  set(${out} "${cases}" PARENT_SCOPE)
endfunction()
