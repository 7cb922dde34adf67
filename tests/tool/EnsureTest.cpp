// `quor-stdlib ensure` run as a process: the JSON Lines events, the progress
// line on a terminal and the plain lines without one, and failures.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>

namespace quor::tooltest {
namespace {

using nlohmann::json;

TEST(EnsureCommand, JsonEventsComeInOrderAndEndWithTheResult) {
    Sandbox sandbox;
    const ToolRun run =
        runTool(sandbox.arguments({"ensure", "--json", "--jobs", "2"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    const auto events = jsonLines(run.out);
    const std::size_t n = Sandbox::compilableUnits;
    ASSERT_EQ(events.size(), n + 3) << run.out;

    EXPECT_EQ(events[0]["event"], "progress");
    EXPECT_EQ(events[0]["stage"], "Preparing");
    EXPECT_EQ(events[0]["completed"], 0);
    EXPECT_EQ(events[0]["total"], 0);
    std::vector<std::string> compiled;
    for (std::size_t k = 1; k <= n; ++k) {
        const json& event = events[k];
        EXPECT_EQ(event["event"], "progress");
        EXPECT_EQ(event["stage"], "Compiling");
        EXPECT_EQ(event["completed"], k);
        EXPECT_EQ(event["total"], n);
        compiled.push_back(event["sourcePath"]);
        const std::string displayName = event["displayName"];
        const fs::path relative =
            fs::path(event["sourcePath"].get<std::string>()).lexically_relative(sandbox.library());
        std::string package = relative.parent_path().string();
        std::replace(package.begin(), package.end(), '/', '.');
        EXPECT_EQ(displayName, package);
    }
    std::sort(compiled.begin(), compiled.end());
    const std::vector<std::string> expected = {
        (sandbox.library() / "Prelude.qr").string(),
        (sandbox.library() / "collections" / "Stack.qr").string(),
        (sandbox.library() / "core" / "Object.qr").string(),
        (sandbox.library() / "core" / "Text.qr").string(),
    };
    EXPECT_EQ(compiled, expected);
    EXPECT_EQ(events[n + 1]["stage"], "Finished");
    EXPECT_EQ(events[n + 1]["completed"], n);
    EXPECT_EQ(events[n + 1]["total"], n);
    const json& result = events[n + 2];
    EXPECT_EQ(result["event"], "result");
    EXPECT_TRUE(result["bootstrapped"].get<bool>());
    EXPECT_EQ(result["completed"], n);
    EXPECT_EQ(result["total"], n);
    EXPECT_GE(result["seconds"].get<double>(), 0.0);
    EXPECT_TRUE(fs::exists(sandbox.marker()));

    const ToolRun again = runTool(sandbox.arguments({"ensure", "--json"}), sandbox.path());
    ASSERT_EQ(again.status, 0) << again.err;
    const auto second = jsonLines(again.out);
    ASSERT_EQ(second.size(), 1u) << again.out;
    EXPECT_EQ(second[0]["event"], "result");
    EXPECT_FALSE(second[0]["bootstrapped"].get<bool>());
    EXPECT_EQ(second[0]["total"], 0);
}

TEST(EnsureCommand, OnATerminalTheProgressLineIsRedrawnInPlace) {
    Sandbox sandbox;
    const ToolRun run =
        runToolOnTerminal(sandbox.arguments({"ensure", "--jobs", "1"}), sandbox.path(), 100);
    ASSERT_EQ(run.status, 0) << run.out;
    const std::string& screen = run.out;
    // Redrawn in place (carriage return, then erase to the end), at a bounded
    // rate: the scan, the last unit and the final erase at least.
    const auto redraws = std::count(screen.begin(), screen.end(), '\r');
    EXPECT_GE(static_cast<std::size_t>(redraws), 3u) << screen;
    EXPECT_NE(screen.find("\r\033[K["), std::string::npos) << screen;
    const std::string total = "/" + std::to_string(Sandbox::compilableUnits);
    EXPECT_NE(screen.find(std::to_string(Sandbox::compilableUnits) + total + " 100%"),
              std::string::npos)
        << screen;
    EXPECT_NE(screen.find("writing to disk and publishing"), std::string::npos) << screen;
    // The terminal turns "\n" into "\r\n"; the summary is the last line.
    const std::string summary = "built " + std::to_string(Sandbox::compilableUnits) + " units in ";
    const auto at = screen.rfind(summary);
    ASSERT_NE(at, std::string::npos) << screen;
    EXPECT_EQ(screen.find('\n', at), screen.size() - 1) << screen;
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

TEST(EnsureCommand, WithoutATerminalThereAreNoRedraws) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.find('\r'), std::string::npos) << run.err;
    EXPECT_EQ(run.out.find('\r'), std::string::npos) << run.out;
    EXPECT_EQ(run.err.find('\033'), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("compiled " + std::to_string(Sandbox::compilableUnits) + "/"),
              std::string::npos)
        << run.err;
    EXPECT_TRUE(
        run.out.starts_with("built " + std::to_string(Sandbox::compilableUnits) + " units in "))
        << run.out;
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
    const ToolRun again = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "already up to date\n");
}

TEST(EnsureCommand, QuietPrintsNothingOnSuccess) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--quiet"}), sandbox.path());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST(EnsureCommand, MalformedUnitFailsWithTheCompilersMessageAndNoMarker) {
    Sandbox sandbox;
    writeFile(sandbox.library() / "core" / "Broken.qr", "package core\n\npublic class Broken {\n");
    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.rfind("quor-stdlib: error: "), run.err.find("quor-stdlib: error: "));
    EXPECT_NE(run.err.find("quor-stdlib: error: " +
                           (sandbox.library() / "core" / "Broken.qr").string() + ":"),
              std::string::npos)
        << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

TEST(EnsureCommand, MissingLibraryIsAnError) {
    Sandbox sandbox;
    fs::remove_all(sandbox.library());
    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("quor-stdlib: error: Unable to enumerate Quor standard library '" +
                           sandbox.library().string() + "'"),
              std::string::npos)
        << run.err;
}

TEST(CommandLine, UnknownSubcommandSuggestsTheClosestOne) {
    Sandbox sandbox;
    const ToolRun run = runTool({"stauts"}, sandbox.path());
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("unknown subcommand 'stauts'; did you mean 'status'?"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("quor-stdlib help"), std::string::npos) << run.err;
    EXPECT_EQ(runTool({"ensur"}, sandbox.path()).status, 2);
}

TEST(CommandLine, BadOptionValuesAreUsageErrors) {
    Sandbox sandbox;
    EXPECT_EQ(runTool({"ensure", "--timeout", "soon"}, sandbox.path()).status, 2);
    EXPECT_EQ(runTool({"ensure", "--jobs", "0"}, sandbox.path()).status, 2);
    EXPECT_EQ(runTool({"--color", "sometimes", "status"}, sandbox.path()).status, 2);
    EXPECT_EQ(runTool({"status", "--no-such-option"}, sandbox.path()).status, 2);
    EXPECT_EQ(runTool({}, sandbox.path()).status, 2);
}

TEST(CommandLine, HelpListsEverySubcommandAndExitStatus) {
    Sandbox sandbox;
    const ToolRun flag = runTool({"--help"}, sandbox.path());
    const ToolRun command = runTool({"help"}, sandbox.path());
    EXPECT_EQ(flag.status, 0);
    EXPECT_EQ(command.status, 0);
    for (const std::string word : {"status", "ensure", "prune", "help", "Exit status:", "130",
                                   "QUOR_STDLIB_PATH", "QUOR_CACHE_DIR", "QUOR_JOBS", "NO_COLOR"}) {
        EXPECT_NE(flag.out.find(word), std::string::npos) << word;
        EXPECT_NE(command.out.find(word), std::string::npos) << word;
    }
    const ToolRun ensureHelp = runTool({"help", "ensure"}, sandbox.path());
    EXPECT_EQ(ensureHelp.status, 0);
    EXPECT_NE(ensureHelp.out.find("--timeout"), std::string::npos) << ensureHelp.out;
}

TEST(CommandLine, VersionNamesTheCompilerVersion) {
    Sandbox sandbox;
    const ToolRun run = runTool({"--version"}, sandbox.path());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("quor-stdlib " QUOR_COMPILER_VERSION " (object ABI ", 0), 0u)
        << run.out;
}

TEST(CommandLine, ColorAlwaysColoursEvenWithoutATerminal) {
    Sandbox sandbox;
    const ToolRun plain = runTool(sandbox.arguments({"status"}), sandbox.path());
    const ToolRun coloured =
        runTool(sandbox.arguments({"--color", "always", "status"}), sandbox.path());
    EXPECT_EQ(plain.out.find('\033'), std::string::npos);
    EXPECT_NE(coloured.out.find("\033["), std::string::npos);
}

} // namespace
} // namespace quor::tooltest
