// `quor-stdlib prune` run as a process on a cache root that holds older and
// newer versions, the current one, a symbolic link named like a version and a
// folder that is not a version.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quor::tooltest {
namespace {

using nlohmann::json;

class PruneCommand : public testing::Test {
protected:
    void SetUp() override {
        const fs::path root = sandbox.cacheRoot();
        writeFile(root / "0.1.5" / "lib" / "core" / "Object.qo", std::string(20000, 'o'));
        writeFile(root / ".first-launch" / "0.1.5" / "lib" / ".quor-stdlib-ready", "old\n");
        writeFile(root / "0.0.9" / "lib" / "Prelude.qo", "p");
        writeFile(root / QUOR_COMPILER_VERSION / "lib" / "Prelude.qo", "current");
        writeFile(root / "0.2.0" / "lib" / "Prelude.qo", "newer");
        writeFile(root / "notes" / "readme.txt", "not a version");
        writeFile(sandbox.path() / "elsewhere" / "keep.txt", "outside the root");
        fs::create_directory_symlink(sandbox.path() / "elsewhere", root / "0.1.4");
    }

    void expectUntouched() const {
        const fs::path root = sandbox.cacheRoot();
        EXPECT_TRUE(fs::exists(root / QUOR_COMPILER_VERSION));
        EXPECT_TRUE(fs::exists(root / "0.2.0"));
        EXPECT_TRUE(fs::exists(root / "notes" / "readme.txt"));
        EXPECT_TRUE(fs::is_symlink(root / "0.1.4"));
        EXPECT_TRUE(fs::exists(sandbox.path() / "elsewhere" / "keep.txt"));
    }

    Sandbox sandbox;
};

TEST_F(PruneCommand, DryRunListsOlderVersionsAndRemovesNothing) {
    const ToolRun run =
        runTool(sandbox.arguments({"prune", "--dry-run", "--json"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    const json report = json::parse(run.out);
    EXPECT_TRUE(report["dryRun"].get<bool>());
    ASSERT_EQ(report["olderVersions"].size(), 2u) << run.out;
    EXPECT_EQ(report["olderVersions"][0]["version"], "0.0.9");
    EXPECT_EQ(report["olderVersions"][1]["version"], "0.1.5");
    EXPECT_EQ(report["olderVersions"][1]["path"], (sandbox.cacheRoot() / "0.1.5").string());
    EXPECT_GE(report["olderVersions"][1]["bytes"].get<std::uint64_t>(), 20000u);
    EXPECT_EQ(report["olderVersions"].size(), 2u);
    EXPECT_EQ(report["removed"], 0);
    EXPECT_EQ(report["bytesFreed"], 0);
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / "0.1.5"));
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / "0.0.9"));
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / ".first-launch" / "0.1.5"));
    expectUntouched();

    const ToolRun text = runTool(sandbox.arguments({"prune", "--dry-run"}), sandbox.path());
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("would remove 2 older versions"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find((sandbox.cacheRoot() / "0.1.5").string()), std::string::npos);
}

TEST_F(PruneCommand, RemovesOlderVersionsWithTheirFirstLaunchState) {
    const ToolRun run = runTool(sandbox.arguments({"prune", "--json"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    const json report = json::parse(run.out);
    EXPECT_FALSE(report["dryRun"].get<bool>());
    EXPECT_EQ(report["removed"], 2);
    EXPECT_GE(report["bytesFreed"].get<std::uint64_t>(), 20000u);
    EXPECT_EQ(report["bytesFreed"], report["olderVersionsBytes"]);
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.5"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.0.9"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / ".first-launch" / "0.1.5"));
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / ".first-launch"));
    expectUntouched();

    const ToolRun again = runTool(sandbox.arguments({"prune"}), sandbox.path());
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "no older versions under " + sandbox.cacheRoot().string() + "\n");
}

TEST_F(PruneCommand, TextOutputCountsAndSizes) {
    const ToolRun run = runTool(sandbox.arguments({"prune"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("removed 2 older versions, freed "), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("KiB"), std::string::npos) << run.out;
}

} // namespace
} // namespace quor::tooltest
