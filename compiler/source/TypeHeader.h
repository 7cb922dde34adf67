// The type header: the line of a Quor source that declares a type, such as
//     public sealed class List<T> : Sequence<T>, Sized {
// parseTypeHeader() recognises such a line and splits it into its parts. The
// syntax and the meaning of every field are written down in docs/language.md.

#ifndef QUOR_COMPILER_SOURCE_TYPEHEADER_H
#define QUOR_COMPILER_SOURCE_TYPEHEADER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace quor::compiler::source {

enum class TypeKind : std::uint32_t {
    Struct = 0,
    Enum = 1,
    Class = 2,
    Interface = 3,
    Trait = 4,
};

struct TypeHeader {
    TypeKind kind = TypeKind::Class; // the declaring keyword
    bool flag1 = false;              // "abstract": cannot be instantiated
    bool flag2 = false;              // "sealed": cannot be derived from
    bool flag3 = false;              // "extern": implemented by the runtime
    std::string text1;    // visibility as written: "public", "internal", "private" or empty
    std::string typeName; // the declared name
    std::string text3; // generic parameter list without its brackets ("K, V"); empty if not generic
    std::string text4; // base types, comma-separated, as written ("Sequence<T>, Sized")
    std::string text5; // constraints after "where", as written
    std::string text6; // what follows the opening brace on the same line, trimmed
};

// True when `text`, one line without its line feed, is a type header; `header`
// (freshly default-constructed by the caller) then holds its parts. False for
// any other line, well-formed or not; never throws for bad input.
bool parseTypeHeader(std::string_view text, TypeHeader& header);

// True when the header declares a generic type, one with type parameters. Such
// a type is compiled where it is instantiated, so the standard library's
// precompilation leaves its unit out. Inline, so that a program linking the
// bootstrap against services of its own needs no definition from ours.
inline bool isGeneric(const TypeHeader& header) {
    return !header.text3.empty();
}

} // namespace quor::compiler::source

#endif
