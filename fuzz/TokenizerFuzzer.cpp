// Fuzz target: the Quor tokenizer. The input is the text of a unit. tokenize()
// either returns tokens or throws a SourceError, nothing else. An error names a
// line and column inside the text. Tokens are non-empty views into the text, in
// order and without overlap, and each carries the line and byte column at
// which its view starts.

#include "compiler/Tokenizer.h"
#include "fuzz/FuzzCheck.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace {

using quor::compiler::SourceError;
using quor::compiler::Token;
using quor::compiler::TokenKind;

// The length in bytes of each line of `text`, line feeds excluded.
std::vector<std::size_t> lineLengths(std::string_view text) {
    std::vector<std::size_t> lengths(1, 0);
    for (char c : text) {
        if (c == '\n') {
            lengths.push_back(0);
        } else {
            ++lengths.back();
        }
    }
    return lengths;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<Token> tokens;
    try {
        tokens = quor::compiler::tokenize(text);
    } catch (const SourceError& error) {
        // At worst the error points just past the last byte of its line.
        const std::vector<std::size_t> lengths = lineLengths(text);
        QUOR_FUZZ_CHECK(error.line() >= 1 && error.line() <= lengths.size());
        QUOR_FUZZ_CHECK(error.column() >= 1 && error.column() <= lengths[error.line() - 1] + 1);
        QUOR_FUZZ_CHECK(error.what()[0] != '\0');
        return 0;
    } catch (...) {
        QUOR_FUZZ_CHECK(!"tokenize threw something other than a SourceError");
    }

    std::size_t previousEnd = 0;
    std::size_t line = 1;
    std::size_t lineStart = 0;
    std::size_t scanned = 0;
    for (const Token& token : tokens) {
        QUOR_FUZZ_CHECK(!token.text.empty());
        QUOR_FUZZ_CHECK(token.text.data() >= text.data());
        const std::size_t offset = static_cast<std::size_t>(token.text.data() - text.data());
        QUOR_FUZZ_CHECK(offset >= previousEnd);
        QUOR_FUZZ_CHECK(offset + token.text.size() <= text.size());
        for (; scanned < offset; ++scanned) {
            if (text[scanned] == '\n') {
                ++line;
                lineStart = scanned + 1;
            }
        }
        QUOR_FUZZ_CHECK(token.line == line);
        QUOR_FUZZ_CHECK(token.column == offset - lineStart + 1);
        if (token.kind == TokenKind::Identifier) {
            const char c = token.text.front();
            QUOR_FUZZ_CHECK((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_');
        }
        if (token.kind == TokenKind::Number) {
            QUOR_FUZZ_CHECK(token.text.front() >= '0' && token.text.front() <= '9');
        }
        previousEnd = offset + token.text.size();
    }
    return 0;
}
