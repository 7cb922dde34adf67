# The manual page and the bash and zsh completions of quor-stdlib, generated
# from the built tool's help (GenerateToolReference.cmake) and installed with it:
#   share/man/man1/quor-stdlib.1
#   share/bash-completion/completions/quor-stdlib
#   share/zsh/vendor-completions/_quor-stdlib   under /usr, where Debian's zsh
#                                               keeps packaged completions,
#   share/zsh/site-functions/_quor-stdlib       under any other prefix, which
#                                               zsh searches for local ones
#   (QUOR_INSTALL_ZSHCOMPLETIONDIR overrides the choice)
# Part of the default build, but not of the tool's own target, so that
# `make run` does not wait for them.

if(NOT TARGET quor-stdlib)
  return()
endif()

set(QUOR_MANPAGE_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.1")
set(QUOR_COMPLETION_FILE "${PROJECT_BINARY_DIR}/generated/quor-stdlib.bash")
set(QUOR_ZSH_COMPLETION_FILE "${PROJECT_BINARY_DIR}/generated/_quor-stdlib")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(_quor_zsh_default "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")
else()
  set(_quor_zsh_default "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
endif()
set(QUOR_INSTALL_ZSHCOMPLETIONDIR "${_quor_zsh_default}" CACHE PATH
  "Where the zsh completion of quor-stdlib is installed, below the prefix")
add_custom_command(
  OUTPUT "${QUOR_MANPAGE_FILE}" "${QUOR_COMPLETION_FILE}" "${QUOR_ZSH_COMPLETION_FILE}"
  COMMAND "${CMAKE_COMMAND}"
          "-DTOOL=$<TARGET_FILE:quor-stdlib>"
          "-DVERSION=${QUOR_COMPILER_VERSION}"
          "-DDOCDIR=${CMAKE_INSTALL_FULL_DOCDIR}"
          "-DMANPAGE=${QUOR_MANPAGE_FILE}"
          "-DCOMPLETION=${QUOR_COMPLETION_FILE}"
          "-DZSH_COMPLETION=${QUOR_ZSH_COMPLETION_FILE}"
          -P "${CMAKE_CURRENT_LIST_DIR}/GenerateToolReference.cmake"
  DEPENDS quor-stdlib "${CMAKE_CURRENT_LIST_DIR}/GenerateToolReference.cmake"
  COMMENT "Generating the manual page and the completions of quor-stdlib"
  VERBATIM)
add_custom_target(quor_stdlib_reference ALL
  DEPENDS "${QUOR_MANPAGE_FILE}" "${QUOR_COMPLETION_FILE}" "${QUOR_ZSH_COMPLETION_FILE}")

install(FILES "${QUOR_MANPAGE_FILE}"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
  COMPONENT tool)
install(FILES "${QUOR_COMPLETION_FILE}"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
  RENAME quor-stdlib
  COMPONENT tool)
install(FILES "${QUOR_ZSH_COMPLETION_FILE}"
  DESTINATION "${QUOR_INSTALL_ZSHCOMPLETIONDIR}"
  COMPONENT tool)
