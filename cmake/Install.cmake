# What `cmake --install` puts under the prefix:
#   share/quor/stdlib/...                the library's ".qr" sources, folders kept,
#   share/quor/stdlib/.quor-stdlib-fingerprint   and their fingerprint,
#   share/quor/stdlib-cache/             the system cache: that library precompiled
#                                        by the built quor-stdlib, ready to use
#                                        read-only (QUOR_SYSTEM_CACHE_NAME),
#   share/quor/PackageLocation.cpp       compiled into programs built against the
#                                        package, so that they find that library,
#   include/quor/compiler/...            the public headers (quor_headers),
#   lib/libquor_bootstrap.a, lib/libquor_services.a, lib/libquor_layers.a,
#   lib/cmake/QuorBootstrap/             the CMake package (Quor::bootstrap, Quor::services,
#                                        Quor::layers, and Quor::headers, which they use),
#   lib/pkgconfig/quor-bootstrap.pc      the same for pkg-config,
#   share/doc/quor-bootstrap/            the README, docs/ and examples/.
# The tool installs itself from its own folder; its manual page and completion
# come from cmake/ToolReference.cmake.
#
# quor_services is installed next to quor_bootstrap because a compiler that
# embeds the bootstrap but has no runtime, precompiler or source cache of its own
# can then link ours; one that has its own links Quor::bootstrap alone. The
# installed services are quor_services_installed, whose default library is the
# installed one; docs/embedding.md explains how a program finds it.

include(CMakePackageConfigHelpers)

# The library and the location file must stay siblings: the installed services
# look for "stdlib" beside wherever PackageLocation.cpp was compiled from.
set(QUOR_INSTALL_STDLIBDIR "${CMAKE_INSTALL_DATADIR}/quor/stdlib")
set(QUOR_INSTALL_LOCATION_FILE "${CMAKE_INSTALL_DATADIR}/quor/PackageLocation.cpp")
# The system cache lies beside the library too: the services find it there.
set(QUOR_INSTALL_SYSTEM_CACHEDIR "${CMAKE_INSTALL_DATADIR}/quor/${QUOR_SYSTEM_CACHE_NAME}")
set(QUOR_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/QuorBootstrap")
set(QUOR_INSTALL_PKGCONFIGDIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# The library. Symbolic links are left behind, as the bootstrap would ignore
# them anyway and the fingerprint does not count them.
install(DIRECTORY "${QUOR_STDLIB_SOURCE_DIR}/"
  DESTINATION "${QUOR_INSTALL_STDLIBDIR}"
  COMPONENT stdlib
  FILES_MATCHING PATTERN "*.qr")

# Its fingerprint is computed from the installed tree, not copied from the build
# tree: what the bootstrap compiles is what lies under the prefix, including any
# unit that an earlier installation left there. The code runs after the copy
# above, since install rules of one directory run in the order they were given.
# The tool that fingerprints the build tree's library (cmake/StandardLibrary.cmake)
# writes the file itself, as `quor-stdlib fingerprint --write` does for any
# library: rewritten only when its value changes, through a rename.
if(QUOR_STDLIB_FINGERPRINT_COMMAND STREQUAL "")
  install(CODE "
  message(WARNING \"No quor-stdlib to fingerprint the installed standard library with \"
                  \"(see QUOR_STDLIB_FINGERPRINT_TOOL): it is installed without its fingerprint \"
                  \"and without a system cache.\")
" COMPONENT stdlib)
else()
  install(CODE "
  set(_quor_stdlib \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QUOR_INSTALL_STDLIBDIR}\")
  if(IS_ABSOLUTE \"${QUOR_INSTALL_STDLIBDIR}\")
    set(_quor_stdlib \"\$ENV{DESTDIR}${QUOR_INSTALL_STDLIBDIR}\")
  endif()
  set(_quor_fingerprint \"\${_quor_stdlib}/.quor-stdlib-fingerprint\")
  message(STATUS \"Fingerprinting: \${_quor_fingerprint}\")
  execute_process(
    COMMAND \"${QUOR_STDLIB_FINGERPRINT_COMMAND}\" --quiet fingerprint --write \"\${_quor_stdlib}\"
    OUTPUT_QUIET
    ERROR_VARIABLE _quor_error
    RESULT_VARIABLE _quor_result)
  if(NOT _quor_result EQUAL 0)
    message(FATAL_ERROR \"Unable to fingerprint the installed standard library: \${_quor_result}\\n\${_quor_error}\")
  endif()
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${_quor_fingerprint}\")
" COMPONENT stdlib)

  # The system cache: the installed library precompiled by the same tool, once,
  # when the package is made, so that no user's first start has to build it.
  # Objects are byte-identical on every machine (docs/object-format.md), so the
  # cache is data derived from the library, like byte-compiled files, and the
  # package ships it: dpkg then owns every file of it, and an upgrade or a purge
  # replaces or removes it with no maintainer script.
  #
  # A cache left by an earlier installation is removed first, so that what is
  # installed holds this library's objects alone, for this compiler version
  # alone. The system layer is turned off (an empty QUOR_SYSTEM_CACHE_DIR), so
  # that a system cache already on the build machine is never adopted from:
  # every object is compiled from the installed library. The build lock is
  # removed afterwards, since a cache used read-only never takes it, and the
  # modes are set for everyone to read, whatever the umask of the build.
  install(CODE "
  set(_quor_stdlib \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QUOR_INSTALL_STDLIBDIR}\")
  if(IS_ABSOLUTE \"${QUOR_INSTALL_STDLIBDIR}\")
    set(_quor_stdlib \"\$ENV{DESTDIR}${QUOR_INSTALL_STDLIBDIR}\")
  endif()
  set(_quor_cache \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QUOR_INSTALL_SYSTEM_CACHEDIR}\")
  if(IS_ABSOLUTE \"${QUOR_INSTALL_SYSTEM_CACHEDIR}\")
    set(_quor_cache \"\$ENV{DESTDIR}${QUOR_INSTALL_SYSTEM_CACHEDIR}\")
  endif()
  message(STATUS \"Precompiling: \${_quor_cache}\")
  file(REMOVE_RECURSE \"\${_quor_cache}\")
  execute_process(
    COMMAND \"\${CMAKE_COMMAND}\" -E env QUOR_SYSTEM_CACHE_DIR=
            \"${QUOR_STDLIB_FINGERPRINT_COMMAND}\" --stdlib \"\${_quor_stdlib}\"
            --cache-root \"\${_quor_cache}\" --quiet ensure
    OUTPUT_QUIET
    ERROR_VARIABLE _quor_error
    RESULT_VARIABLE _quor_result)
  if(NOT _quor_result EQUAL 0)
    message(FATAL_ERROR \"Unable to precompile the installed standard library into \"
                        \"\${_quor_cache}: \${_quor_result}\\n\${_quor_error}\")
  endif()
  file(GLOB _quor_locks LIST_DIRECTORIES false
       \"\${_quor_cache}/.first-launch/*/.stdlib-bootstrap-*.lock\")
  if(_quor_locks)
    file(REMOVE \${_quor_locks})
  endif()
  file(CHMOD_RECURSE \"\${_quor_cache}\"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
       DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
                             GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  file(GLOB_RECURSE _quor_cache_files LIST_DIRECTORIES false \"\${_quor_cache}/*\")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \${_quor_cache_files})
" COMPONENT stdlib)
endif()

install(FILES "${PROJECT_SOURCE_DIR}/compiler/package/PackageLocation.cpp"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/quor"
  COMPONENT development)

# The public headers are quor_headers' file set (compiler/CMakeLists.txt); they
# are installed with it, keeping their folders below include/quor.
set_target_properties(quor_headers PROPERTIES EXPORT_NAME headers)
set_target_properties(quor_bootstrap PROPERTIES EXPORT_NAME bootstrap)
set_target_properties(quor_services_installed PROPERTIES EXPORT_NAME services)
set_target_properties(quor_layers PROPERTIES EXPORT_NAME layers)
install(TARGETS quor_headers quor_bootstrap quor_layers quor_services_installed
  EXPORT QuorBootstrapTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/quor" COMPONENT development)
install(EXPORT QuorBootstrapTargets
  NAMESPACE Quor::
  DESTINATION "${QUOR_INSTALL_CMAKEDIR}"
  COMPONENT development)

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/QuorBootstrapConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/generated/QuorBootstrapConfig.cmake"
  INSTALL_DESTINATION "${QUOR_INSTALL_CMAKEDIR}"
  PATH_VARS QUOR_INSTALL_STDLIBDIR QUOR_INSTALL_SYSTEM_CACHEDIR QUOR_INSTALL_LOCATION_FILE
            CMAKE_INSTALL_INCLUDEDIR)
# The bootstrap's cache layout and marker are tied to the compiler version, and
# before 1.0 a minor version may change them: only the same major.minor matches.
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/generated/QuorBootstrapConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/generated/QuorBootstrapConfig.cmake"
  "${PROJECT_BINARY_DIR}/generated/QuorBootstrapConfigVersion.cmake"
  DESTINATION "${QUOR_INSTALL_CMAKEDIR}"
  COMPONENT development)

# The pkg-config file finds its prefix from its own folder (${pcfiledir}), so
# that it stays right when the prefix is installed with DESTDIR or copied
# elsewhere, like the CMake package does.
function(_quor_prefix_relative out directory)
  if(IS_ABSOLUTE "${directory}")
    set(${out} "${directory}" PARENT_SCOPE)
  else()
    set(${out} "\${prefix}/${directory}" PARENT_SCOPE)
  endif()
endfunction()
if(IS_ABSOLUTE "${QUOR_INSTALL_PKGCONFIGDIR}")
  set(QUOR_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH QUOR_PC_PREFIX "/quor-prefix/${QUOR_INSTALL_PKGCONFIGDIR}" "/quor-prefix")
  set(QUOR_PC_PREFIX "\${pcfiledir}/${QUOR_PC_PREFIX}")
endif()
_quor_prefix_relative(QUOR_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
_quor_prefix_relative(QUOR_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
_quor_prefix_relative(QUOR_PC_DATADIR "${CMAKE_INSTALL_DATADIR}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/quor-bootstrap.pc.in"
  "${PROJECT_BINARY_DIR}/generated/quor-bootstrap.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/generated/quor-bootstrap.pc"
  DESTINATION "${QUOR_INSTALL_PKGCONFIGDIR}"
  COMPONENT development)

# What a reader of the installed package needs: the README, the guides and the
# example driver that docs/embedding.md walks through.
install(FILES "${PROJECT_SOURCE_DIR}/README.md"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT documentation)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs/"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT documentation)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT documentation)
