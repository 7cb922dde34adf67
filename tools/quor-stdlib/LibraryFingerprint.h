// The fingerprint of a standard-library source tree, computed by the recipe in
// docs/stdlib-fingerprint.md: every unit file (regular ".qr" files at any
// depth, links neither followed nor counted) sorted bytewise by its path below
// the root, each giving the manifest line "<sha256 of its bytes>  <path>\n",
// and the SHA-256 of that manifest.
//
// This is the recipe's one implementation. The build runs the tool it has just
// built to fingerprint the shipped library, in the build tree and in an
// installation (cmake/StandardLibrary.cmake, cmake/Install.cmake); a library
// given with --stdlib, which the build never saw, gets its value from
// `quor-stdlib fingerprint --write`, and `status` warns when the fingerprint
// in use describes another tree. The tests hold it and the shell command of
// the documentation to one answer.

#ifndef QUOR_TOOLS_QUOR_STDLIB_LIBRARYFINGERPRINT_H
#define QUOR_TOOLS_QUOR_STDLIB_LIBRARYFINGERPRINT_H

#include "CacheProbe.h"

#include <cstddef>
#include <filesystem>
#include <string>

namespace quor::stdlibtool {

struct LibraryFingerprint {
    std::string value;     // 64 lower-case hexadecimal digits
    std::size_t units = 0; // how many files the manifest lists
};

// Computes the fingerprint of the library below `root`. Reads every unit file
// once, without following links and without waiting on a FIFO put in a unit's
// place. Throws std::runtime_error, and computes nothing, when the walk fails,
// when a folder or a unit may not be read (a value that leaves out part of the
// tree would describe a library no one has), or when a unit's path holds a line
// feed or a backslash, which the manifest line cannot carry unescaped.
LibraryFingerprint computeLibraryFingerprint(const std::filesystem::path& root);

// Why the fingerprint the bootstrap uses, `inUse`, does not describe the
// library at `library`, whose own is `actual`, followed by what to run; "" when
// it does. `status` prints it as a warning, and `fingerprint` as a note.
std::string fingerprintMismatch(const Identity& inUse, const LibraryFingerprint& actual,
                                const std::filesystem::path& library);

} // namespace quor::stdlibtool

#endif
