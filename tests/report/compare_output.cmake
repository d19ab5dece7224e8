# Runs ruvo-report with the arguments ARG0, ARG1, ... and checks that its standard output
# equals the file EXPECTED and its exit status equals STATUS. The output is kept in ACTUAL;
# on a difference, diff -u shows it. EMULATOR, when set, is the command line that runs a
# cross-built ruvo-report on this machine (qemu-user).
separate_arguments(command UNIX_COMMAND "${EMULATOR}")
list(APPEND command ${REPORT})
foreach(i RANGE 0 9)
  if(DEFINED ARG${i})
    list(APPEND command "${ARG${i}}")
  endif()
endforeach()
execute_process(COMMAND ${command}
  OUTPUT_FILE ${ACTUAL}
  ERROR_VARIABLE errors
  RESULT_VARIABLE status)
if(NOT "${status}" STREQUAL "${STATUS}")
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}; standard error:\n${errors}")
endif()
if("${STATUS}" STREQUAL "0" AND NOT "${errors}" STREQUAL "")
  message(FATAL_ERROR "unexpected standard error:\n${errors}")
endif()
if("${STATUS}" STREQUAL "2" AND "${errors}" STREQUAL "")
  message(FATAL_ERROR "no message on standard error for a wrong command line")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${EXPECTED} ${ACTUAL} RESULT_VARIABLE same)
if(NOT same EQUAL 0)
  find_program(DIFF diff)
  if(DIFF)
    execute_process(COMMAND ${DIFF} -u ${EXPECTED} ${ACTUAL} OUTPUT_VARIABLE difference)
  endif()
  message(FATAL_ERROR "output differs from ${EXPECTED}:\n${difference}")
endif()
