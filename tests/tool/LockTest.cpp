// `quor-stdlib ensure` while another process holds the build lock: it names
// the holder, --timeout gives up with an explanation, and Ctrl-C (during the
// wait and during a build) exits with 130 and leaves no marker.

#include "ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include <signal.h>

namespace quor::tooltest {
namespace {

using namespace std::chrono_literals;

TEST(EnsureLockWait, NamesTheHolderWithinASecondThenBuildsOnceItIsReleased) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    ToolProcess tool(sandbox.arguments({"ensure"}), sandbox.path());
    const std::string named = "process " + std::to_string(holder.pid());
    ASSERT_TRUE(tool.waitForError(named, 5s)) << tool.err();
    EXPECT_LT(tool.secondsSinceStart(), 1.0)
        << "the holder was named only after " << tool.secondsSinceStart() << " s";
    EXPECT_NE(tool.err().find("waiting for"), std::string::npos) << tool.err();
    EXPECT_FALSE(fs::exists(sandbox.marker()));

    holder.release();
    const ToolRun run = tool.finish();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("built " + std::to_string(Sandbox::compilableUnits) + " units"),
              std::string::npos)
        << run.out;
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

TEST(EnsureLockWait, JsonReportsTheWaitAsAnEvent) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    ToolProcess tool(sandbox.arguments({"ensure", "--json"}), sandbox.path());
    ASSERT_TRUE(tool.waitForOutput("\n", 5s)) << tool.err();
    const auto event = nlohmann::json::parse(tool.out().substr(0, tool.out().find('\n')));
    EXPECT_EQ(event["event"], "waiting");
    EXPECT_EQ(event["pid"], holder.pid());
    EXPECT_EQ(event["lockFile"], sandbox.lockFile().string());
    holder.release();
    EXPECT_EQ(tool.finish().status, 0);
}

TEST(EnsureLockWait, TimeoutGivesUpAndSaysOnWhom) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--timeout", "1"}), sandbox.path());
    EXPECT_EQ(run.status, 124) << run.err;
    EXPECT_GE(run.seconds, 0.9);
    EXPECT_LT(run.seconds, 30.0);
    // The time-out leads; the lock message, which also means "not yours to
    // take", does not appear at all.
    EXPECT_NE(run.err.find("quor-stdlib: error: gave up waiting for the build lock after "),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.err.find("Unable to lock"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("process " + std::to_string(holder.pid())), std::string::npos)
        << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

TEST(EnsureLockWait, JsonTimeoutEndsWithAnErrorEventNamingTheHolder) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    const ToolRun run =
        runTool(sandbox.arguments({"ensure", "--json", "--timeout", "1"}), sandbox.path());
    EXPECT_EQ(run.status, 124) << run.err;
    std::istringstream lines(run.out);
    std::string line, last;
    while (std::getline(lines, line))
        if (!line.empty())
            last = line;
    ASSERT_FALSE(last.empty()) << run.err;
    const auto event = nlohmann::json::parse(last);
    EXPECT_EQ(event.value("event", ""), "error") << last;
    EXPECT_EQ(event.value("kind", ""), "timeout") << last;
    EXPECT_EQ(event.value("exitStatus", 0), 124) << last;
    ASSERT_TRUE(event.contains("holder")) << last;
    EXPECT_EQ(event["holder"].value("pid", 0), holder.pid()) << last;
}

TEST(EnsureLockWait, TimeoutDoesNotMatterWhenTheLockIsFree) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--timeout", "0"}), sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

TEST(EnsureInterrupt, CtrlCWhileWaitingExitsWith130) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    ToolProcess tool(sandbox.arguments({"ensure"}), sandbox.path());
    ASSERT_TRUE(tool.waitForError("waiting for", 5s)) << tool.err();
    kill(tool.pid(), SIGINT);
    const ToolRun run = tool.finish();
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.err.find("interrupted"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

TEST(EnsureInterrupt, CtrlCDuringABuildLeavesNoMarker) {
    Sandbox sandbox;
    // Enough units that the build is still running when the signal comes.
    for (int i = 0; i < 1500; ++i)
        writeFile(sandbox.library() / "bulk" / ("Unit" + std::to_string(i) + ".qr"),
                  "package bulk\n\npublic class Unit" + std::to_string(i) +
                      " {\n    let value: Int\n}\n");
    ToolProcess tool(sandbox.arguments({"ensure", "--json", "--jobs", "1"}), sandbox.path());
    ASSERT_TRUE(tool.waitForOutput("\"Compiling\"", 60s)) << tool.err();
    kill(tool.pid(), SIGINT);
    const ToolRun run = tool.finish();
    if (run.out.find("\"event\":\"result\"") != std::string::npos)
        GTEST_SKIP() << "the build finished before the signal arrived";
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.out.find("\"event\":\"interrupted\""), std::string::npos) << run.out;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
    // The lock was released: the next run builds at once.
    const ToolRun next =
        runTool(sandbox.arguments({"ensure", "--quiet", "--timeout", "30"}), sandbox.path());
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

} // namespace
} // namespace quor::tooltest
