// `quor-stdlib clean`: removes this version's cache and first-launch state but
// its build lock file, never while a build holds the lock, and says what it
// did or would do.

#include "quor/Config.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;

fs::path versionCache(const Sandbox& sandbox) {
    return sandbox.cacheRoot() / QUOR_COMPILER_VERSION;
}

TEST(CleanCommand, RemovesTheCacheAndTheStateButKeepsTheLockFile) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    writeFile(sandbox.cacheRoot() / "0.1.5" / "lib" / "Old.qo", "older\n");

    const ToolRun run = runTool(sandbox.arguments({"clean"}), sandbox.path());

    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("removed the cache of " QUOR_COMPILER_VERSION ", freed "),
              std::string::npos)
        << run.out;
    EXPECT_FALSE(fs::exists(versionCache(sandbox)));
    EXPECT_FALSE(fs::exists(sandbox.stateDirectory()));
    EXPECT_TRUE(fs::exists(sandbox.lockFile()));
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / "0.1.5" / "lib" / "Old.qo"));
    // The next build starts from nothing, and a second clean finds nothing.
    const ToolRun again = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_TRUE(again.out.starts_with("built 4 units in ")) << again.out;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "clean"}), sandbox.path()).status, 0);
    const ToolRun nothing = runTool(sandbox.arguments({"clean"}), sandbox.path());
    EXPECT_EQ(nothing.out,
              "no cache of " QUOR_COMPILER_VERSION " under " + sandbox.cacheRoot().string() + "\n");
}

TEST(CleanCommand, DryRunRemovesNothingAndSaysWhatWouldGo) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const ToolRun run =
        runTool(sandbox.arguments({"--json", "clean", "--dry-run"}), sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    const json report = json::parse(run.out);
    EXPECT_EQ(report["dryRun"], true);
    EXPECT_EQ(report["found"], true);
    EXPECT_EQ(report["removed"], false);
    EXPECT_GT(report["bytes"].get<std::uint64_t>(), 0u);
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

TEST(CleanCommand, NeverRemovesACacheWhileItIsBuilt) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    LockHolderProcess holder(sandbox.lockFile());

    const ToolRun run = runTool(sandbox.arguments({"clean"}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("process " + std::to_string(holder.pid())), std::string::npos)
        << run.err;
    EXPECT_TRUE(fs::exists(sandbox.marker()));
}

TEST(StatusCommand, ListsNewerVersionsWithoutOfferingToPruneThem) {
    Sandbox sandbox;
    writeFile(sandbox.cacheRoot() / "9.0.0" / "lib" / "New.qo", "newer\n");
    const json report =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    ASSERT_EQ(report["newerVersions"].size(), 1u) << report;
    EXPECT_EQ(report["newerVersions"][0]["version"], "9.0.0");
    EXPECT_TRUE(report["olderVersions"].empty());
    const ToolRun text = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(text.out.find("  newer versions    9.0.0 "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("left alone: only their own compiler prunes or cleans them"),
              std::string::npos)
        << text.out;
}

} // namespace
} // namespace quor::tooltest
