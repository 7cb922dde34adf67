// The command line as a user meets it when it goes wrong: every usage error
// has one form ("quor-stdlib: error: <what>[; did you mean '<name>'?]", then
// the hint), exit status 2, and with --json one "usage" error object on
// standard output; and options repeated or given in the wrong place.

#include "ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quor::tooltest {
namespace {

const std::string hint = "Run 'quor-stdlib help' to list the subcommands and options.\n";

// Runs the tool and checks that it failed as a usage error saying `message`,
// and nothing else.
void expectUsageError(const std::vector<std::string>& arguments, const std::string& message) {
    Sandbox sandbox;
    const ToolRun run = runTool(arguments, sandbox.path());
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_EQ(run.err, "quor-stdlib: error: " + message + "\n" + hint);
    EXPECT_EQ(run.out, "");
}

TEST(UsageErrors, UnknownOptionOfASubcommandSuggestsTheClosestOne) {
    expectUsageError({"prune", "--dry"},
                     "unknown option '--dry' for 'prune'; did you mean '--dry-run'?");
    expectUsageError({"ensure", "--forse"},
                     "unknown option '--forse' for 'ensure'; did you mean '--force'?");
    expectUsageError({"status", "--chekc"},
                     "unknown option '--chekc' for 'status'; did you mean '--check'?");
    // The global options count as the subcommand's: they may follow it.
    expectUsageError({"status", "--josn"},
                     "unknown option '--josn' for 'status'; did you mean '--json'?");
}

TEST(UsageErrors, UnknownOptionWithNothingCloseGetsNoSuggestion) {
    expectUsageError({"status", "-v"}, "unknown option '-v' for 'status'");
    expectUsageError({"status", "--no-such-option"},
                     "unknown option '--no-such-option' for 'status'");
    expectUsageError({"--bogus"}, "unknown option '--bogus'");
}

TEST(UsageErrors, UnknownGlobalOptionSuggestsTheClosestOne) {
    expectUsageError({"--cache-rot", "/tmp"},
                     "unknown option '--cache-rot'; did you mean '--cache-root'?");
}

TEST(UsageErrors, ASubcommandsOptionBeforeItIsNamedAsSuch) {
    expectUsageError({"--force", "ensure"}, "option '--force' must come after 'ensure'");
}

TEST(UsageErrors, AnExtraWordIsAnUnexpectedArgument) {
    expectUsageError({"status", "extra"}, "unexpected argument 'extra' for 'status'");
    expectUsageError({"help", "status", "ensure"}, "unexpected argument 'ensure' for 'help'");
}

TEST(UsageErrors, AMissingValueSaysWhatWasExpected) {
    expectUsageError({"ensure", "--jobs"},
                     "--jobs: expected a whole number of worker threads, at least 1, got nothing");
    expectUsageError({"ensure", "-j"},
                     "--jobs: expected a whole number of worker threads, at least 1, got nothing");
    expectUsageError({"ensure", "--timeout"},
                     "--timeout: expected a number of seconds, at least 0, got nothing");
    expectUsageError({"status", "--color"}, "--color: expected auto, always or never, got nothing");
    expectUsageError({"--stdlib"}, "--stdlib: expected a directory, got nothing");
    expectUsageError({"status", "--cache-root"}, "--cache-root: expected a directory, got nothing");
}

TEST(UsageErrors, ABadValueSaysWhatWasExpectedAndWhatCame) {
    expectUsageError({"--color", "sometimes", "status"},
                     "--color: expected auto, always or never, got 'sometimes'");
    expectUsageError({"ensure", "--jobs", "0"},
                     "--jobs: expected a whole number of worker threads, at least 1, got '0'");
    expectUsageError({"ensure", "--timeout", "soon"},
                     "--timeout: expected a number of seconds, at least 0, got 'soon'");
}

TEST(UsageErrors, VerboseAndQuietContradictEachOther) {
    expectUsageError({"ensure", "--verbose", "--quiet"},
                     "--verbose and --quiet cannot be used together");
}

TEST(UsageErrors, JsonGetsOneUsageErrorObject) {
    Sandbox sandbox;
    const ToolRun run = runTool({"prune", "--dry", "--json"}, sandbox.path());
    EXPECT_EQ(run.status, 2);
    const std::string message = "unknown option '--dry' for 'prune'; did you mean '--dry-run'?";
    EXPECT_EQ(run.err, "quor-stdlib: error: " + message + "\n" + hint);
    const nlohmann::json error = nlohmann::json::parse(run.out);
    EXPECT_EQ(error, (nlohmann::json{{"schema", 1},
                                     {"event", "error"},
                                     {"kind", "usage"},
                                     {"message", message},
                                     {"exitStatus", 2}}))
        << run.out;
}

// A value option given twice takes the last value, as in most tools, rather
// than failing on a mechanism of the parser.
TEST(CommandLine, ARepeatedOptionTakesTheLastValue) {
    Sandbox sandbox;
    const ToolRun run = runTool(
        sandbox.arguments({"ensure", "--quiet", "--jobs", "0", "--jobs", "2"}), sandbox.path());
    EXPECT_EQ(run.status, 2) << "every value is checked: " << run.err;
    const ToolRun good =
        runTool(sandbox.arguments({"--cache-root", "/nonexistent/elsewhere", "--cache-root",
                                   sandbox.cacheRoot().string(), "ensure", "--quiet", "--jobs", "1",
                                   "--jobs", "2"}),
                sandbox.path());
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(good.err, "");
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

} // namespace
} // namespace quor::tooltest
