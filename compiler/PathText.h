// Checks on path text that spare building std::filesystem::path copies on the
// build's per-unit paths, which are already in the form these checks accept.

#ifndef QUOR_COMPILER_PATHTEXT_H
#define QUOR_COMPILER_PATHTEXT_H

#include <string_view>

namespace quor::compiler {

// True when `path` is absolute and in lexically normal form: no empty, "." or
// ".." element and no trailing separator ("/a/b.qr" but not "/a//b.qr",
// "/a/./b.qr" or "/a/"). Such a path equals its own lexically_normal().
bool isAbsoluteAndNormal(std::string_view path);

} // namespace quor::compiler

#endif
