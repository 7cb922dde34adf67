// `quor-stdlib prune` run as a process on a cache root that holds older and
// newer versions, the current one, a symbolic link named like a version and a
// folder that is not a version; its line on a terminal and its silence
// elsewhere; and a cache root that is not a directory.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Files enough in 0.1.5 for the removal to draw more than its first frame.
constexpr std::size_t manyFiles = 3000;
// Those, with the one object of 0.1.5 and the one of 0.0.9 made by SetUp.
constexpr std::size_t filesToRemove = manyFiles + 2;

void addFiles(const fs::path& version) {
    for (std::size_t index = 0; index < manyFiles; ++index)
        writeFile(version / "lib" / ("pkg" + std::to_string(index / 100)) /
                      ("Unit" + std::to_string(index) + ".qo"),
                  "object");
}

// What the terminal showed between one "\r\033[K" (go to the line's start,
// erase it) and the next: the frames of the progress line. What follows the
// last one, the final erase, is not a frame.
std::vector<std::string> frames(const std::string& screen) {
    const std::string redraw = "\r\033[K";
    std::vector<std::string> shown;
    auto at = screen.find(redraw);
    while (at != std::string::npos) {
        const auto begin = at + redraw.size();
        at = screen.find(redraw, begin);
        if (at != std::string::npos)
            shown.push_back(screen.substr(begin, at - begin));
    }
    return shown;
}

TEST_F(PruneCommand, OnATerminalTheFilesAreCountedAsTheyGo) {
    addFiles(sandbox.cacheRoot() / "0.1.5");
    const ToolRun run = runToolOnTerminal(sandbox.arguments({"prune"}), sandbox.path(), 100);
    ASSERT_EQ(run.status, 0) << run.out;
    const std::vector<std::string> shown = frames(run.out);
    const std::string all = std::to_string(filesToRemove);
    // Each version announced as its files start to go, and the last frame
    // drawn whatever the rate.
    EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](const std::string& frame) {
        return frame.find("removing 0.0.9") != std::string::npos;
    })) << run.out;
    const auto last = std::find_if(shown.begin(), shown.end(), [&](const std::string& frame) {
        return frame.find(all + "/" + all + " 100%") != std::string::npos;
    });
    ASSERT_NE(last, shown.end()) << run.out;
    EXPECT_NE(last->find("removing 0.1.5"), std::string::npos) << *last;
    EXPECT_EQ(last->find('['), 0u) << *last;
    // Then the line is erased, and the summary follows on a clean line.
    EXPECT_EQ(shown.back(), *last) << run.out;
    const std::string erase = "\r\033[K";
    EXPECT_EQ(run.out.substr(run.out.rfind(erase) + erase.size())
                  .find("removed 2 older versions, freed "),
              0u)
        << run.out;
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.5"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / ".first-launch" / "0.1.5"));
    expectUntouched();
}

TEST_F(PruneCommand, OnANarrowTerminalEveryFrameFitsItsWidth) {
    addFiles(sandbox.cacheRoot() / "0.1.5");
    const ToolRun run = runToolOnTerminal(sandbox.arguments({"prune"}), sandbox.path(), 40);
    ASSERT_EQ(run.status, 0) << run.out;
    const std::vector<std::string> shown = frames(run.out);
    ASSERT_GE(shown.size(), 3u) << run.out;
    for (const std::string& frame : shown)
        EXPECT_LE(frame.size(), 39u) << frame;
    const std::string all = std::to_string(filesToRemove);
    EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [&](const std::string& frame) {
        return frame.find(all + "/" + all + " 100%") != std::string::npos;
    })) << run.out;
}

TEST_F(PruneCommand, PipedOrAsJsonThereIsNoProgressLine) {
    addFiles(sandbox.cacheRoot() / "0.1.5");
    const ToolRun piped = runTool(sandbox.arguments({"prune"}), sandbox.path());
    ASSERT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.err, "");
    EXPECT_EQ(piped.out.find('\r'), std::string::npos) << piped.out;
    EXPECT_EQ(piped.out.find("removing"), std::string::npos) << piped.out;
    EXPECT_NE(piped.out.find("removed 2 older versions"), std::string::npos) << piped.out;

    // On a terminal, --json and --quiet keep it off as well.
    for (const char* option : {"--json", "--quiet"}) {
        writeFile(sandbox.cacheRoot() / "0.1.2" / "lib" / "Prelude.qo", "older still");
        const ToolRun run =
            runToolOnTerminal(sandbox.arguments({option, "prune"}), sandbox.path(), 100);
        ASSERT_EQ(run.status, 0) << run.out;
        EXPECT_EQ(run.out.find("\033[K"), std::string::npos) << option << ": " << run.out;
        EXPECT_EQ(run.out.find("removing"), std::string::npos) << option << ": " << run.out;
        EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.2")) << option;
    }
}

TEST_F(PruneCommand, ALinkInsideAnOldVersionIsRemovedAndNeverFollowed) {
    const fs::path outside = sandbox.path() / "elsewhere";
    fs::create_directory_symlink(outside, sandbox.cacheRoot() / "0.1.5" / "lib" / "linked");
    fs::create_symlink(outside / "keep.txt", sandbox.cacheRoot() / "0.0.9" / "keep.txt");
    const ToolRun run = runTool(sandbox.arguments({"prune"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_FALSE(fs::exists(fs::symlink_status(sandbox.cacheRoot() / "0.1.5")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(sandbox.cacheRoot() / "0.0.9")));
    EXPECT_EQ(readFile(outside / "keep.txt"), "outside the root");
    expectUntouched();
}

// Ctrl-C ends prune wherever it is; the next prune finds what is left, still
// listed as old versions, and finishes the job.
TEST_F(PruneCommand, AfterCtrlCTheNextPruneFinishesTheJob) {
    addFiles(sandbox.cacheRoot() / "0.1.5");
    {
        ToolProcess prune(sandbox.arguments({"prune"}), sandbox.path());
        // The listing is out once the size walk is done; the removal follows.
        prune.waitForOutput("0.1.5", std::chrono::seconds(30));
        ASSERT_EQ(kill(prune.pid(), SIGINT), 0);
        const ToolRun stopped = prune.finish();
        EXPECT_TRUE(stopped.status == 128 + SIGINT || stopped.status == 0) << stopped.status;
    }
    const ToolRun again = runTool(sandbox.arguments({"--json", "prune"}), sandbox.path());
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.5"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / ".first-launch" / "0.1.5"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.0.9"));
    expectUntouched();
}

constexpr uid_t nobody = testsupport::kNobody;

// Runs the tool as uid 65534, the child dropping root's privileges before the
// exec, so that what root could delete anyway is refused.
ToolRun runToolAsNobody(const std::vector<std::string>& arguments, const fs::path& home) {
    ProgramOptions options = toolOptions(arguments, home);
    options.inChild = [] {
        testsupport::becomeUser(nobody);
        return 0;
    };
    return runProgram(options);
}

// A file that the user may not delete stops the removal where it stands, and
// the bootstrap reports it in its own words: the version before it is gone
// with its first-launch state, this one keeps its first-launch state.
TEST_F(PruneCommand, AFileThatCannotBeDeletedStopsTheRemovalInTheBootstrapsWords) {
    testsupport::giveToNobody(sandbox.path());
    const fs::path locked = sandbox.cacheRoot() / "0.1.5" / "lib" / "locked";
    writeFile(locked / "object.qo", "root's");
    const ToolRun run = runToolAsNobody(sandbox.arguments({"prune"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quor-stdlib: error: Unable to remove old Quor cache '" +
                           (sandbox.cacheRoot() / "0.1.5").string() + "': Permission denied\n");
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.0.9"));
    EXPECT_TRUE(fs::exists(locked / "object.qo"));
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / ".first-launch" / "0.1.5"));
}

// A regular file given as the cache root is refused in the words `status`
// and `clean` use for it, with or without --dry-run, and left as it is.
TEST(PruneCacheRoot, ARegularFileIsRefusedAsNotADirectory) {
    Sandbox sandbox;
    const fs::path file = sandbox.path() / "cache-file";
    writeFile(file, "not a cache");
    const std::string message = "Refusing to use Quor cache root '" + file.string() + "': '" +
                                file.string() +
                                "' is not a directory; remove it or choose another cache root";
    const std::vector<std::string> root = {"--stdlib", sandbox.library().string(), "--cache-root",
                                           file.string()};
    const auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), root.begin(), root.end());
        return more;
    };
    for (const auto& arguments : {with({"prune"}), with({"prune", "--dry-run"})}) {
        const ToolRun run = runTool(arguments, sandbox.path());
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "quor-stdlib: error: " + message + "\n");
    }
    const ToolRun clean = runTool(with({"clean"}), sandbox.path());
    EXPECT_EQ(clean.status, 1);
    EXPECT_EQ(clean.err, "quor-stdlib: error: " + message + "\n");

    const ToolRun run = runTool(with({"--json", "prune"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    const json error = json::parse(run.out);
    EXPECT_EQ(error["event"], "error");
    EXPECT_EQ(error["kind"], "untrusted");
    EXPECT_EQ(error["message"], message);
    EXPECT_EQ(error["exitStatus"], 1);
    EXPECT_EQ(readFile(file), "not a cache");
}

} // namespace
} // namespace quor::tooltest
