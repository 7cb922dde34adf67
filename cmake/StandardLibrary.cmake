# The shipped standard library in the build: its location and the fingerprint
# file of the build tree, <build dir>/generated/quor-stdlib.fingerprint, that a
# compiler run from the build tree reads to recognise a changed library.
#
# The fingerprint is computed by `quor-stdlib fingerprint`, the one
# implementation of the recipe (docs/stdlib-fingerprint.md): the build runs the
# tool it has just built, as it does for the manual page. A build that makes no
# tool (QUOR_BUILD_TOOLS=OFF), or whose tool cannot run where it is built (a
# cross build), names another one in QUOR_STDLIB_FINGERPRINT_TOOL; with
# neither, the build tree has no fingerprint file, and an installation none
# either (cmake/Install.cmake), and the bootstrap falls back to a value that
# describes no library.
#
# The fingerprint target is always out of date, so every build recomputes the
# fingerprint; cmake/WriteStdlibFingerprint.cmake rewrites the file only when
# the value changes. A file list fixed at configure time would miss a unit
# added or removed after that, and hashing the whole library costs a few
# milliseconds. The bootstrap and the tool cannot depend on the target (the
# tool makes it); what runs from the build tree and needs it does: the tests,
# the benchmarks, and `make run` through the tool preset.
#
# Include this after the tool's target is defined. It sets
# QUOR_STDLIB_FINGERPRINT_COMMAND to the quor-stdlib that fingerprints (a
# generator expression for the built one), or "" when there is none.

if(NOT DEFINED QUOR_STDLIB_SOURCE_DIR)
  set(QUOR_STDLIB_SOURCE_DIR "${PROJECT_SOURCE_DIR}/stdlib")
endif()
set(QUOR_STDLIB_FINGERPRINT_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.fingerprint")
set(QUOR_STDLIB_FINGERPRINT_TOOL "" CACHE FILEPATH
  "A quor-stdlib that fingerprints the standard library when this build makes none or cannot run its own; empty: the one this build makes")

if(NOT QUOR_STDLIB_FINGERPRINT_TOOL STREQUAL "")
  set(QUOR_STDLIB_FINGERPRINT_COMMAND "${QUOR_STDLIB_FINGERPRINT_TOOL}")
elseif(TARGET quor-stdlib)
  set(QUOR_STDLIB_FINGERPRINT_COMMAND "$<TARGET_FILE:quor-stdlib>")
else()
  set(QUOR_STDLIB_FINGERPRINT_COMMAND "")
  message(WARNING
    "This build makes no quor-stdlib, which computes the standard library's fingerprint: "
    "neither the build tree nor an installation gets a fingerprint file, so a changed "
    "library does not cause a rebuild. Set QUOR_STDLIB_FINGERPRINT_TOOL to a built "
    "quor-stdlib to have one.")
endif()

if(QUOR_STDLIB_FINGERPRINT_COMMAND STREQUAL "")
  # A file left by an earlier configuration would describe a library that may
  # have changed since; without one the bootstrap uses its fallback.
  add_custom_target(quor_stdlib_fingerprint ALL
    COMMAND "${CMAKE_COMMAND}" -E rm -f "${QUOR_STDLIB_FINGERPRINT_FILE}"
    COMMENT "No quor-stdlib to fingerprint the standard library with"
    VERBATIM)
else()
  add_custom_target(quor_stdlib_fingerprint ALL
    COMMAND "${CMAKE_COMMAND}"
            "-DTOOL=${QUOR_STDLIB_FINGERPRINT_COMMAND}"
            "-DROOT=${QUOR_STDLIB_SOURCE_DIR}"
            "-DOUTPUT=${QUOR_STDLIB_FINGERPRINT_FILE}"
            -P "${CMAKE_CURRENT_LIST_DIR}/WriteStdlibFingerprint.cmake"
    BYPRODUCTS "${QUOR_STDLIB_FINGERPRINT_FILE}"
    COMMENT "Fingerprinting the standard library"
    VERBATIM)
  if(QUOR_STDLIB_FINGERPRINT_TOOL STREQUAL "")
    add_dependencies(quor_stdlib_fingerprint quor-stdlib)
  endif()
endif()
