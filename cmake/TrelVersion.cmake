# Build identity: the source revision and release tag, taken from git at
# configure time.  Outside a git checkout the hash is all zeros and the tag is
# the project version.
set(TREL_GIT_HASH "0000000000000000000000000000000000000000")
set(TREL_GIT_TAG "v${PROJECT_VERSION}")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${PROJECT_SOURCE_DIR}/.git")
  execute_process(COMMAND "${GIT_EXECUTABLE}" rev-parse --verify -q HEAD
                  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
                  OUTPUT_VARIABLE _hash OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE _rc ERROR_QUIET)
  if(_rc EQUAL 0 AND _hash MATCHES "^[0-9a-f]+$")
    set(TREL_GIT_HASH "${_hash}")
  endif()
  execute_process(COMMAND "${GIT_EXECUTABLE}" describe --tags --abbrev=0
                  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
                  OUTPUT_VARIABLE _tag OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE _rc ERROR_QUIET)
  if(_rc EQUAL 0 AND NOT _tag STREQUAL "")
    set(TREL_GIT_TAG "${_tag}")
  endif()
  # Re-run the configuration when HEAD moves.
  foreach(_f HEAD index)
    if(EXISTS "${PROJECT_SOURCE_DIR}/.git/${_f}")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/.git/${_f}")
    endif()
  endforeach()
endif()
message(STATUS "libtrel ${TREL_GIT_TAG} (${TREL_GIT_HASH})")
