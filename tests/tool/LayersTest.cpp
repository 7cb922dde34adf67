// quor-stdlib over two cache layers, run as uid 65534 with a fresh home over a
// system cache that root built: the layer in use is named and served without
// a write, a layer passed over is explained, adopted units are counted,
// verify checks the layer in use, and clean and prune never touch the system
// cache.

#include "tests/support/ChildChecks.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace quor::tooltest {
namespace {

using nlohmann::json;

// The names in `folder`, sorted.
std::vector<std::string> namesOf(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().native());
    std::sort(names.begin(), names.end());
    return names;
}

class ToolLayers : public ::testing::Test {
protected:
    ToolLayers() {
        ::chmod(sandbox_.path().c_str(), 0755);
        fs::create_directory(home());
        testsupport::giveToNobody(home().native());
        // Root builds the system cache with no layer under it, as the package does.
        const ToolRun built = runTool({"--stdlib", sandbox_.library().native(), "--cache-root",
                                       system().native(), "--quiet", "ensure"},
                                      sandbox_.path(), {"QUOR_SYSTEM_CACHE_DIR="});
        EXPECT_EQ(built.status, 0) << built;
        fs::remove(system() / ".first-launch" / "0.1.6" / ".stdlib-bootstrap-lib.lock");
    }

    fs::path home() const { return sandbox_.path() / "home"; }
    fs::path system() const { return sandbox_.path() / "system"; }

    // The tool as uid 65534 with the fresh home and the system cache.
    ToolRun runAsNobody(std::vector<std::string> arguments, const fs::path& library = {}) const {
        const std::string stdlib = library.empty() ? sandbox_.library().native() : library.native();
        arguments.insert(arguments.begin(), {std::string("--stdlib"), stdlib});
        ProgramOptions options =
            toolOptions(arguments, home(), {"QUOR_SYSTEM_CACHE_DIR=" + system().native()});
        options.inChild = [] {
            testsupport::becomeUser(testsupport::kNobody);
            return 0;
        };
        return runProgram(options);
    }

    Sandbox sandbox_;
};

TEST_F(ToolLayers, AFreshUserIsServedByTheSystemCacheAndStatusNamesIt) {
    const ToolRun ensure = runAsNobody({"--json", "ensure"});
    ASSERT_EQ(ensure.status, 0) << ensure;
    const json result = jsonLines(ensure.out).back();
    EXPECT_EQ(result["layer"], "system");
    EXPECT_EQ(result["compiled"], 0);
    EXPECT_FALSE(result["bootstrapped"]);
    EXPECT_TRUE(fs::is_empty(home()));

    const ToolRun status = runAsNobody({"--json", "status"});
    ASSERT_EQ(status.status, 0) << status;
    const json report = json::parse(status.out);
    EXPECT_EQ(report["layer"]["name"], "system");
    EXPECT_EQ(report["layer"]["cacheRoot"], system().native());
    EXPECT_EQ(report["access"], "read-only");
    EXPECT_TRUE(report["ready"]);
    EXPECT_EQ(runAsNobody({"status", "--check"}).status, 0);
    const ToolRun text = runAsNobody({"status"});
    EXPECT_NE(text.out.find("system: the installation's cache"), std::string::npos) << text;
    EXPECT_TRUE(fs::is_empty(home()));
}

TEST_F(ToolLayers, StatusSaysWhyTheSystemCacheWasPassedOver) {
    ::chmod((system() / "0.1.6").c_str(), 0775);
    const ToolRun status = runAsNobody({"--json", "status"});
    ASSERT_EQ(status.status, 0) << status;
    const json layer = json::parse(status.out)["layer"];
    EXPECT_EQ(layer["name"], "user");
    ASSERT_EQ(layer["passedOver"].size(), 2u) << layer;
    EXPECT_EQ(layer["passedOver"][1]["name"], "system");
    EXPECT_EQ(layer["passedOver"][1]["problem"], "untrusted");
    EXPECT_NE(layer["passedOver"][1]["reason"].get<std::string>().find("writable by other users"),
              std::string::npos);
    EXPECT_TRUE(layer["adoptFrom"].is_null());
    const ToolRun text = runAsNobody({"status"});
    EXPECT_NE(text.out.find("passed over the system cache: Refusing to use Quor cache root"),
              std::string::npos)
        << text;
}

TEST_F(ToolLayers, AnEditedLibraryAdoptsWhatTheSystemCacheHasSound) {
    const fs::path mine = sandbox_.path() / "mine";
    fs::copy(sandbox_.library(), mine,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    writeFile(mine / "core" / "Text.qr",
              readFile(mine / "core" / "Text.qr") + "\npublic fn added() -> Int { return 7 }\n");
    const ToolRun written = runTool({"--quiet", "fingerprint", "--write", mine.native()}, home());
    ASSERT_EQ(written.status, 0) << written;
    ::chmod(mine.c_str(), 0755);

    const json before = json::parse(runAsNobody({"--json", "status"}, mine).out);
    EXPECT_EQ(before["layer"]["passedOver"][1]["problem"], "not-ready");
    EXPECT_EQ(before["nextBuild"]["compile"], 1);
    EXPECT_EQ(before["nextBuild"]["adopt"], Sandbox::compilableUnits - 1);

    const ToolRun text = runAsNobody({"ensure"}, mine);
    ASSERT_EQ(text.status, 0) << text;
    EXPECT_NE(text.out.find("(compiled 1, reused 0, adopted 3 from the system cache)"),
              std::string::npos)
        << text;
    fs::remove_all(home() / ".cache");
    const ToolRun ensure = runAsNobody({"--json", "ensure"}, mine);
    ASSERT_EQ(ensure.status, 0) << ensure;
    const json result = jsonLines(ensure.out).back();
    EXPECT_EQ(result["layer"], "user");
    EXPECT_EQ(result["compiled"], 1);
    EXPECT_EQ(result["adopted"], Sandbox::compilableUnits - 1);
}

TEST_F(ToolLayers, VerifyChecksTheLayerInUse) {
    const ToolRun verify = runAsNobody({"--json", "verify"});
    ASSERT_EQ(verify.status, 0) << verify;
    const json report = json::parse(verify.out);
    EXPECT_EQ(report["layer"], "system");
    EXPECT_TRUE(report["sound"]);
    EXPECT_EQ(report["units"], Sandbox::compilableUnits);
}

TEST_F(ToolLayers, EnsureForceBuildsTheUsersOwnCacheFromTheSystemCache) {
    const auto systemBefore = testsupport::wholeTree(system());
    const ToolRun ensure = runAsNobody({"--json", "ensure", "--force"});
    ASSERT_EQ(ensure.status, 0) << ensure;
    const json result = jsonLines(ensure.out).back();
    EXPECT_EQ(result["layer"], "user");
    EXPECT_EQ(result["compiled"], 0);
    EXPECT_EQ(result["adopted"], Sandbox::compilableUnits);
    EXPECT_EQ(testsupport::wholeTree(system()), systemBefore);
    EXPECT_EQ(json::parse(runAsNobody({"--json", "status"}).out)["layer"]["name"], "user");
}

TEST_F(ToolLayers, CleanAndPruneRefuseTheSystemCacheForAUser) {
    fs::create_directories(system() / "0.1.5" / "lib");
    const auto systemBefore = testsupport::wholeTree(system());
    for (const char* command : {"clean", "prune"}) {
        const ToolRun refused = runAsNobody({"--cache-root", system().native(), command});
        EXPECT_EQ(refused.status, 1) << refused;
        EXPECT_NE(refused.err.find("is the system cache, which only root changes; 'quor-stdlib " +
                                   std::string(command) + "' works on your own cache"),
                  std::string::npos)
            << refused;
        const ToolRun json = runAsNobody({"--cache-root", system().native(), "--json", command});
        EXPECT_NE(json.out.find("\"kind\":\"untrusted\""), std::string::npos) << json;
        // Without --cache-root they work on the user's own cache.
        const ToolRun own = runAsNobody({command});
        EXPECT_EQ(own.status, 0) << own;
    }
    EXPECT_EQ(testsupport::wholeTree(system()), systemBefore);
}

TEST_F(ToolLayers, PackWritesTheSystemCacheInUse) {
    // The fresh user's own cache is not ready: the pack is of the system cache.
    const fs::path output = home() / "library.qpack";
    const ToolRun run = runAsNobody({"--json", "pack", "--output", output.native()});
    ASSERT_EQ(run.status, 0) << run;
    const json report = json::parse(run.out);
    EXPECT_EQ(report["layer"], "system");
    EXPECT_EQ(report["units"], Sandbox::compilableUnits);
    EXPECT_EQ(fs::path(std::string(report["libraryCache"])), system() / "0.1.6" / "lib");
    // The same bytes root packs from the system cache directly.
    const fs::path direct = sandbox_.path() / "direct.qpack";
    const ToolRun root = runTool({"--stdlib", sandbox_.library().native(), "--cache-root",
                                  system().native(), "pack", "-o", direct.native()},
                                 sandbox_.path(), {"QUOR_SYSTEM_CACHE_DIR="});
    ASSERT_EQ(root.status, 0) << root;
    EXPECT_EQ(testsupport::readFile(output), testsupport::readFile(direct));
}

TEST_F(ToolLayers, PackLeavesNoFileBehindInAFolderItMayNotWrite) {
    // The sandbox is root's and closed to others' writes; a pack already there
    // stays as it was.
    const fs::path output = sandbox_.path() / "library.qpack";
    testsupport::writeFile(output, "an older pack\n");
    const auto before = namesOf(sandbox_.path());
    const ToolRun run = runAsNobody({"pack", "--output", output.native()});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("Unable to write Quor library pack '" + output.native() +
                           "': Permission denied"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(namesOf(sandbox_.path()), before);
    EXPECT_EQ(testsupport::readFile(output), "an older pack\n");
}

} // namespace
} // namespace quor::tooltest
