# Computes the fingerprint of a standard-library source tree and writes it to a
# file, which the bootstrap reads to decide whether its cache still matches the
# library it ships with.
#
#   cmake -DROOT=<library root> -DOUTPUT=<file> -P StdlibFingerprint.cmake
#
# The recipe is documented in docs/stdlib-fingerprint.md, together with a shell
# command that reproduces it; the two must stay in step. In short: every regular
# ".qr" file below ROOT (symbolic links are neither followed nor counted), sorted
# bytewise by its path relative to ROOT, contributes the line
# "<sha256 of its bytes>  <relative path>\n" to a manifest, and the fingerprint
# is the SHA-256 of that manifest, in lower-case hexadecimal.
#
# OUTPUT receives the 64 digits and a line feed, and is rewritten only when its
# content changes, so that its time stamp moves only when the library does. It
# is replaced through a temporary sibling and a rename, so that a compiler
# reading it at the same moment sees the old or the new value, never a torn one.
#
# The script is also usable through include() with ROOT and OUTPUT set; it then
# leaves QUOR_STDLIB_FINGERPRINT set to the value it computed.

cmake_minimum_required(VERSION 3.25)

if(NOT DEFINED ROOT OR ROOT STREQUAL "")
  message(FATAL_ERROR "StdlibFingerprint: ROOT (the library root) is not set")
endif()
if(NOT DEFINED OUTPUT OR OUTPUT STREQUAL "")
  message(FATAL_ERROR "StdlibFingerprint: OUTPUT (the fingerprint file) is not set")
endif()
get_filename_component(_qfp_root "${ROOT}" ABSOLUTE)
if(NOT IS_DIRECTORY "${_qfp_root}")
  message(FATAL_ERROR "StdlibFingerprint: '${_qfp_root}' is not a directory")
endif()

# GLOB_RECURSE does not descend into linked directories (policy CMP0009), and
# its "*" also matches names that begin with a full stop, as the bootstrap's own
# directory walk sees them.
file(GLOB_RECURSE _qfp_files LIST_DIRECTORIES false RELATIVE "${_qfp_root}"
     "${_qfp_root}/*.qr")
list(SORT _qfp_files COMPARE STRING CASE SENSITIVE ORDER ASCENDING)

set(_qfp_manifest "")
foreach(_qfp_rel IN LISTS _qfp_files)
  # A file named exactly ".qr" has no extension, so the bootstrap does not take
  # it for a unit; neither do we.
  get_filename_component(_qfp_name "${_qfp_rel}" NAME)
  if(_qfp_name STREQUAL ".qr")
    continue()
  endif()
  # Such names would be split or escaped differently by CMake lists and by
  # sha256sum, and the documented shell command would then disagree; the
  # library never needs them, so refuse them instead of guessing.
  if(_qfp_rel MATCHES "[][\\\n]")
    message(FATAL_ERROR
      "StdlibFingerprint: unsupported character in file name '${_qfp_rel}'")
  endif()
  set(_qfp_file "${_qfp_root}/${_qfp_rel}")
  if(IS_SYMLINK "${_qfp_file}")
    continue()
  endif()
  if(NOT EXISTS "${_qfp_file}" OR IS_DIRECTORY "${_qfp_file}")
    # Only a name that CMake rewrote can bring us here: a ';' splits it in two
    # list elements and a backslash becomes a '/'.
    message(FATAL_ERROR
      "StdlibFingerprint: unsupported character in file name near '${_qfp_rel}' "
      "below '${_qfp_root}' (';' and '\\' are not allowed)")
  endif()
  # An empty file is not opened: its digest is that of no bytes. This also
  # keeps a stray named pipe from blocking the build forever.
  file(SIZE "${_qfp_file}" _qfp_size)
  if(_qfp_size EQUAL 0)
    string(SHA256 _qfp_digest "")
  else()
    file(SHA256 "${_qfp_file}" _qfp_digest)
  endif()
  string(APPEND _qfp_manifest "${_qfp_digest}  ${_qfp_rel}\n")
endforeach()
string(SHA256 QUOR_STDLIB_FINGERPRINT "${_qfp_manifest}")
string(TOLOWER "${QUOR_STDLIB_FINGERPRINT}" QUOR_STDLIB_FINGERPRINT)

set(_qfp_content "${QUOR_STDLIB_FINGERPRINT}\n")
set(_qfp_old "")
if(EXISTS "${OUTPUT}" AND NOT IS_DIRECTORY "${OUTPUT}")
  file(READ "${OUTPUT}" _qfp_old)
endif()
if(NOT _qfp_old STREQUAL _qfp_content)
  get_filename_component(_qfp_dir "${OUTPUT}" DIRECTORY)
  file(MAKE_DIRECTORY "${_qfp_dir}")
  string(RANDOM LENGTH 12 _qfp_suffix)
  set(_qfp_tmp "${OUTPUT}.tmp.${_qfp_suffix}")
  file(WRITE "${_qfp_tmp}" "${_qfp_content}")
  file(RENAME "${_qfp_tmp}" "${OUTPUT}" RESULT _qfp_renamed)
  if(NOT _qfp_renamed EQUAL 0)
    file(REMOVE "${_qfp_tmp}")
    message(FATAL_ERROR
      "StdlibFingerprint: cannot replace '${OUTPUT}': ${_qfp_renamed}")
  endif()
  message(STATUS "Standard library fingerprint ${QUOR_STDLIB_FINGERPRINT} -> ${OUTPUT}")
endif()
