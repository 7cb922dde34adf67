// What scripts read: every JSON document and event names its schema, every
// JSON error says what kind of failure it is, and --version answers in JSON
// when asked to.

#include "tests/tool/ToolTestSupport.h"

#include "Failure.h"
#include "quor/Config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;

TEST(JsonOutput, EveryEventAndDocumentNamesItsSchema) {
    Sandbox sandbox;
    const ToolRun ensure = runTool(sandbox.arguments({"--json", "ensure"}), sandbox.path());
    ASSERT_EQ(ensure.status, 0) << ensure.err;
    const std::vector<json> events = jsonLines(ensure.out);
    ASSERT_FALSE(events.empty());
    for (const json& event : events)
        EXPECT_EQ(event.value("schema", 0), 1) << event;
    for (const char* command : {"status", "verify", "prune"}) {
        const ToolRun run = runTool(sandbox.arguments({"--json", command}), sandbox.path());
        EXPECT_EQ(json::parse(run.out).value("schema", 0), 1) << command << ": " << run.out;
    }
}

TEST(JsonOutput, VersionAnswersInJson) {
    Sandbox sandbox;
    const ToolRun run = runTool({"--json", "--version"}, sandbox.path());
    EXPECT_EQ(run.status, 0);
    const json version = json::parse(run.out);
    EXPECT_EQ(version["version"], QUOR_COMPILER_VERSION);
    EXPECT_TRUE(version["objectAbi"].is_number_integer());
}

TEST(JsonOutput, AUsageErrorIsAnErrorOfKindUsage) {
    Sandbox sandbox;
    const ToolRun run = runTool({"--json", "ensure", "--jobs", "zero"}, sandbox.path());
    EXPECT_EQ(run.status, 2);
    const json error = json::parse(run.out);
    EXPECT_EQ(error["event"], "error");
    EXPECT_EQ(error["kind"], "usage");
    EXPECT_EQ(error["exitStatus"], 2);
}

TEST(JsonOutput, ABrokenUnitIsAnErrorOfKindCompile) {
    Sandbox sandbox;
    writeFile(sandbox.library() / "core" / "Broken.qr", "package core\n\npublic class Broken {\n");
    const ToolRun run = runTool(sandbox.arguments({"--json", "ensure"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    const json error = jsonLines(run.out).back();
    EXPECT_EQ(error["event"], "error");
    EXPECT_EQ(error["kind"], "compile") << error;
}

TEST(JsonOutput, AMissingLibraryIsAnErrorOfKindIoForEveryCommand) {
    Sandbox sandbox;
    for (const char* command : {"ensure", "verify"}) {
        const ToolRun run =
            runTool({"--stdlib", (sandbox.path() / "absent").string(), "--cache-root",
                     sandbox.cacheRoot().string(), "--json", command},
                    sandbox.path());
        EXPECT_EQ(run.status, 1) << command;
        const json error = jsonLines(run.out).back();
        EXPECT_EQ(error["event"], "error") << command;
        EXPECT_EQ(error["kind"], "io") << command << ": " << error;
    }
}

TEST(VersionSize, StatusAndPruneGiveOneSizeForAVersion) {
    Sandbox sandbox;
    writeFile(sandbox.cacheRoot() / "0.1.5" / "lib" / "core" / "Old.qo", std::string(9000, 'x'));
    writeFile(sandbox.cacheRoot() / ".first-launch" / "0.1.5" / "lib" / ".quor-stdlib-ready",
              std::string(5000, 'y'));
    const json status =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    const json prune = json::parse(
        runTool(sandbox.arguments({"--json", "prune", "--dry-run"}), sandbox.path()).out);
    ASSERT_EQ(status["olderVersions"].size(), 1u) << status;
    ASSERT_EQ(prune["olderVersions"].size(), 1u) << prune;
    EXPECT_EQ(status["olderVersions"][0]["bytes"], prune["olderVersions"][0]["bytes"]);
    // The first-launch state counts too: more than the 9000 bytes of the cache.
    EXPECT_GT(status["olderVersions"][0]["bytes"].get<std::uint64_t>(), 12000u);
}

} // namespace
} // namespace quor::tooltest
