// The JSON `kind` of a failure follows its type, never the words of its
// message, and docs/errors.md gives the kind of every message the tool can
// report. The document is held to the code: for each message it lists, the
// test finds the statement in the sources that throws it and the type (or the
// kind) that statement gives it, or, for the bootstrap's fixed messages, the
// bootstrap's own table, and requires the documented kind.

#include "Failure.h"
#include "ToolTestSupport.h"

#include "compiler/BootstrapExplanation.h"
#include "compiler/CacheTrust.h"
#include "compiler/PackSignature.h"
#include "compiler/ServiceError.h"
#include "compiler/SourceManager.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace quor::tooltest {
namespace {

using stdlibtool::failureKind;

TEST(FailureKind, FollowsTheTypeNotTheWords) {
    // Each message says the opposite of its type; the type wins.
    EXPECT_EQ(failureKind(compiler::CacheIoError("Refusing to use Quor cache root '/x'")), "io");
    EXPECT_EQ(failureKind(compiler::UntrustedCacheError("Unable to inspect '/x'")), "untrusted");
    EXPECT_EQ(failureKind(compiler::UnitSourceError("Unable to lock Quor standard-library "
                                                    "cache '/x'")),
              "compile");
    EXPECT_EQ(failureKind(compiler::ServiceInternalError("/x.qr:1:1: unclosed '('")), "internal");
    EXPECT_EQ(failureKind(compiler::ReadsStopped()), "interrupted");
    EXPECT_EQ(failureKind(compiler::signature::KeyExistsError("Refusing to use '/x'")), "io");
    EXPECT_EQ(failureKind(stdlibtool::ToolError(stdlibtool::kind::lock, "Unable to read '/x'")),
              "lock");
    // Untyped: only the bootstrap's own fixed messages are recognised.
    EXPECT_EQ(failureKind(std::runtime_error("Unable to lock Quor standard-library cache '/c'")),
              "lock");
    EXPECT_EQ(failureKind(std::runtime_error("Refusing to remove unsafe Quor cache path '/c/1'")),
              "untrusted");
    EXPECT_EQ(failureKind(std::runtime_error("Unable to frobnicate '/c': Permission denied")),
              "internal");
    EXPECT_EQ(failureKind(std::runtime_error("/lib/io/File.qr:4:12: unclosed '('")), "internal");
    // Carried across threads, a failure keeps its type.
    EXPECT_EQ(failureKind(std::make_exception_ptr(compiler::UnitSourceError("x"))), "compile");
    EXPECT_EQ(failureKind(std::exception_ptr()), "internal");
}

// One message row of docs/errors.md: the message as printed (placeholders in
// angle brackets) and its documented kind.
struct DocumentedMessage {
    std::string message;
    std::string kind;
};

std::vector<DocumentedMessage> documentedMessages() {
    std::vector<DocumentedMessage> messages;
    std::istringstream lines(readFile(fs::path(QUOR_SOURCE_DIR) / "docs" / "errors.md"));
    bool inTable = false;
    const std::regex row(
        R"(^\| (?:every usage error is followed by )?`([^`]*)`[^|]*\| (`(\w+)`|—) \|)");
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("## "))
            inTable = line.starts_with("## Messages of the bootstrap") ||
                      line.starts_with("## Messages of the precompiler") ||
                      line.starts_with("## The tool's own messages");
        std::smatch match;
        if (inTable && std::regex_search(line, match, row))
            messages.push_back({match[1], match[3].matched ? std::string(match[3]) : ""});
    }
    return messages;
}

// The sources that throw what the tool reports.
std::map<std::string, std::string> sources() {
    std::map<std::string, std::string> texts;
    for (const char* folder : {"compiler", "tools/quor-stdlib"})
        for (const auto& entry :
             fs::recursive_directory_iterator(fs::path(QUOR_SOURCE_DIR) / folder))
            if (entry.path().extension() == ".cpp")
                texts[entry.path().lexically_relative(QUOR_SOURCE_DIR).string()] =
                    readFile(entry.path());
    return texts;
}

// The literal pieces of `message` between its placeholders, each trimmed of
// the quotes, colons, brackets and blanks that the code adds around paths.
std::vector<std::string> pieces(std::string message) {
    if (message.starts_with("quor-stdlib: error: "))
        message.erase(0, 20);
    std::vector<std::string> result;
    for (const std::string& part : [&] {
             std::vector<std::string> parts;
             std::size_t start = 0;
             while (start <= message.size()) {
                 const std::size_t open = message.find('<', start);
                 parts.push_back(message.substr(start, open - start));
                 if (open == std::string::npos)
                     break;
                 const std::size_t close = message.find('>', open);
                 start = close == std::string::npos ? message.size() + 1 : close + 1;
             }
             return parts;
         }()) {
        const std::size_t first = part.find_first_not_of("':;() /");
        const std::size_t last = part.find_last_not_of("':;() /");
        if (first != std::string::npos && last + 1 - first >= 8)
            result.push_back(part.substr(first, last + 1 - first));
    }
    return result;
}

constexpr const char* kTypes =
    R"(\b(CacheIoError|UnitSourceError|ServiceInternalError|UntrustedCacheError|ReadsStopped|KeyFileError|KeyExistsError)\b|ToolError\(\s*kind::(\w+))";

std::string kindOfType(const std::smatch& match) {
    if (match[2].matched)
        return match[2];
    static const std::map<std::string, std::string> kinds = {{"CacheIoError", "io"},
                                                             {"UnitSourceError", "compile"},
                                                             {"ServiceInternalError", "internal"},
                                                             {"UntrustedCacheError", "untrusted"},
                                                             {"ReadsStopped", "interrupted"},
                                                             {"KeyFileError", "io"},
                                                             {"KeyExistsError", "io"}};
    return kinds.at(match[1]);
}

// The kind the statement around `position` in `text` gives what it throws:
// a type named in it, a call of a function that throws a type, or, for a
// function that returns the message as text, the kind its callers throw it
// with. "" when none can be found.
std::string kindThrownAt(const std::map<std::string, std::string>& all, const std::string& text,
                         std::size_t position, int depth = 0) {
    if (depth > 3)
        return "";
    std::size_t start = text.find_last_of(";{}", position);
    start = start == std::string::npos ? 0 : start + 1;
    const std::string statement = text.substr(start, position - start);
    std::smatch match;
    static const std::regex types(kTypes);
    if (std::regex_search(statement, match, types))
        return kindOfType(match);
    if (statement.find("failure(message::") != std::string::npos)
        return "bootstrap";
    // A call of a helper that throws: its definition's first typed throw.
    static const std::regex callPattern(R"((\w+)\()");
    for (std::sregex_iterator call(statement.begin(), statement.end(), callPattern), end;
         call != end; ++call) {
        const std::regex definition("\\b" + std::string((*call)[1]) +
                                    R"(\([^;{)]*\)[^;{]*\{([^}]*))");
        for (const auto& [name, source] : all) {
            std::smatch body;
            if (std::regex_search(source, body, definition)) {
                std::smatch thrown;
                const std::string code = body[1];
                if (std::regex_search(code, thrown, types))
                    return kindOfType(thrown);
            }
        }
    }
    // A message returned as text: the kind its callers throw it with.
    if (statement.find("return") != std::string::npos) {
        std::smatch header;
        const std::string before = text.substr(0, position);
        static const std::regex function(R"(\n(?:std::string|ToolError) (\w+)\([^;{]*\)\s*\{)");
        std::string name;
        for (std::sregex_iterator it(before.begin(), before.end(), function), end; it != end; ++it)
            name = (*it)[1];
        if (!name.empty())
            for (const auto& [file, source] : all)
                for (std::size_t use = source.find(name + "("); use != std::string::npos;
                     use = source.find(name + "(", use + 1)) {
                    const std::string kind = kindThrownAt(all, source, use, depth + 1);
                    if (!kind.empty())
                        return kind;
                }
    }
    return "";
}

TEST(FailureKind, EveryMessageInTheErrorsDocumentHasItsKind) {
    const auto all = sources();
    const std::vector<DocumentedMessage> messages = documentedMessages();
    ASSERT_GT(messages.size(), 60u);
    const std::set<std::string> decidedByType = {"io", "lock", "untrusted", "compile", "internal"};
    std::size_t checked = 0;
    for (const DocumentedMessage& documented : messages) {
        SCOPED_TRACE(documented.message);
        if (documented.kind.empty() || !decidedByType.count(documented.kind))
            continue;
        // The bootstrap's fixed words are recognised by its own table.
        if (const auto cause = compiler::explain::failureCauseOf(documented.message)) {
            EXPECT_EQ(failureKind(std::runtime_error(documented.message)), documented.kind);
            ++checked;
            continue;
        }
        const std::vector<std::string> literal = pieces(documented.message);
        if (literal.empty()) {
            // Nothing but values ("<unit>:<line>:<column>: <what is wrong>"): a
            // unit's own error, whose kind a real build checks
            // (JsonOutput.ABrokenUnitIsAnErrorOfKindCompile).
            EXPECT_EQ(documented.kind, "compile");
            continue;
        }
        std::string found;
        for (const std::string& piece : literal) {
            for (const auto& [file, text] : all) {
                const std::size_t at = text.find(piece);
                if (at != std::string::npos) {
                    found = kindThrownAt(all, text, at);
                    if (!found.empty())
                        break;
                }
            }
            if (!found.empty())
                break;
        }
        EXPECT_EQ(found, documented.kind) << "no statement throws it with the documented kind";
        ++checked;
    }
    EXPECT_GT(checked, 45u);
}

TEST(FailureKind, EveryMessageOfTheBootstrapIsDocumentedWithItsKind) {
    const std::vector<DocumentedMessage> messages = documentedMessages();
    for (const auto& known : compiler::explain::failureMessages()) {
        SCOPED_TRACE(std::string(known.opening));
        const auto row = std::find_if(messages.begin(), messages.end(), [&](const auto& each) {
            return each.message.starts_with(known.opening);
        });
        ASSERT_NE(row, messages.end()) << "not in docs/errors.md";
        EXPECT_EQ(failureKind(std::runtime_error(std::string(known.opening) + "/x'")), row->kind);
    }
}

} // namespace
} // namespace quor::tooltest
