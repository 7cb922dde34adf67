# Writes the fingerprint of a standard-library source tree to a file, which the
# bootstrap reads to decide whether its cache still matches the library. The
# value is computed by the tool, `quor-stdlib fingerprint`, the one
# implementation of the recipe in docs/stdlib-fingerprint.md; this script only
# stores what the tool prints.
#
#   cmake -DTOOL=<quor-stdlib> -DROOT=<library root> -DOUTPUT=<file>
#         -P WriteStdlibFingerprint.cmake
#
# OUTPUT receives the 64 digits and a line feed, and is rewritten only when its
# content changes, so that its time stamp moves only when the library does. It
# is replaced through a temporary sibling and a rename, so that a compiler
# reading it at the same moment sees the old or the new value, never a torn one.
# When the tool fails, OUTPUT is left as it was and the script fails with the
# tool's message.

cmake_minimum_required(VERSION 3.25)

foreach(_qfp_required TOOL ROOT OUTPUT)
  if(NOT DEFINED ${_qfp_required} OR "${${_qfp_required}}" STREQUAL "")
    message(FATAL_ERROR "WriteStdlibFingerprint: ${_qfp_required} is not set")
  endif()
endforeach()

# --quiet: the value alone, without the note that the tool adds when the
# library's own fingerprint file says something else.
execute_process(COMMAND "${TOOL}" --quiet fingerprint "${ROOT}"
  OUTPUT_VARIABLE _qfp_value
  ERROR_VARIABLE _qfp_error
  RESULT_VARIABLE _qfp_result)
if(NOT _qfp_result EQUAL 0)
  message(FATAL_ERROR "WriteStdlibFingerprint: '${TOOL} fingerprint ${ROOT}' failed "
                      "(${_qfp_result}): ${_qfp_error}")
endif()
if(NOT _qfp_value MATCHES "^[0-9a-f]+\n$")
  message(FATAL_ERROR "WriteStdlibFingerprint: '${TOOL} fingerprint ${ROOT}' printed "
                      "'${_qfp_value}', not a fingerprint")
endif()
string(LENGTH "${_qfp_value}" _qfp_length)
if(NOT _qfp_length EQUAL 65)
  message(FATAL_ERROR "WriteStdlibFingerprint: '${TOOL} fingerprint ${ROOT}' printed "
                      "'${_qfp_value}', not 64 digits")
endif()

set(_qfp_old "")
if(EXISTS "${OUTPUT}" AND NOT IS_DIRECTORY "${OUTPUT}")
  file(READ "${OUTPUT}" _qfp_old)
endif()
if(NOT _qfp_old STREQUAL _qfp_value)
  get_filename_component(_qfp_dir "${OUTPUT}" DIRECTORY)
  file(MAKE_DIRECTORY "${_qfp_dir}")
  string(RANDOM LENGTH 12 _qfp_suffix)
  set(_qfp_tmp "${OUTPUT}.tmp.${_qfp_suffix}")
  file(WRITE "${_qfp_tmp}" "${_qfp_value}")
  file(RENAME "${_qfp_tmp}" "${OUTPUT}" RESULT _qfp_renamed)
  if(NOT _qfp_renamed EQUAL 0)
    file(REMOVE "${_qfp_tmp}")
    message(FATAL_ERROR "WriteStdlibFingerprint: cannot replace '${OUTPUT}': ${_qfp_renamed}")
  endif()
  string(STRIP "${_qfp_value}" _qfp_digits)
  message(STATUS "Standard library fingerprint ${_qfp_digits} -> ${OUTPUT}")
endif()
