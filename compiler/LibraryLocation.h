// Where the standard library lies when neither Runtime::configure() nor
// QUOR_STDLIB_PATH says, and where the system cache of that installation lies: the one part of the
// runtime's defaults that differs between a program built in this source tree and one built against
// the installed package. Each build of the services links exactly one definition of
// defaultStandardLibraryPath(): BuildTreeLibraryLocation.cpp into the build tree's services,
// InstalledLibraryLocation.cpp into the installed ones. Not installed: programs reach the result
// through Runtime.

#ifndef QUOR_COMPILER_LIBRARYLOCATION_H
#define QUOR_COMPILER_LIBRARYLOCATION_H

#include <filesystem>
#include <string>

namespace quor::compiler::location {

// The default root of the standard library's ".qr" tree. It need not exist.
std::string defaultStandardLibraryPath();

// The default system cache root: the one beside the installation's library,
// whether or not anything is there; empty (no system layer) where there is no
// installation, as for a program run from the build tree.
std::string defaultSystemCacheRoot();

// The system cache of the installation whose library is `library`: the
// folder QUOR_SYSTEM_CACHE_NAME beside it (<datadir>/quor/stdlib-cache).
std::filesystem::path systemCacheBeside(const std::filesystem::path& library);

// <directory of the running program>/../share/quor/stdlib, the library of a
// program installed in <prefix>/bin; empty when the kernel does not name the
// program (no /proc, for instance). Whether it exists is not checked.
std::filesystem::path besideProgram();

// True when `path` names a directory; a path that cannot be examined does not.
bool isDirectory(const std::filesystem::path& path);

} // namespace quor::compiler::location

#endif
