// The precompiler's front end for one unit: it tokenizes the text, checks the
// brackets and the declaration lines, collects the unit's declarations (package,
// use lines, type headers, top-level function signatures) and renders them as
// the unit's object, in the format docs/object-format.md describes.
//
// Pure: the result depends only on the arguments, which is what makes the
// library cache byte-identical whatever the number of worker threads.

#ifndef QUOR_COMPILER_UNITCOMPILER_H
#define QUOR_COMPILER_UNITCOMPILER_H

#include <string>
#include <string_view>

namespace quor::compiler {

// The object of the unit whose text is `text`. `unitPath` is the unit's path
// below the library root with '/' separators ("collections/List.qr"); it is
// recorded in the object and fixes the package the unit may declare. `abi` is
// the object format's version. Throws SourceError (compiler/Tokenizer.h) for
// the first problem found; safe to call from several threads at once.
std::string compileUnit(std::string_view text, std::string_view unitPath, int abi);

} // namespace quor::compiler

#endif
