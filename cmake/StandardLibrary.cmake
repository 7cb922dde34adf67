# The shipped standard library in the build: its location and the fingerprint
# file of the build tree, <build dir>/generated/quor-stdlib.fingerprint, that a
# compiler run from the build tree reads to recognise a changed library.
#
# The fingerprint target is always out of date, so every build recomputes the
# fingerprint; the script rewrites the file only when the value changes. A file
# list fixed at configure time would miss a unit added or removed after that, and
# hashing the whole library costs a few milliseconds.
#
# Include this after the compiler's targets are defined, so that they can be
# made to depend on the fingerprint.

if(NOT DEFINED QUOR_STDLIB_SOURCE_DIR)
  set(QUOR_STDLIB_SOURCE_DIR "${PROJECT_SOURCE_DIR}/stdlib")
endif()
set(QUOR_STDLIB_FINGERPRINT_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/StdlibFingerprint.cmake")
set(QUOR_STDLIB_FINGERPRINT_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.fingerprint")

add_custom_target(quor_stdlib_fingerprint ALL
  COMMAND "${CMAKE_COMMAND}"
          "-DROOT=${QUOR_STDLIB_SOURCE_DIR}"
          "-DOUTPUT=${QUOR_STDLIB_FINGERPRINT_FILE}"
          -P "${QUOR_STDLIB_FINGERPRINT_SCRIPT}"
  BYPRODUCTS "${QUOR_STDLIB_FINGERPRINT_FILE}"
  COMMENT "Fingerprinting the standard library"
  VERBATIM)

# Whoever builds the bootstrap or the tool gets a current fingerprint with it,
# even when building just that target.
foreach(_quor_target IN ITEMS quor_bootstrap quor-stdlib)
  if(TARGET ${_quor_target})
    add_dependencies(${_quor_target} quor_stdlib_fingerprint)
  endif()
endforeach()
