// The front end works on the token list with a stack of open brackets. A line
// is looked at when its first token is reached: at top level (no bracket open)
// it may be the package line, a use line or a function signature; at any depth
// it may be a type header, which must then satisfy parseTypeHeader on the raw
// text of the line, the same test the bootstrap applies.

#include "compiler/UnitCompiler.h"

#include "compiler/ObjectFormat.h"
#include "compiler/Sha256.h"
#include "compiler/Tokenizer.h"
#include "compiler/source/TypeHeader.h"

#include <vector>

namespace quor::compiler {

namespace {

struct OpenBracket {
    char bracket;
    std::size_t line;
    std::size_t column;
};

bool isVisibility(std::string_view word) {
    return word == "public" || word == "internal" || word == "private";
}
bool isTypeModifier(std::string_view word) {
    return word == "abstract" || word == "sealed" || word == "extern";
}
bool isKindKeyword(std::string_view word) {
    return word == "struct" || word == "enum" || word == "class" || word == "interface" ||
           word == "trait";
}

class UnitCompiler {
public:
    UnitCompiler(std::string_view text, std::string_view unitPath)
        : text_(text), unitPath_(unitPath), tokens_(tokenize(text)) {
        std::size_t slash = unitPath.rfind('/');
        if (slash != std::string_view::npos) {
            expectedPackage_.assign(unitPath.substr(0, slash));
            for (char& c : expectedPackage_) {
                if (c == '/') {
                    c = '.';
                }
            }
        }
        lineStarts_.push_back(0);
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '\n') {
                lineStarts_.push_back(i + 1);
            }
        }
    }

    objectformat::Contents run(int abi, std::string_view sourceSha256) {
        for (std::size_t i = 0; i < tokens_.size(); ++i) {
            const Token& token = tokens_[i];
            if (i == 0 || tokens_[i - 1].line != token.line) {
                startLine(i);
            }
            checkPlacement(i);
            trackBrackets(token);
        }
        if (!open_.empty()) {
            const OpenBracket& innermost = open_.back();
            throw SourceError(innermost.line, innermost.column,
                              std::string("unclosed '") + innermost.bracket + "'");
        }
        return contents(abi, sourceSha256);
    }

private:
    const Token* tokenAt(std::size_t i) const { return i < tokens_.size() ? &tokens_[i] : nullptr; }
    bool isWord(std::size_t i, std::string_view word) const {
        const Token* token = tokenAt(i);
        return token != nullptr && token->kind == TokenKind::Identifier && token->text == word;
    }
    bool sameLine(std::size_t i, std::size_t line) const {
        const Token* token = tokenAt(i);
        return token != nullptr && token->line == line;
    }
    std::string_view lineText(std::size_t line) const {
        std::size_t start = lineStarts_[line - 1];
        std::size_t end = line < lineStarts_.size() ? lineStarts_[line] - 1 : text_.size();
        return text_.substr(start, end - start);
    }
    [[noreturn]] static void fail(const Token& token, const std::string& message) {
        throw SourceError(token.line, token.column, message);
    }

    // A dotted name "a.b.c" starting at token i; returns the index after it.
    std::size_t dottedName(std::size_t i, std::string& name, const char* what) const {
        const Token& first = tokens_[i - 1];
        for (;;) {
            const Token* part = tokenAt(i);
            if (part == nullptr || part->line != first.line ||
                part->kind != TokenKind::Identifier) {
                fail(part != nullptr && part->line == first.line ? *part : first,
                     std::string("expected a dotted name after '") + what + "'");
            }
            name.append(part->text);
            ++i;
            if (!sameLine(i, first.line) || tokens_[i].text != "." || tokens_[i].spaced) {
                return i;
            }
            name += '.';
            ++i;
        }
    }

    void expectLineEnd(std::size_t i, std::size_t line, const char* what) const {
        if (sameLine(i, line) && tokens_[i].text != ";") {
            fail(tokens_[i], std::string("unexpected '") + std::string(tokens_[i].text) +
                                 "' after the " + what);
        }
    }

    void startLine(std::size_t i) {
        const Token& first = tokens_[i];
        bool atTop = open_.empty();

        std::size_t j = i;
        while (sameLine(j, first.line) && tokens_[j].kind == TokenKind::Identifier &&
               (isVisibility(tokens_[j].text) || isTypeModifier(tokens_[j].text))) {
            ++j;
        }
        if (sameLine(j, first.line) && tokens_[j].kind == TokenKind::Identifier &&
            isKindKeyword(tokens_[j].text)) {
            source::TypeHeader header;
            if (!source::parseTypeHeader(lineText(first.line), header)) {
                fail(first, "malformed type header");
            }
            headerLines_.push_back(first.line);
            sawDeclaration_ = true;
            records_.push_back(objectformat::typeRecord(first.line, header));
            return;
        }

        if (first.kind == TokenKind::Identifier && first.text == "package") {
            if (!atTop || sawDeclaration_) {
                fail(first, "the package line must come before every other declaration");
            }
            std::string name;
            std::size_t end = dottedName(i + 1, name, "package");
            expectLineEnd(end, first.line, "package name");
            if (name != expectedPackage_) {
                fail(tokens_[i + 1],
                     expectedPackage_.empty()
                         ? "a unit in the library root has no package; found '" + name + "'"
                         : "package '" + name + "' does not match the unit's folder '" +
                               expectedPackage_ + "'");
            }
            package_ = name;
            sawDeclaration_ = true;
            packageLines_.push_back(first.line);
            return;
        }
        sawDeclaration_ = true;

        if (first.kind == TokenKind::Identifier && first.text == "use") {
            if (!atTop) {
                fail(first, "'use' lines must stand at top level");
            }
            std::string name;
            std::size_t end = dottedName(i + 1, name, "use");
            std::string alias;
            if (isWord(end, "as") && tokens_[end].line == first.line) {
                const Token* aliasToken = tokenAt(end + 1);
                if (aliasToken == nullptr || aliasToken->line != first.line ||
                    aliasToken->kind != TokenKind::Identifier) {
                    fail(tokens_[end], "expected a name after 'as'");
                }
                alias.assign(aliasToken->text);
                end += 2;
            }
            expectLineEnd(end, first.line, "use line");
            records_.push_back(
                objectformat::useRecord(first.line, std::move(name), std::move(alias)));
            useLines_.push_back(first.line);
            return;
        }

        if (atTop) {
            std::size_t k = i;
            while (sameLine(k, first.line) && tokens_[k].kind == TokenKind::Identifier &&
                   (isVisibility(tokens_[k].text) || tokens_[k].text == "extern")) {
                ++k;
            }
            if (isWord(k, "fn") && tokens_[k].line == first.line) {
                functionSignature(i, k);
            }
        }
    }

    // Records the top-level function whose first token is `start` and whose
    // "fn" is token `fn`. The signature runs to the body's "{", to ";", or to
    // the end of the line once every bracket of the signature is closed.
    void functionSignature(std::size_t start, std::size_t fn) {
        const Token* name = tokenAt(fn + 1);
        if (name == nullptr || name->kind != TokenKind::Identifier ||
            name->line != tokens_[fn].line) {
            fail(name != nullptr && name->line == tokens_[fn].line ? *name : tokens_[fn],
                 "expected a function name after 'fn'");
        }
        std::size_t i = fn + 2;
        if (tokenAt(i) != nullptr && tokens_[i].text == "<") {
            int depth = 0;
            for (; i < tokens_.size(); ++i) {
                if (tokens_[i].text == "<") {
                    ++depth;
                } else if (tokens_[i].text == ">" && --depth == 0) {
                    break;
                } else if (tokens_[i].text == "{") {
                    fail(tokens_[i], "unclosed '<' in the generic parameters of '" +
                                         std::string(name->text) + "'");
                }
            }
            ++i;
        }
        if (tokenAt(i) == nullptr || tokens_[i].text != "(") {
            fail(tokenAt(i) != nullptr ? tokens_[i] : *name,
                 "expected '(' after the function name '" + std::string(name->text) + "'");
        }
        int depth = 0;
        std::size_t end = i;
        for (; end < tokens_.size(); ++end) {
            std::string_view text = tokens_[end].text;
            if (depth == 0 && end > i &&
                (text == "{" || text == ";" || tokens_[end].line != tokens_[end - 1].line)) {
                break;
            }
            if (text == "(" || text == "[") {
                ++depth;
            } else if ((text == ")" || text == "]") && depth > 0) {
                --depth;
            }
        }
        std::string signature;
        for (std::size_t k = start; k < end; ++k) {
            if (k > start && tokens_[k].spaced) {
                signature += ' ';
            }
            signature.append(tokens_[k].text);
        }
        records_.push_back(objectformat::functionRecord(
            tokens_[start].line, std::string(name->text), std::move(signature)));
    }

    // Reserved words that only make sense at the start of their own line.
    void checkPlacement(std::size_t i) const {
        const Token& token = tokens_[i];
        if (token.kind != TokenKind::Identifier) {
            return;
        }
        auto onLine = [&](const std::vector<std::size_t>& lines) {
            return !lines.empty() && lines.back() == token.line;
        };
        if (isKindKeyword(token.text) && !onLine(headerLines_)) {
            fail(token, "'" + std::string(token.text) + "' may only begin a type header");
        }
        bool firstOnLine = i == 0 || tokens_[i - 1].line != token.line;
        if (token.text == "package" && !(firstOnLine && onLine(packageLines_))) {
            fail(token, "'package' may only begin the package line");
        }
        if (token.text == "use" && !(firstOnLine && onLine(useLines_))) {
            fail(token, "'use' may only begin a use line");
        }
    }

    void trackBrackets(const Token& token) {
        if (token.kind != TokenKind::Punctuation || token.text.size() != 1) {
            return;
        }
        char c = token.text[0];
        if (c == '(' || c == '[' || c == '{') {
            open_.push_back({c, token.line, token.column});
            return;
        }
        char opener = c == ')' ? '(' : c == ']' ? '[' : c == '}' ? '{' : '\0';
        if (opener == '\0') {
            return;
        }
        if (open_.empty()) {
            fail(token, std::string("unexpected '") + c + "'");
        }
        const OpenBracket& top = open_.back();
        if (top.bracket != opener) {
            char closer = top.bracket == '(' ? ')' : top.bracket == '[' ? ']' : '}';
            fail(token, std::string("mismatched '") + c + "': expected '" + closer +
                            "' to close '" + top.bracket + "' at " + std::to_string(top.line) +
                            ":" + std::to_string(top.column));
        }
        open_.pop_back();
    }

    objectformat::Contents contents(int abi, std::string_view sourceSha256) {
        objectformat::Contents contents;
        contents.abi = abi;
        contents.unitPath = unitPath_;
        contents.sourceSize = text_.size();
        contents.sourceSha256 =
            sourceSha256.empty() ? Sha256::hex(text_) : std::string(sourceSha256);
        contents.package = std::move(package_);
        contents.declarations = std::move(records_);
        return contents;
    }

    std::string_view text_;
    std::string_view unitPath_;
    std::vector<Token> tokens_;
    std::vector<std::size_t> lineStarts_;
    std::string expectedPackage_;
    std::string package_;
    bool sawDeclaration_ = false;
    std::vector<OpenBracket> open_;
    std::vector<std::size_t> headerLines_;
    std::vector<std::size_t> packageLines_;
    std::vector<std::size_t> useLines_;
    std::vector<objectformat::Record> records_;
};

} // namespace

objectformat::Contents unitContents(std::string_view text, std::string_view unitPath, int abi,
                                    std::string_view sourceSha256) {
    return UnitCompiler(text, unitPath).run(abi, sourceSha256);
}

std::string compileUnit(std::string_view text, std::string_view unitPath, int abi,
                        std::string_view sourceSha256) {
    return objectformat::render(unitContents(text, unitPath, abi, sourceSha256));
}

} // namespace quor::compiler
