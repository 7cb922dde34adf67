// `quor-stdlib pack`: the built tool as a process on a small library. A pack is
// written only of a ready cache whose objects are all sound, holds exactly the
// cache's objects, is the same bytes wherever and whenever the library was
// built, and appears whole or not at all.

#include "compiler/CacheLayout.h"
#include "compiler/LibraryPack.h"
#include "quor/Config.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <utime.h>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;
namespace pack = compiler::pack;

fs::path libraryCache(const Sandbox& sandbox) {
    return sandbox.cacheRoot() / QUOR_COMPILER_VERSION / "lib";
}

// The names in `folder`, sorted.
std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().native());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(PackCommand, WritesEveryObjectOfAReadyCacheAndReadsBack) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path output = sandbox.path() / "library.qpack";

    const ToolRun run =
        runTool(sandbox.arguments({"pack", "--output", output.native()}), sandbox.path());

    ASSERT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, "packed 4 units (" + std::to_string(fs::file_size(output)) + " bytes) of " +
                           libraryCache(sandbox).native() + " into " + output.native() + "\n");
    pack::Pack decoded;
    ASSERT_EQ(pack::decode(readFile(output), decoded), "");
    ASSERT_EQ(decoded.units.size(), Sandbox::compilableUnits);
    EXPECT_EQ(decoded.identity.version, QUOR_COMPILER_VERSION);
    for (std::size_t i = 0; i < decoded.units.size(); ++i)
        EXPECT_EQ(decoded.objects[i], readFile(compiler::layout::objectPath(libraryCache(sandbox),
                                                                            decoded.units[i].path)))
            << decoded.units[i].path;
    struct stat status {};
    ASSERT_EQ(::stat(output.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST(PackCommand, ByDefaultWritesFingerprintDotQpackInTheCurrentFolder) {
    Sandbox sandbox;
    writeFile(sandbox.library() / ".quor-stdlib-fingerprint", std::string(64, 'c') + "\n");
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path here = sandbox.path() / "here";
    fs::create_directory(here);
    ProgramOptions options = toolOptions(sandbox.arguments({"--quiet", "pack"}), sandbox.path());
    options.workingDirectory = here;

    const auto run = runProgram(options);

    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(namesIn(here), std::vector<std::string>{std::string(64, 'c') + ".qpack"});
}

TEST(PackCommand, TheSameLibraryBuiltElsewhereAndAtAnotherTimeGivesTheSameBytes) {
    Sandbox first;
    Sandbox second;
    // Other modification times on the second library's units, and other
    // worker counts, than on the first.
    for (const auto& entry : fs::recursive_directory_iterator(second.library()))
        if (entry.is_regular_file()) {
            const struct utimbuf times { 1000000000, 1000000000 };
            ASSERT_EQ(::utime(entry.path().c_str(), &times), 0);
        }
    ASSERT_EQ(runTool(first.arguments({"--quiet", "ensure", "--jobs", "1"}), first.path()).status,
              0);
    ASSERT_EQ(runTool(second.arguments({"--quiet", "ensure", "--jobs", "3"}), second.path()).status,
              0);
    const fs::path a = first.path() / "a.qpack";
    const fs::path b = second.path() / "b.qpack";
    ASSERT_EQ(runTool(first.arguments({"pack", "-o", a.native()}), first.path()).status, 0);
    ASSERT_EQ(runTool(second.arguments({"pack", "-o", b.native()}), second.path()).status, 0);

    EXPECT_NE(first.path(), second.path());
    EXPECT_EQ(readFile(a), readFile(b));
}

TEST(PackCommand, RefusesACacheThatIsNotReadyAndSaysToRunEnsure) {
    Sandbox sandbox;
    const fs::path output = sandbox.path() / "library.qpack";

    const ToolRun run = runTool(sandbox.arguments({"pack", "-o", output.native()}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("is not ready: no valid readiness marker vouches for it; run "
                           "'quor-stdlib ensure' first"),
              std::string::npos)
        << run.err;
    EXPECT_FALSE(fs::exists(output));
}

TEST(PackCommand, RefusesACacheWithADamagedObjectAndSaysToRunEnsureForce) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path text = libraryCache(sandbox) / "core" / "Text.qo";
    fs::resize_file(text, fs::file_size(text) - 5);
    const fs::path output = sandbox.path() / "library.qpack";

    const ToolRun run = runTool(sandbox.arguments({"pack", "-o", output.native()}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(
        run.err.find("holds 1 objects that are not sound (first: '" + text.native() + "': damaged"),
        std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("run 'quor-stdlib ensure --force' first"), std::string::npos);
    EXPECT_FALSE(fs::exists(output));
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure", "--force"}), sandbox.path()).status,
              0);
    EXPECT_EQ(runTool(sandbox.arguments({"pack", "-o", output.native()}), sandbox.path()).status,
              0);
}

TEST(PackCommand, JsonIsOneObjectAndAFailureAnErrorOfKindNotReady) {
    Sandbox sandbox;
    const fs::path output = sandbox.path() / "library.qpack";
    const ToolRun refused =
        runTool(sandbox.arguments({"--json", "pack", "-o", output.native()}), sandbox.path());
    EXPECT_EQ(refused.status, 1);
    const json error = json::parse(refused.out);
    EXPECT_EQ(error["event"], "error");
    EXPECT_EQ(error["kind"], "not-ready");
    EXPECT_EQ(error["exitStatus"], 1);

    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const ToolRun run =
        runTool(sandbox.arguments({"--json", "pack", "-o", output.native()}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run;
    const json report = json::parse(run.out);
    EXPECT_EQ(report["schema"], 1);
    EXPECT_EQ(report["layer"], "user");
    EXPECT_EQ(report["path"], output.native());
    EXPECT_EQ(report["units"], Sandbox::compilableUnits);
    EXPECT_EQ(report["bytes"], fs::file_size(output));
    pack::Pack decoded;
    ASSERT_EQ(pack::decode(readFile(output), decoded), "");
    EXPECT_EQ(report["version"], decoded.identity.version);
    EXPECT_EQ(report["abi"], decoded.identity.abi);
    EXPECT_EQ(report["fingerprint"], decoded.identity.fingerprint);
}

TEST(PackCommand, LeavesNothingBehindWhenTheOutputCannotBeWritten) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    const fs::path output = sandbox.path() / "missing" / "library.qpack";

    const ToolRun run =
        runTool(sandbox.arguments({"--json", "pack", "-o", output.native()}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    const json error = json::parse(run.out);
    EXPECT_EQ(error["kind"], "io");
    EXPECT_EQ(error["message"], "Unable to write Quor library pack '" + output.native() +
                                    "': No such file or directory");
}

TEST(PackCommand, LeavesNoTemporaryBehindWhenTheRenameFails) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    // A folder where the pack should go: the temporary is written beside it,
    // and the rename over the folder fails.
    const fs::path output = sandbox.path() / "out" / "library.qpack";
    fs::create_directories(output / "inside");
    const auto before = namesIn(output.parent_path());

    const ToolRun run = runTool(sandbox.arguments({"pack", "-o", output.native()}), sandbox.path());

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("Unable to write Quor library pack '" + output.native() + "': "),
              std::string::npos)
        << run.err;
    EXPECT_EQ(namesIn(output.parent_path()), before);
    EXPECT_EQ(namesIn(output), std::vector<std::string>{"inside"});
}

} // namespace
} // namespace quor::tooltest
