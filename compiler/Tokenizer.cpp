// The tokenizer works on bytes: everything outside comments and literals is
// ASCII, and inside them only the shape of UTF-8 matters (a character literal
// holds one code point).

#include "compiler/Tokenizer.h"

namespace quor::compiler {

SourceError::SourceError(std::size_t line, std::size_t column, const std::string& message)
    : std::runtime_error(message), line_(line), column_(column) {}

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isPunctuation(char c) {
    return std::string_view("()[]{}<>,.:;=+-*/%!&|^~?@").find(c) != std::string_view::npos;
}

class Lexer {
public:
    explicit Lexer(std::string_view text) : text_(text) {}

    std::vector<Token> run() {
        std::vector<Token> tokens;
        bool spaced = false;
        while (!atEnd()) {
            char c = peek();
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                advance();
                spaced = true;
                continue;
            }
            if (c == '/' && peek(1) == '/') {
                while (!atEnd() && peek() != '\n') {
                    advance();
                }
                spaced = true;
                continue;
            }
            if (c == '/' && peek(1) == '*') {
                skipBlockComment();
                spaced = true;
                continue;
            }
            Token token;
            token.line = line_;
            token.column = column_;
            token.spaced = spaced;
            std::size_t start = position_;
            if (isLetter(c)) {
                token.kind = TokenKind::Identifier;
                while (!atEnd() && (isLetter(peek()) || isDigit(peek()))) {
                    advance();
                }
            } else if (isDigit(c)) {
                token.kind = TokenKind::Number;
                lexNumber();
            } else if (c == '"') {
                token.kind = TokenKind::String;
                lexString();
            } else if (c == '\'') {
                token.kind = TokenKind::Character;
                lexCharacter();
            } else if (isPunctuation(c)) {
                token.kind = TokenKind::Punctuation;
                advance();
                if (c == '-' && peek() == '>') {
                    advance();
                }
            } else {
                fail(line_, column_, "unexpected character " + describe(c));
            }
            token.text = text_.substr(start, position_ - start);
            tokens.push_back(token);
            spaced = false;
        }
        return tokens;
    }

private:
    bool atEnd() const { return position_ >= text_.size(); }
    char peek(std::size_t ahead = 0) const {
        return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
    }
    void advance() {
        if (text_[position_] == '\n') {
            ++line_;
            column_ = 1;
        } else {
            ++column_;
        }
        ++position_;
    }
    [[noreturn]] static void fail(std::size_t line, std::size_t column,
                                  const std::string& message) {
        throw SourceError(line, column, message);
    }
    static std::string describe(char c) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x21 && byte < 0x7f) {
            return std::string("'") + c + "'";
        }
        static constexpr char digits[] = "0123456789ABCDEF";
        return std::string("0x") + digits[byte >> 4] + digits[byte & 0xf];
    }

    void skipBlockComment() {
        std::size_t line = line_;
        std::size_t column = column_;
        advance();
        advance();
        while (!atEnd()) {
            if (peek() == '*' && peek(1) == '/') {
                advance();
                advance();
                return;
            }
            advance();
        }
        fail(line, column, "unterminated block comment");
    }

    void lexNumber() {
        std::size_t line = line_;
        std::size_t column = column_;
        auto digitsWhile = [this](bool (*accept)(char)) {
            std::size_t count = 0;
            while (!atEnd() && (accept(peek()) || peek() == '_')) {
                if (peek() != '_') {
                    ++count;
                }
                advance();
            }
            return count;
        };
        if (peek() == '0' && (peek(1) == 'x' || peek(1) == 'X')) {
            advance();
            advance();
            if (digitsWhile(isHexDigit) == 0) {
                fail(line, column, "hexadecimal literal without digits");
            }
        } else if (peek() == '0' && (peek(1) == 'b' || peek(1) == 'B')) {
            advance();
            advance();
            if (digitsWhile([](char c) { return c == '0' || c == '1'; }) == 0) {
                fail(line, column, "binary literal without digits");
            }
        } else {
            digitsWhile(isDigit);
            if (peek() == '.' && isDigit(peek(1))) {
                advance();
                digitsWhile(isDigit);
            }
            if (peek() == 'e' || peek() == 'E') {
                advance();
                if (peek() == '+' || peek() == '-') {
                    advance();
                }
                if (digitsWhile(isDigit) == 0) {
                    fail(line, column, "exponent without digits in number literal");
                }
            }
        }
        if (isLetter(peek()) || isDigit(peek())) {
            fail(line_, column_, "invalid character " + describe(peek()) + " in number literal");
        }
    }

    // One escape sequence after its backslash, which the cursor is on.
    void lexEscape() {
        std::size_t line = line_;
        std::size_t column = column_;
        advance();
        char c = peek();
        if (c == 'n' || c == 'r' || c == 't' || c == '0' || c == '\\' || c == '"' || c == '\'') {
            advance();
            return;
        }
        if (c == 'u' && peek(1) == '{') {
            advance();
            advance();
            std::size_t digits = 0;
            while (isHexDigit(peek())) {
                advance();
                ++digits;
            }
            if (digits >= 1 && digits <= 6 && peek() == '}') {
                advance();
                return;
            }
        }
        fail(line, column, "invalid escape sequence");
    }

    // Raw bytes that literals may hold: anything but control characters other
    // than tab. Bytes of 0x80 and above are UTF-8 and pass.
    void checkLiteralByte(const char* what) {
        auto byte = static_cast<unsigned char>(peek());
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f) {
            fail(line_, column_,
                 std::string("control character ") + describe(peek()) + " in " + what);
        }
    }

    void lexString() {
        std::size_t line = line_;
        std::size_t column = column_;
        advance();
        for (;;) {
            if (atEnd() || peek() == '\n' || (peek() == '\r' && peek(1) == '\n')) {
                fail(line, column, "unterminated string literal");
            }
            if (peek() == '"') {
                advance();
                return;
            }
            if (peek() == '\\') {
                lexEscape();
                continue;
            }
            checkLiteralByte("string literal");
            advance();
        }
    }

    void lexCharacter() {
        std::size_t line = line_;
        std::size_t column = column_;
        advance();
        if (atEnd() || peek() == '\n') {
            fail(line, column, "unterminated character literal");
        }
        if (peek() == '\'') {
            fail(line, column, "empty character literal");
        }
        if (peek() == '\\') {
            lexEscape();
        } else {
            checkLiteralByte("character literal");
            // One UTF-8 code point: a lead byte and its continuation bytes.
            advance();
            while (!atEnd() && (static_cast<unsigned char>(peek()) & 0xC0) == 0x80) {
                advance();
            }
        }
        if (peek() != '\'') {
            while (!atEnd() && peek() != '\'' && peek() != '\n') {
                advance();
            }
            fail(line, column,
                 peek() == '\'' ? "character literal holds more than one character"
                                : "unterminated character literal");
        }
        advance();
    }

    std::string_view text_;
    std::size_t position_ = 0;
    std::size_t line_ = 1;
    std::size_t column_ = 1;
};

} // namespace

std::vector<Token> tokenize(std::string_view text) {
    return Lexer(text).run();
}

} // namespace quor::compiler
