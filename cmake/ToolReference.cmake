# The manual page and the bash completion of quor-stdlib, generated from the
# built tool's help (GenerateToolReference.cmake) and installed with it:
#   share/man/man1/quor-stdlib.1
#   share/bash-completion/completions/quor-stdlib
# Part of the default build, but not of the tool's own target, so that
# `make run` does not wait for them.

if(NOT TARGET quor-stdlib)
  return()
endif()

set(QUOR_MANPAGE_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.1")
set(QUOR_COMPLETION_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.bash")
add_custom_command(
  OUTPUT "${QUOR_MANPAGE_FILE}" "${QUOR_COMPLETION_FILE}"
  COMMAND "${CMAKE_COMMAND}"
          "-DTOOL=$<TARGET_FILE:quor-stdlib>"
          "-DVERSION=${QUOR_COMPILER_VERSION}"
          "-DDOCDIR=${CMAKE_INSTALL_FULL_DOCDIR}"
          "-DMANPAGE=${QUOR_MANPAGE_FILE}"
          "-DCOMPLETION=${QUOR_COMPLETION_FILE}"
          -P "${CMAKE_CURRENT_LIST_DIR}/GenerateToolReference.cmake"
  DEPENDS quor-stdlib "${CMAKE_CURRENT_LIST_DIR}/GenerateToolReference.cmake"
  COMMENT "Generating the manual page and the completion of quor-stdlib"
  VERBATIM)
add_custom_target(quor_stdlib_reference ALL
  DEPENDS "${QUOR_MANPAGE_FILE}" "${QUOR_COMPLETION_FILE}")

install(FILES "${QUOR_MANPAGE_FILE}"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
  COMPONENT tool)
install(FILES "${QUOR_COMPLETION_FILE}"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
  RENAME quor-stdlib
  COMPONENT tool)
