# The Debian package, made by CPack from what `cmake --install` puts under the
# prefix: the tool with its manual page and completion, the standard library
# with its fingerprint and its system cache (the library precompiled, which
# dpkg then owns like any other file), the static libraries, the headers, the
# CMake and pkg-config files, and the documentation. `make package` builds it in a
# Release tree of its own, configured for /usr, so that the location the
# installed services fall back to is the one the package installs to.

set(QUOR_PACKAGE_MAINTAINER "Quor developers <quor-dev@example.org>" CACHE STRING
  "Maintainer field of the Debian package")

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "${QUOR_PACKAGE_NAME}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Quor")
set(CPACK_PACKAGE_CONTACT "${QUOR_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Quor standard library, its first-launch bootstrap and the quor-stdlib tool")
# CPack puts the summary on the first line of the Description field itself.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "The Quor compiler needs its standard library precompiled before it can
compile anything. This package ships that library already precompiled, as a
read-only system cache under ${CMAKE_INSTALL_FULL_DATADIR}/quor/${QUOR_SYSTEM_CACHE_NAME}, so that every
user's compiler starts ready without building it; a compiler pointed at
another copy of the library builds it into a per-user cache on its first
start. The package holds the library with its fingerprint and its system
cache, the quor-stdlib tool that examines, prepares and prunes the caches,
and what a compiler needs to embed the bootstrap: static libraries, headers,
a CMake package (QuorBootstrap) and a pkg-config file (quor-bootstrap).")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "devel")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
# The tool's shared-library dependencies, as dpkg-shlibdeps finds them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The static services hash with libcrypto: a compiler that links them needs its
# development files.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libssl-dev")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "cmake, pkg-config")
set(CPACK_STRIP_FILES FALSE)

include(CPack)
