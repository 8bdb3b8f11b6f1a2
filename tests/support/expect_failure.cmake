# Runs a command that must fail (see trel_add_failure_test): it passes only
# when the command exits with a non-zero status, exactly STATUS when given,
# and its standard error matches the regular expression MESSAGE.
#   cmake [-DSTATUS=<n>] -DMESSAGE=<regex> -P expect_failure.cmake -- <command> <args>...
set(cmd "")
set(in_command OFF)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
  if(in_command)
    list(APPEND cmd "${CMAKE_ARGV${i}}")
  elseif(CMAKE_ARGV${i} STREQUAL "--")
    set(in_command ON)
  endif()
endforeach()
if(NOT cmd OR NOT DEFINED MESSAGE)
  message(FATAL_ERROR "usage: cmake [-DSTATUS=<n>] -DMESSAGE=<regex> -P expect_failure.cmake -- <command>...")
endif()

execute_process(COMMAND ${cmd} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
message("standard output:\n${out}standard error:\n${err}exit: ${rc}")
if(NOT rc MATCHES "^[0-9]+$")
  message(FATAL_ERROR "the command did not exit normally: ${rc}")
elseif(rc EQUAL 0)
  message(FATAL_ERROR "the command succeeded")
elseif(NOT "${STATUS}" STREQUAL "" AND NOT rc EQUAL "${STATUS}")
  message(FATAL_ERROR "exit status ${rc}, not ${STATUS}")
elseif(NOT err MATCHES "${MESSAGE}")
  message(FATAL_ERROR "standard error does not match: ${MESSAGE}")
endif()
