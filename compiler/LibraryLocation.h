// Where the standard library lies when neither Runtime::configure() nor
// QUOR_STDLIB_PATH says: the one part of the runtime's defaults that differs
// between a program built in this source tree and one built against the
// installed package. Each build of the services links exactly one definition
// of defaultStandardLibraryPath(): BuildTreeLibraryLocation.cpp into the
// build tree's services, InstalledLibraryLocation.cpp into the installed ones.
// Not installed: programs reach the result through Runtime.

#ifndef QUOR_COMPILER_LIBRARYLOCATION_H
#define QUOR_COMPILER_LIBRARYLOCATION_H

#include <filesystem>
#include <string>

namespace quor::compiler::location {

// The default root of the standard library's ".qr" tree. It need not exist.
std::string defaultStandardLibraryPath();

// <directory of the running program>/../share/quor/stdlib, the library of a
// program installed in <prefix>/bin; empty when the kernel does not name the
// program (no /proc, for instance). Whether it exists is not checked.
std::filesystem::path besideProgram();

// True when `path` names a directory; a path that cannot be examined does not.
bool isDirectory(const std::filesystem::path& path);

} // namespace quor::compiler::location

#endif
