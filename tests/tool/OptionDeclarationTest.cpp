// Every option of quor-stdlib is declared once, in the command table, and
// everything else is derived from that declaration. These tests walk the
// declarations themselves, so an option added to the table is checked without
// a word here: both parsers take every spelling of every option of every
// command and make the same Invocation of it, neither takes an option its
// command does not declare, the help explains each, and the manual page and
// the completions generated from that help name each where it applies.

#include "CommandLine.h"
#include "Commands.h"
#include "QuickCommandLine.h"
#include "ToolTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#ifndef QUOR_MANPAGE_FILE
#error                                                                                             \
    "QUOR_MANPAGE_FILE, QUOR_COMPLETION_FILE and QUOR_ZSH_COMPLETION_FILE must name the generated reference"
#endif

namespace quor::tooltest {
namespace {

using namespace quor::stdlibtool;

template <class... Handlers> struct Overloaded : Handlers... { using Handlers::operator()...; };
template <class... Handlers> Overloaded(Handlers...) -> Overloaded<Handlers...>;

// A value each kind accepts, and whether an Invocation holds what that value
// means in the option's field. Written out per kind rather than read back
// through the table's own conversion, so that a conversion gone wrong shows;
// a new kind of value does not compile until it has its case here.
struct Sample {
    std::optional<std::string> text; // nothing for a flag
    bool (*holds)(const OptionValue& value, Invocation& invocation);
};

Sample sampleOf(const OptionValue& value) {
    return std::visit(
        Overloaded{
            [](const FlagValue&) {
                return Sample{std::nullopt, [](const OptionValue& v, Invocation& i) {
                                  return std::get<FlagValue>(v).field(i);
                              }};
            },
            [](const DirectoryValue&) {
                return Sample{"/a library/root", [](const OptionValue& v, Invocation& i) {
                                  return std::get<DirectoryValue>(v).field(i) == "/a library/root";
                              }};
            },
            [](const FileValue&) {
                return Sample{"/a folder/library.qpack", [](const OptionValue& v, Invocation& i) {
                                  return std::get<FileValue>(v).field(i) ==
                                         "/a folder/library.qpack";
                              }};
            },
            [](const SecondsValue&) {
                return Sample{"2.5", [](const OptionValue& v, Invocation& i) {
                                  return std::get<SecondsValue>(v).field(i) == 2.5;
                              }};
            },
            // A leading zero, read in decimal: twelve workers, not octal ten.
            [](const WorkerCountValue&) {
                return Sample{"012", [](const OptionValue& v, Invocation& i) {
                                  return std::get<WorkerCountValue>(v).field(i) == 12u;
                              }};
            },
            [](const ColorValue&) {
                return Sample{"always", [](const OptionValue& v, Invocation& i) {
                                  return std::get<ColorValue>(v).field(i) == ColorMode::Always;
                              }};
            }},
        value);
}

// Each way of giving `option` on a command line: its short and its long name,
// each followed by the sample value when it takes one, and "--long=value".
std::vector<std::vector<std::string>> spellingsOf(const CommandOption& option) {
    const Sample sample = sampleOf(option.value);
    std::vector<std::vector<std::string>> spellings;
    for (const std::string_view name : {option.shortName, option.longName}) {
        if (name.empty())
            continue;
        if (sample.text)
            spellings.push_back({std::string(name), *sample.text});
        else
            spellings.push_back({std::string(name)});
    }
    if (sample.text)
        spellings.push_back({std::string(option.longName) + "=" + *sample.text});
    return spellings;
}

std::string joined(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

struct BothParsers {
    ParsedCommandLine full;
    std::string fullOut;
    std::string fullErr;
    std::optional<QuickCommand> quick;
};

BothParsers parseWithBoth(const std::vector<std::string>& words) {
    std::vector<const char*> arguments;
    arguments.reserve(words.size());
    for (const std::string& word : words)
        arguments.push_back(word.c_str());
    BothParsers result;
    std::ostringstream out;
    std::ostringstream err;
    result.full = parseCommandLine(arguments, out, err);
    result.fullOut = out.str();
    result.fullErr = err.str();
    result.quick = parseQuickCommandLine(arguments);
    return result;
}

bool declares(const Command& command, std::string_view longName) {
    for (const CommandOption& option : command.options)
        if (option.longName == longName)
            return true;
    return false;
}

// QUOR_JOBS would turn `ensure` without --jobs into a usage error or keep it
// from the quick command line; each test runs without it.
class OptionDeclarations : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* jobs = std::getenv("QUOR_JOBS"))
            savedJobs_ = jobs;
        ::unsetenv("QUOR_JOBS");
    }
    void TearDown() override {
        if (savedJobs_)
            ::setenv("QUOR_JOBS", savedJobs_->c_str(), 1);
    }

private:
    std::optional<std::string> savedJobs_;
};

TEST_F(OptionDeclarations, BothParsersTakeEverySpellingOfEveryOptionAlike) {
    ASSERT_FALSE(globalOptions().empty());
    std::size_t checked = 0;
    for (const Command& command : commands()) {
        const std::string name(command.name);
        // The global options go before or after the subcommand, its own after it.
        std::vector<std::pair<const CommandOption*, bool>> placed;
        for (const CommandOption& option : globalOptions()) {
            placed.emplace_back(&option, true);
            placed.emplace_back(&option, false);
        }
        for (const CommandOption& option : command.options)
            placed.emplace_back(&option, false);
        for (const auto& [option, before] : placed) {
            for (const std::vector<std::string>& spelling : spellingsOf(*option)) {
                std::vector<std::string> words = spelling;
                if (before)
                    words.push_back(name);
                else
                    words.insert(words.begin(), name);
                SCOPED_TRACE(joined(words));
                BothParsers parsed = parseWithBoth(words);
                ASSERT_EQ(parsed.full.command, &command) << parsed.fullErr;
                EXPECT_EQ(parsed.fullErr, "");
                Invocation invocation = parsed.full.invocation;
                EXPECT_TRUE(sampleOf(option->value).holds(option->value, invocation));
                if (command.quick) {
                    ASSERT_TRUE(parsed.quick) << "the quick command line leaves it";
                    EXPECT_EQ(parsed.quick->command, &command);
                    EXPECT_TRUE(parsed.quick->invocation == parsed.full.invocation);
                } else {
                    EXPECT_FALSE(parsed.quick) << "not a quick command";
                }
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, commands().size() * globalOptions().size());
}

TEST_F(OptionDeclarations, NeitherParserTakesAnOptionItsCommandDoesNotDeclare) {
    for (const Command& command : commands()) {
        for (const Command& other : commands()) {
            for (const CommandOption& option : other.options) {
                if (declares(command, option.longName))
                    continue;
                for (std::vector<std::string> words : spellingsOf(option)) {
                    words.insert(words.begin(), std::string(command.name));
                    SCOPED_TRACE(joined(words));
                    const BothParsers parsed = parseWithBoth(words);
                    EXPECT_FALSE(parsed.quick);
                    EXPECT_EQ(parsed.full.command, nullptr);
                    EXPECT_EQ(parsed.full.status, ExitUsage);
                    EXPECT_NE(parsed.fullErr.find("quor-stdlib: error: unknown option '" +
                                                  words[1] + "' for '" + std::string(command.name) +
                                                  "'"),
                              std::string::npos)
                        << parsed.fullErr;
                }
            }
        }
    }
}

TEST_F(OptionDeclarations, TheHelpExplainsEveryOptionWhereItApplies) {
    const BothParsers overview = parseWithBoth({"help"});
    ASSERT_NE(overview.full.command, nullptr) << overview.fullErr;
    for (const CommandOption& option : globalOptions()) {
        SCOPED_TRACE(option.longName);
        const std::string& text = overview.full.invocation.helpText;
        EXPECT_NE(text.find(std::string(option.longName) +
                            (valueTypeName(option.value).empty()
                                 ? ""
                                 : " " + std::string(valueTypeName(option.value)))),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find(option.help), std::string::npos) << text;
        if (!option.shortName.empty()) {
            EXPECT_NE(text.find(std::string(option.shortName) + "," + std::string(option.longName)),
                      std::string::npos)
                << text;
        }
    }
    for (const Command& command : commands()) {
        const BothParsers explained = parseWithBoth({"help", std::string(command.name)});
        ASSERT_NE(explained.full.command, nullptr) << explained.fullErr;
        const std::string& text = explained.full.invocation.helpText;
        for (const CommandOption& option : command.options) {
            SCOPED_TRACE(std::string(command.name) + " " + std::string(option.longName));
            EXPECT_NE(text.find(std::string(option.longName)), std::string::npos) << text;
            EXPECT_NE(text.find(option.help), std::string::npos) << text;
            EXPECT_NE(text.find(valueTypeName(option.value)), std::string::npos) << text;
            EXPECT_NE(text.find(valueChoices(option.value)), std::string::npos) << text;
        }
        for (const CommandArgument& argument : command.arguments)
            EXPECT_NE(text.find(argument.help), std::string::npos) << text;
    }
}

// The text between the line that starts with `opening` and the next line that
// starts with `closing` (or the end), "" when `opening` is not there.
std::string section(const std::string& text, const std::string& opening,
                    const std::string& closing) {
    const std::size_t start = text.find("\n" + opening);
    if (start == std::string::npos)
        return {};
    const std::size_t end = text.find("\n" + closing, start + 1);
    return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// A name as roff needs it: every minus sign escaped.
std::string roff(std::string_view name) {
    std::string text;
    for (const char c : name)
        text += c == '-' ? std::string("\\-") : std::string(1, c);
    return text;
}

bool hasWord(const std::string& text, std::string_view word) {
    const std::string bounded = " " + std::string(word) + " ";
    return (" " + text + " ").find(bounded) != std::string::npos;
}

TEST(GeneratedReference, NamesEveryDeclaredOptionWhereItApplies) {
    const std::string page = readFile(QUOR_MANPAGE_FILE);
    const std::string bash = readFile(QUOR_COMPLETION_FILE);
    const std::string zsh = readFile(QUOR_ZSH_COMPLETION_FILE);
    ASSERT_FALSE(page.empty() || bash.empty() || zsh.empty()) << "the reference was not generated";

    // Bash offers the global options with no subcommand yet, and with each.
    const std::string bashGlobal = section(bash, "        '') candidates=\"", "        ");
    const std::string pageGlobal = section(page, ".SH OPTIONS", ".SH SUBCOMMANDS");
    const std::string zshGlobal = section(zsh, "    global=(", "    )");
    for (const CommandOption& option : globalOptions()) {
        for (const std::string_view name : {option.shortName, option.longName}) {
            if (name.empty())
                continue;
            SCOPED_TRACE(name);
            EXPECT_NE(pageGlobal.find(roff(name)), std::string::npos) << pageGlobal;
            EXPECT_TRUE(hasWord(bashGlobal.substr(bashGlobal.find('"') + 1), name)) << bashGlobal;
            EXPECT_NE(zshGlobal.find(name), std::string::npos) << zshGlobal;
        }
    }
    for (const Command& command : commands()) {
        const std::string name(command.name);
        const std::string pageOwn = section(page, ".SS \"quor\\-stdlib " + roff(name), ".S");
        const std::string bashOwn = section(bash, "        " + name + ") candidates=\"", "    ");
        const std::string zshOwn = section(zsh, "        " + name + ")\n", "            ;;");
        ASSERT_FALSE(pageOwn.empty()) << name;
        ASSERT_FALSE(bashOwn.empty()) << name;
        ASSERT_FALSE(zshOwn.empty()) << name;
        const std::string bashWords =
            bashOwn.substr(bashOwn.find('"') + 1, bashOwn.rfind('"') - bashOwn.find('"') - 1);
        for (const CommandOption& option : command.options) {
            for (const std::string_view spelling : {option.shortName, option.longName}) {
                if (spelling.empty())
                    continue;
                SCOPED_TRACE(name + " " + std::string(spelling));
                EXPECT_NE(pageOwn.find(roff(spelling)), std::string::npos) << pageOwn;
                EXPECT_TRUE(hasWord(bashWords, spelling)) << bashOwn;
                EXPECT_NE(zshOwn.find(spelling), std::string::npos) << zshOwn;
            }
        }
        // The global options are offered after the subcommand too.
        for (const CommandOption& option : globalOptions())
            EXPECT_TRUE(hasWord(bashWords, option.longName)) << bashOwn;
    }
}

} // namespace
} // namespace quor::tooltest
