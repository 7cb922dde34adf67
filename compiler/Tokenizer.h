// The Quor tokenizer: turns a unit's text into identifiers, literals and
// punctuation, dropping whitespace and comments. The lexical rules it enforces
// are the ones docs/language.md lists; a breach is thrown as a SourceError that
// carries the 1-based line and byte column of the offending text.

#ifndef QUOR_COMPILER_TOKENIZER_H
#define QUOR_COMPILER_TOKENIZER_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler {

// A problem at one place of a unit. what() is the bare message, without the
// position; the precompiler prefixes "path:line:column: ".
class SourceError : public std::runtime_error {
public:
    SourceError(std::size_t line, std::size_t column, const std::string& message);

    std::size_t line() const { return line_; }
    std::size_t column() const { return column_; }

private:
    std::size_t line_;
    std::size_t column_;
};

enum class TokenKind { Identifier, Number, String, Character, Punctuation };

struct Token {
    TokenKind kind = TokenKind::Punctuation;
    std::string_view text;  // a view into the tokenized text, as written
    std::size_t line = 0;   // 1-based
    std::size_t column = 0; // 1-based, in bytes
    bool spaced = false;    // whitespace or a comment separates it from the previous token
};

// The tokens of `text`, in order. The views point into `text`, which must
// outlive them. Throws SourceError for the first lexical error.
std::vector<Token> tokenize(std::string_view text);

} // namespace quor::compiler

#endif
