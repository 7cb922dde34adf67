// `quor-stdlib verify`, `ensure --force`, the reuse counts of `status` and of
// the ensure summary, and the marker of one library never surviving a failed
// build of another: the built tool as a process on a small library.

#include "quor/Config.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;

// Gives the sandbox's library a fingerprint of its own, so that a change of
// the library can be announced the way a release does.
void setFingerprint(const Sandbox& sandbox, char digit) {
    writeFile(sandbox.library() / ".quor-stdlib-fingerprint", std::string(64, digit) + "\n");
}

// The last line of `text` that parses as a JSON object.
json lastEvent(const std::string& text) {
    json last;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        const json parsed = json::parse(text.substr(start, end - start), nullptr, false);
        if (parsed.is_object())
            last = parsed;
        start = end + 1;
    }
    return last;
}

// Builds the sandbox's library, then changes one of its four units and the
// fingerprint, as a release with one fix does.
void buildThenChangeOneUnit(const Sandbox& sandbox) {
    setFingerprint(sandbox, 'a');
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    writeFile(sandbox.library() / "core" / "Text.qr",
              "package core\n\npublic sealed class Text : Object {\n}\n");
    setFingerprint(sandbox, 'b');
}

fs::path object(const Sandbox& sandbox, const std::string& relative) {
    return sandbox.cacheRoot() / QUOR_COMPILER_VERSION / "lib" / relative;
}

TEST(VerifyCommand, ASoundCacheExitsZero) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);

    const ToolRun run = runTool(sandbox.arguments({"verify"}), sandbox.path());

    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.starts_with("sound: 4 objects match their units in ")) << run.out;
}

TEST(VerifyCommand, NamesEveryObjectThatCannotBeTrustedAndExitsOne) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path text = object(sandbox, "core/Text.qo");
    fs::resize_file(text, fs::file_size(text) - 5); // truncated
    const fs::path stack = object(sandbox, "collections/Stack.qo");
    std::string bytes = readFile(stack);
    bytes[bytes.find("Stack", bytes.find("type"))] = 's'; // edited
    writeFile(stack, bytes);
    fs::remove(object(sandbox, "Prelude.qo"));     // deleted
    fs::remove(object(sandbox, "core/Object.qo")); // replaced by a link
    fs::create_symlink(sandbox.path() / "elsewhere.qo", object(sandbox, "core/Object.qo"));
    writeFile(object(sandbox, "gone/Old.qo"), "an object of a unit that left\n"); // orphaned

    const ToolRun run = runTool(sandbox.arguments({"verify"}), sandbox.path());

    EXPECT_EQ(run.status, 1) << run.out << run.err;
    for (const char* line :
         {"  damaged   core/Text.qo: truncated or edited (its checksum does not match)\n",
          "  damaged   collections/Stack.qo: truncated or edited (its checksum does not match)\n",
          "  missing   Prelude.qo\n",
          "  damaged   core/Object.qo: a symbolic link, never followed\n",
          "  orphaned  gone: belongs to no unit of the library\n"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
    EXPECT_NE(run.out.find("not sound: 5 problems among 4 objects in "), std::string::npos)
        << run.out;

    const ToolRun scripted = runTool(sandbox.arguments({"--json", "verify"}), sandbox.path());
    EXPECT_EQ(scripted.status, 1);
    const json report = json::parse(scripted.out);
    EXPECT_EQ(report["ready"], true);
    EXPECT_EQ(report["sound"], false);
    std::map<std::string, int> kinds;
    for (const json& problem : report["problems"])
        ++kinds[problem["kind"].get<std::string>()];
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"damaged", 3}, {"missing", 1}, {"orphaned", 1}}));
}

// A build's sweep removes a FIFO that stands where an object belongs before
// judging anything, so only verify meets one: it must name it, and not block
// reading a pipe that nobody writes.
TEST(VerifyCommand, AFifoWhereAnObjectBelongsIsNotARegularFile) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path text = object(sandbox, "core/Text.qo");
    fs::remove(text);
    ASSERT_EQ(::mkfifo(text.c_str(), 0644), 0);

    const ToolRun run = runTool(sandbox.arguments({"verify"}), sandbox.path());

    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(run.out.find("  damaged   core/Text.qo: not a regular file\n"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("not sound: 1 problem among 4 objects in "), std::string::npos)
        << run.out;
}

TEST(VerifyCommand, AStaleObjectIsNamed) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    writeFile(sandbox.library() / "core" / "Object.qr", "package core\n\npublic class Object {\n"
                                                        "    let id: Int\n}\n");

    const ToolRun run = runTool(sandbox.arguments({"verify"}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("  stale     core/Object.qo: compiled from other bytes than the unit "
                           "holds now\n"),
              std::string::npos)
        << run.out;
}

TEST(VerifyCommand, ACacheThatIsNotReadyIsNotSound) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"verify"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("not ready: no valid readiness marker vouches for "), std::string::npos)
        << run.out;
}

TEST(EnsureForce, RebuildsAReadyCacheCompilingOnlyWhatIsNotSound) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path text = object(sandbox, "core/Text.qo");
    fs::resize_file(text, fs::file_size(text) - 5);
    const ToolRun plain = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    ASSERT_EQ(plain.out, "already up to date\n"); // the marker alone is trusted here

    const ToolRun forced =
        runTool(sandbox.arguments({"--json", "ensure", "--force"}), sandbox.path());

    EXPECT_EQ(forced.status, 0) << forced.err;
    const json result = lastEvent(forced.out);
    EXPECT_EQ(result["event"], "result");
    EXPECT_EQ(result["bootstrapped"], true);
    EXPECT_EQ(result["compiled"], 1);
    EXPECT_EQ(result["reused"], 3);
    EXPECT_EQ(runTool(sandbox.arguments({"verify"}), sandbox.path()).status, 0);
}

TEST(EnsureSummary, SaysHowManyUnitsWereCompiledAndHowManyReused) {
    Sandbox sandbox;
    buildThenChangeOneUnit(sandbox);

    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());

    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.out.starts_with("built 4 units in ")) << run.out;
    EXPECT_NE(run.out.find(" (compiled 1, reused 3)\n"), std::string::npos) << run.out;
}

TEST(StatusCommand, SaysWhatTheNextBuildWouldCompileAndReuse) {
    Sandbox sandbox;
    buildThenChangeOneUnit(sandbox);

    const ToolRun text = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(text.out.find("  next build        compiles 1, reuses 3 sound objects\n"),
              std::string::npos)
        << text.out;
    const json report =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    EXPECT_EQ(report["nextBuild"], (json{{"compile", 1}, {"reuse", 3}, {"adopt", 0}}));

    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const json ready =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    EXPECT_TRUE(ready["nextBuild"].is_null());
    const ToolRun readyText = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(readyText.out.find("  units to compile  4\n"), std::string::npos) << readyText.out;
    EXPECT_EQ(readyText.out.find("unknown"), std::string::npos) << readyText.out;
    EXPECT_EQ(readyText.out.find("next build"), std::string::npos) << readyText.out;
}

TEST(LibrarySwitch, AFailedBuildOfAnotherLibraryLeavesTheFirstNotReadyUntilBuiltAgain) {
    Sandbox a;
    setFingerprint(a, 'a');
    ASSERT_EQ(runTool(a.arguments({"--quiet", "ensure"}), a.path()).status, 0);
    // Library B shares the cache root: another prelude, and a unit that fails.
    Sandbox b;
    setFingerprint(b, 'b');
    writeFile(b.library() / "Prelude.qr", "public fn other() -> Int {\n    return 2\n}\n");
    writeFile(b.library() / "time" / "Weekday.qr", "package time\n\npublic struct Weekday {\n");
    const auto inA = [&](std::vector<std::string> arguments) {
        std::vector<std::string> line = {"--stdlib", b.library().string(), "--cache-root",
                                         a.cacheRoot().string()};
        line.insert(line.end(), arguments.begin(), arguments.end());
        return line;
    };

    const ToolRun failed = runTool(inA({"ensure"}), b.path());
    ASSERT_EQ(failed.status, 1) << failed.out << failed.err;

    EXPECT_EQ(runTool(a.arguments({"status", "--check"}), a.path()).status, 1);
    const ToolRun repaired = runTool(a.arguments({"ensure"}), a.path());
    EXPECT_EQ(repaired.status, 0) << repaired.err;
    EXPECT_TRUE(repaired.out.starts_with("built 4 units in ")) << repaired.out;
    EXPECT_EQ(runTool(a.arguments({"verify"}), a.path()).status, 0);
}

} // namespace
} // namespace quor::tooltest
