// The type-header parser. It runs over every line of a unit until the unit's
// own header is found, so the common case, a line that cannot be a header,
// costs a few byte comparisons and no allocation: the line is first cut into
// views, and the caller's strings are assigned only once the whole line has
// been accepted. docs/language.md is the syntax this file implements.

#include "compiler/source/TypeHeader.h"

#include <array>

namespace quor::compiler::source {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}
bool isIdentifierStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isIdentifierPart(char c) {
    return isIdentifierStart(c) || (c >= '0' && c <= '9');
}

// The reserved words of docs/language.md; none of them may name a type.
constexpr std::array<std::string_view, 35> keywords = {
    "package",  "use",    "public", "internal", "private",   "abstract", "sealed",
    "extern",   "struct", "enum",   "class",    "interface", "trait",    "where",
    "fn",       "let",    "var",    "const",    "static",    "override", "return",
    "if",       "else",   "while",  "for",      "in",        "match",    "break",
    "continue", "true",   "false",  "null",     "self",      "as",       "is"};

bool isKeyword(std::string_view word) {
    for (std::string_view keyword : keywords) {
        if (keyword == word) {
            return true;
        }
    }
    return false;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (isBlank(text.front()) || text.front() == '\r')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (isBlank(text.back()) || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

// A cursor over one line. Every step either advances past what it recognised or
// leaves the position untouched and reports false.
class Cursor {
public:
    explicit Cursor(std::string_view text) : text_(text) {}

    std::size_t position() const { return position_; }
    bool atEnd() const { return position_ >= text_.size(); }
    char peek() const { return atEnd() ? '\0' : text_[position_]; }
    void skipBlanks() {
        while (!atEnd() && isBlank(text_[position_])) {
            ++position_;
        }
    }
    // The identifier at the cursor, or an empty view when there is none.
    std::string_view word() {
        if (atEnd() || !isIdentifierStart(text_[position_])) {
            return {};
        }
        std::size_t start = position_;
        while (!atEnd() && isIdentifierPart(text_[position_])) {
            ++position_;
        }
        return text_.substr(start, position_ - start);
    }
    std::string_view slice(std::size_t from, std::size_t to) const {
        return text_.substr(from, to - from);
    }
    void moveTo(std::size_t position) { position_ = position; }

private:
    std::string_view text_;
    std::size_t position_ = 0;
};

enum class Word { Other, Visibility, Abstract, Sealed, Extern, Kind };

Word classify(std::string_view word, TypeKind& kind) {
    // Switch on the length first: most words of a source line fail right here.
    switch (word.size()) {
    case 4:
        if (word == "enum") {
            kind = TypeKind::Enum;
            return Word::Kind;
        }
        break;
    case 5:
        if (word == "class") {
            kind = TypeKind::Class;
            return Word::Kind;
        }
        if (word == "trait") {
            kind = TypeKind::Trait;
            return Word::Kind;
        }
        break;
    case 6:
        if (word == "public") {
            return Word::Visibility;
        }
        if (word == "struct") {
            kind = TypeKind::Struct;
            return Word::Kind;
        }
        if (word == "sealed") {
            return Word::Sealed;
        }
        if (word == "extern") {
            return Word::Extern;
        }
        break;
    case 7:
        if (word == "private") {
            return Word::Visibility;
        }
        break;
    case 8:
        if (word == "internal") {
            return Word::Visibility;
        }
        if (word == "abstract") {
            return Word::Abstract;
        }
        break;
    case 9:
        if (word == "interface") {
            kind = TypeKind::Interface;
            return Word::Kind;
        }
        break;
    default:
        break;
    }
    return Word::Other;
}

// True when `text` is a non-empty run of type text whose angle brackets balance
// and which holds none of the characters that end a header part.
bool balancedAngles(std::string_view text) {
    int depth = 0;
    for (char c : text) {
        if (c == '<') {
            ++depth;
        } else if (c == '>') {
            if (--depth < 0) {
                return false;
            }
        } else if (c == '{' || c == '}' || c == '\r') {
            return false;
        }
    }
    return depth == 0;
}

// The position of the next `where` that stands as a word at angle depth 0 in
// `text`, or npos.
std::size_t findWhere(std::string_view text) {
    int depth = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '<') {
            ++depth;
        } else if (c == '>') {
            --depth;
        } else if (depth == 0 && c == 'w' && text.substr(i, 5) == "where" &&
                   (i == 0 || !isIdentifierPart(text[i - 1])) &&
                   (i + 5 == text.size() || !isIdentifierPart(text[i + 5]))) {
            return i;
        }
    }
    return std::string_view::npos;
}

} // namespace

bool parseTypeHeader(std::string_view text, TypeHeader& header) {
    // A carriage return left over from a CRLF line end is not part of the line.
    while (!text.empty() && text.back() == '\r') {
        text.remove_suffix(1);
    }
    Cursor cursor(text);
    cursor.skipBlanks();

    std::string_view visibility;
    bool isAbstract = false;
    bool isSealed = false;
    bool isExtern = false;
    TypeKind kind = TypeKind::Class;
    bool sawKind = false;
    bool first = true;
    while (!sawKind) {
        std::string_view word = cursor.word();
        if (word.empty()) {
            return false;
        }
        switch (classify(word, kind)) {
        case Word::Other:
            return false;
        case Word::Visibility:
            if (!first) {
                return false;
            }
            visibility = word;
            break;
        case Word::Abstract:
            if (isAbstract || isSealed) {
                return false;
            }
            isAbstract = true;
            break;
        case Word::Sealed:
            if (isSealed || isAbstract) {
                return false;
            }
            isSealed = true;
            break;
        case Word::Extern:
            if (isExtern) {
                return false;
            }
            isExtern = true;
            break;
        case Word::Kind:
            sawKind = true;
            break;
        }
        first = false;
        // Every word before the name is followed by at least one blank.
        if (!isBlank(cursor.peek())) {
            return false;
        }
        cursor.skipBlanks();
    }

    std::string_view name = cursor.word();
    if (name.empty() || isKeyword(name)) {
        return false;
    }
    cursor.skipBlanks();

    std::string_view parameters;
    if (cursor.peek() == '<') {
        std::size_t open = cursor.position();
        std::size_t i = open;
        int depth = 0;
        for (; i < text.size(); ++i) {
            if (text[i] == '<') {
                ++depth;
            } else if (text[i] == '>' && --depth == 0) {
                break;
            } else if (text[i] == '{' || text[i] == '}') {
                return false;
            }
        }
        if (i >= text.size()) {
            return false;
        }
        parameters = trimmed(cursor.slice(open + 1, i));
        if (parameters.empty() || !balancedAngles(parameters)) {
            return false;
        }
        cursor.moveTo(i + 1);
        cursor.skipBlanks();
    }

    // Bases and constraints run up to the opening brace, which must be on the line.
    std::size_t brace = text.find('{', cursor.position());
    if (brace == std::string_view::npos) {
        return false;
    }
    std::string_view between = cursor.slice(cursor.position(), brace);
    std::string_view bases;
    std::string_view constraints;
    if (!between.empty() && between.front() == ':') {
        between.remove_prefix(1);
        std::size_t where = findWhere(between);
        bases = trimmed(between.substr(0, where));
        if (bases.empty() || !balancedAngles(bases)) {
            return false;
        }
        between = where == std::string_view::npos ? std::string_view() : between.substr(where);
    }
    if (!between.empty()) {
        if (findWhere(between) != 0) {
            return false;
        }
        constraints = trimmed(between.substr(5));
        if (constraints.empty() || !isBlank(between[5]) || !balancedAngles(constraints)) {
            return false;
        }
    }

    header.kind = kind;
    header.flag1 = isAbstract;
    header.flag2 = isSealed;
    header.flag3 = isExtern;
    header.text1.assign(visibility);
    header.typeName.assign(name);
    header.text3.assign(parameters);
    header.text4.assign(bases);
    header.text5.assign(constraints);
    header.text6.assign(trimmed(text.substr(brace + 1)));
    return true;
}

} // namespace quor::compiler::source
