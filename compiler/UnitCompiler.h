// The precompiler's front end for one unit: it tokenizes the text, checks the
// brackets and the declaration lines, collects the unit's declarations (package,
// use lines, type headers, top-level function signatures) and renders them as
// the unit's object. What an object says is decided here; how it is written
// is the object format's (compiler/ObjectFormat.h, docs/object-format.md).
//
// Pure: the result depends only on the arguments, which is what makes the
// library cache byte-identical whatever the number of worker threads.

#ifndef QUOR_COMPILER_UNITCOMPILER_H
#define QUOR_COMPILER_UNITCOMPILER_H

#include "compiler/ObjectFormat.h"

#include <string>
#include <string_view>

namespace quor::compiler {

// What the object of the unit whose text is `text` says. `unitPath` is the
// unit's path below the library root with '/' separators
// ("collections/List.qr"); it is recorded in the object and fixes the package
// the unit may declare. `abi` is the object format's version to record
// (objectformat::abiVersion for every object the library cache keeps).
// `sourceSha256`, when not empty, is the caller's SHA-256 of `text` in
// hexadecimal, which spares hashing the text twice. Throws SourceError
// (compiler/Tokenizer.h) for the first problem found; safe to call from
// several threads at once.
objectformat::Contents unitContents(std::string_view text, std::string_view unitPath, int abi,
                                    std::string_view sourceSha256 = {});

// The object of that unit: objectformat::render(unitContents(...)). Throws
// like unitContents().
std::string compileUnit(std::string_view text, std::string_view unitPath, int abi,
                        std::string_view sourceSha256 = {});

} // namespace quor::compiler

#endif
