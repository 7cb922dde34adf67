// Fuzz target: the type-header parser. The input is one line of a unit (any
// bytes; the bootstrap hands over lines without their line feed). The parser
// must not throw, must give the same answer twice, and an accepted line must
// give a header that docs/language.md allows: a known kind, a non-keyword
// identifier as the name, not both abstract and sealed, and every text field
// taken from the line itself. A trailing carriage return changes nothing.

#include "compiler/source/TypeHeader.h"
#include "fuzz/FuzzCheck.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace {

using quor::compiler::source::TypeHeader;
using quor::compiler::source::TypeKind;

bool sameHeader(const TypeHeader& a, const TypeHeader& b) {
    return a.kind == b.kind && a.flag1 == b.flag1 && a.flag2 == b.flag2 && a.flag3 == b.flag3 &&
           a.text1 == b.text1 && a.typeName == b.typeName && a.text3 == b.text3 &&
           a.text4 == b.text4 && a.text5 == b.text5 && a.text6 == b.text6;
}

bool isIdentifier(std::string_view word) {
    if (word.empty()) {
        return false;
    }
    const auto letter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    };
    if (!letter(word.front())) {
        return false;
    }
    for (char c : word) {
        if (!letter(c) && !(c >= '0' && c <= '9')) {
            return false;
        }
    }
    return true;
}

bool isKindKeyword(std::string_view word) {
    return word == "struct" || word == "enum" || word == "class" || word == "interface" ||
           word == "trait";
}

bool parse(std::string_view line, TypeHeader& header) {
    try {
        return quor::compiler::source::parseTypeHeader(line, header);
    } catch (...) {
        QUOR_FUZZ_CHECK(!"parseTypeHeader threw");
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    TypeHeader first;
    const bool accepted = parse(line, first);
    TypeHeader second;
    QUOR_FUZZ_CHECK(parse(line, second) == accepted);
    if (accepted) {
        QUOR_FUZZ_CHECK(sameHeader(first, second));
        const auto kind = static_cast<std::uint32_t>(first.kind);
        QUOR_FUZZ_CHECK(kind <= static_cast<std::uint32_t>(TypeKind::Trait));
        QUOR_FUZZ_CHECK(isIdentifier(first.typeName));
        QUOR_FUZZ_CHECK(!isKindKeyword(first.typeName));
        QUOR_FUZZ_CHECK(!(first.flag1 && first.flag2));
        QUOR_FUZZ_CHECK(first.text1.empty() || first.text1 == "public" ||
                        first.text1 == "internal" || first.text1 == "private");
        for (const std::string* field : {&first.text1, &first.typeName, &first.text3, &first.text4,
                                         &first.text5, &first.text6}) {
            QUOR_FUZZ_CHECK(line.find(*field) != std::string_view::npos);
        }
        QUOR_FUZZ_CHECK(line.find('{') != std::string_view::npos);
    }

    if (line.find('\n') == std::string_view::npos && (line.empty() || line.back() != '\r')) {
        const std::string withReturn = std::string(line) + "\r";
        TypeHeader returned;
        QUOR_FUZZ_CHECK(parse(withReturn, returned) == accepted);
        if (accepted) {
            QUOR_FUZZ_CHECK(sameHeader(first, returned));
        }
    }
    return 0;
}
