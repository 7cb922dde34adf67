// `quor-stdlib status` run as a process: its JSON for a fresh, a ready and a
// stale cache, the fingerprint's source, the unit count, older versions, and
// the exit status of --check.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quor::tooltest {
namespace {

using nlohmann::json;

void ensureBuilt(const Sandbox& sandbox) {
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--quiet"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(fs::exists(sandbox.marker()));
}

TEST(StatusCommand, FreshCacheIsNotReadyForLackOfAMarker) {
    Sandbox sandbox;
    const json status = statusOf(sandbox);
    EXPECT_EQ(status["version"], QUOR_COMPILER_VERSION);
    EXPECT_TRUE(status["abi"].is_number_integer());
    EXPECT_FALSE(status["ready"].get<bool>());
    EXPECT_TRUE(status["buildRequired"].get<bool>());
    EXPECT_TRUE(status["libraryFound"].get<bool>());
    EXPECT_EQ(status["reason"]["kind"], "missing");
    EXPECT_EQ(status["units"], Sandbox::compilableUnits);
    EXPECT_EQ(status["paths"]["library"], sandbox.library().string());
    EXPECT_EQ(status["paths"]["cacheRoot"], sandbox.cacheRoot().string());
    EXPECT_EQ(status["paths"]["stateDirectory"], sandbox.stateDirectory().string());
    EXPECT_EQ(status["paths"]["marker"], sandbox.marker().string());
    EXPECT_EQ(status["paths"]["lockFile"], sandbox.lockFile().string());
    EXPECT_TRUE(status["olderVersions"].empty());
    // status only looks: nothing is created below the cache root.
    EXPECT_TRUE(fs::is_empty(sandbox.cacheRoot()));
}

TEST(StatusCommand, ReadyAfterEnsure) {
    Sandbox sandbox;
    ensureBuilt(sandbox);
    const json status = statusOf(sandbox);
    EXPECT_TRUE(status["ready"].get<bool>());
    EXPECT_FALSE(status["buildRequired"].get<bool>());
    EXPECT_TRUE(status["reason"].is_null());
}

TEST(StatusCommand, InstalledFingerprintIsTrimmedAndLowerCased) {
    Sandbox sandbox;
    const std::string digits(32, 'A');
    const std::string lower(32, 'a');
    writeFile(sandbox.library() / ".quor-stdlib-fingerprint",
              "  " + digits + "0123456789ABCDEF0123456789abcdef\r\nignored\n");
    const json status = statusOf(sandbox);
    EXPECT_EQ(status["fingerprint"], lower + "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(status["fingerprintSource"], "installed");
    EXPECT_EQ(status["fingerprintFile"], (sandbox.library() / ".quor-stdlib-fingerprint").string());
}

TEST(StatusCommand, MalformedInstalledFingerprintIsPassedOver) {
    Sandbox sandbox;
    writeFile(sandbox.library() / ".quor-stdlib-fingerprint", std::string(63, 'a') + "\n");
    const json status = statusOf(sandbox);
    EXPECT_NE(status["fingerprintSource"], "installed");
    const std::string fingerprint = status["fingerprint"];
    if (status["fingerprintSource"] == "fallback")
        EXPECT_EQ(fingerprint, "version-" QUOR_COMPILER_VERSION "-abi-" +
                                   std::to_string(status["abi"].get<int>()));
    else
        EXPECT_EQ(fingerprint.size(), 64u);
}

struct StaleCase {
    const char* field;
    std::size_t line;
    std::string replacement;
};

class StaleMarker : public testing::TestWithParam<StaleCase> {};

TEST_P(StaleMarker, NamesTheFieldWithExpectedAndFoundValues) {
    const StaleCase& stale = GetParam();
    Sandbox sandbox;
    ensureBuilt(sandbox);
    editMarkerLine(sandbox.marker(), stale.line, stale.replacement);

    const json status = statusOf(sandbox);
    EXPECT_FALSE(status["ready"].get<bool>());
    EXPECT_TRUE(status["buildRequired"].get<bool>());
    ASSERT_EQ(status["reason"]["kind"], "mismatch");
    const json& differences = status["reason"]["differences"];
    ASSERT_EQ(differences.size(), 1u) << differences.dump();
    EXPECT_EQ(differences[0]["field"], stale.field);
    const std::string expected = stale.field == std::string("version") ? QUOR_COMPILER_VERSION
                                 : stale.field == std::string("abi")
                                     ? std::to_string(status["abi"].get<int>())
                                     : status["fingerprint"].get<std::string>();
    EXPECT_EQ(differences[0]["expected"], expected);
    const std::string prefix = std::string(stale.field) + "=";
    EXPECT_EQ(differences[0]["found"], stale.replacement.substr(prefix.size()));

    const ToolRun text = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(text.out.find("not ready"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find(std::string(stale.field) + ": expected \"" + expected + "\""),
              std::string::npos)
        << text.out;
}

INSTANTIATE_TEST_SUITE_P(
    EachIdentityField, StaleMarker,
    testing::Values(StaleCase{"version", 2, "version=0.1.5"}, StaleCase{"abi", 3, "abi=-7"},
                    StaleCase{"fingerprint", 4, "fingerprint=" + std::string(64, 'e')}),
    [](const testing::TestParamInfo<StaleCase>& info) { return std::string(info.param.field); });

TEST(StatusCommand, TruncatedMarkerIsReportedAsMalformed) {
    Sandbox sandbox;
    ensureBuilt(sandbox);
    writeFile(sandbox.marker(), "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\n");
    const json status = statusOf(sandbox);
    EXPECT_FALSE(status["ready"].get<bool>());
    EXPECT_EQ(status["reason"]["kind"], "malformed");
}

TEST(StatusCommand, MarkerThatIsADirectoryIsUnreadable) {
    Sandbox sandbox;
    fs::create_directories(sandbox.marker());
    const json status = statusOf(sandbox);
    EXPECT_EQ(status["reason"]["kind"], "unreadable");
}

TEST(StatusCommand, CheckExitStatusFollowsReadiness) {
    Sandbox sandbox;
    EXPECT_EQ(runTool(sandbox.arguments({"status", "--check", "--quiet"}), sandbox.path()).status,
              1);
    ensureBuilt(sandbox);
    const ToolRun ready =
        runTool(sandbox.arguments({"status", "--check", "--quiet"}), sandbox.path());
    EXPECT_EQ(ready.status, 0);
    EXPECT_TRUE(ready.out.empty()) << ready.out;
}

TEST(StatusCommand, ListsOlderVersionsWithTheirSize) {
    Sandbox sandbox;
    writeFile(sandbox.cacheRoot() / "0.1.5" / "lib" / "core" / "Object.qo",
              std::string(10000, 'x'));
    fs::create_directories(sandbox.cacheRoot() / "0.0.9");
    fs::create_directories(sandbox.cacheRoot() / "9.0.0");
    fs::create_directories(sandbox.cacheRoot() / "scratch");
    const json status = statusOf(sandbox);
    const json& older = status["olderVersions"];
    ASSERT_EQ(older.size(), 2u) << older.dump();
    EXPECT_EQ(older[0]["version"], "0.0.9");
    EXPECT_EQ(older[1]["version"], "0.1.5");
    EXPECT_EQ(older[1]["path"], (sandbox.cacheRoot() / "0.1.5").string());
    EXPECT_GE(older[1]["bytes"].get<std::uint64_t>(), 10000u);
}

// The state row and the line under it, as `status` prints them for people.
std::string stateRows(const Sandbox& sandbox) {
    const ToolRun run = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    const std::size_t state = run.out.find("  state   ");
    if (state == std::string::npos)
        return run.out;
    const std::size_t second = run.out.find('\n', state) + 1;
    return run.out.substr(state, run.out.find('\n', second) + 1 - state);
}

const std::string continuation(22, ' ');

TEST(StatusCommand, ACacheRootThatIsAFileIsNamedAsSuch) {
    Sandbox sandbox;
    fs::remove_all(sandbox.cacheRoot());
    writeFile(sandbox.cacheRoot(), "not a directory");
    EXPECT_EQ(stateRows(sandbox),
              "  state             not ready: the cache root is a regular file, not a directory\n" +
                  continuation +
                  "ensure will fail there: remove it, or choose another cache root\n");
    const json status = statusOf(sandbox);
    EXPECT_EQ(status["reason"]["message"], "the cache root is a regular file, not a directory");
    EXPECT_EQ(status["ensureError"], "the cache root is a regular file, not a directory");
    EXPECT_FALSE(status["ready"].get<bool>());
}

TEST(StatusCommand, AFileOnTheWayToTheCacheRootIsNamed) {
    Sandbox sandbox;
    const fs::path file = sandbox.path() / "file";
    writeFile(file, "");
    const ToolRun run = runTool({"--stdlib", sandbox.library().string(), "--cache-root",
                                 (file / "cache").string(), "status", "--json"},
                                sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    const json status = json::parse(run.out);
    EXPECT_EQ(status["reason"]["message"],
              "'" + file.string() +
                  "' on the way to the cache root is a regular file, not a directory");
    EXPECT_EQ(status["ensureError"], status["reason"]["message"]);
}

TEST(StatusCommand, ALibraryWithNothingToCompileSaysEnsureWillFail) {
    Sandbox sandbox;
    fs::remove_all(sandbox.library());
    writeFile(sandbox.library() / "collections" / "List.qr",
              "package collections\n\npublic class List<T> {\n}\n");
    EXPECT_EQ(stateRows(sandbox),
              "  state             not ready: no readiness marker; the library has not been built "
              "for this compiler yet\n" +
                  continuation +
                  "ensure will fail: the library has no unit to compile (nothing but generic "
                  "types, or no unit at all)\n");
    const json status = statusOf(sandbox);
    EXPECT_EQ(status["units"], 0);
    EXPECT_TRUE(status["nextBuild"].is_null()) << status.dump();
    EXPECT_EQ(status["ensureError"], "the library has no unit to compile (nothing but generic "
                                     "types, or no unit at all)");
    // What status foretold, and nothing before it: no build was announced.
    const ToolRun ensure = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(ensure.status, 1);
    EXPECT_EQ(ensure.err, "quor-stdlib: error: Quor standard library contains no compilable "
                          "source units: " +
                              sandbox.library().string() + "\n");
}

TEST(StatusCommand, AReadyOrBuildableCacheForetellsNoFailure) {
    Sandbox sandbox;
    EXPECT_TRUE(statusOf(sandbox)["ensureError"].is_null());
    ensureBuilt(sandbox);
    EXPECT_TRUE(statusOf(sandbox)["ensureError"].is_null());
}

TEST(StatusCommand, MissingLibraryIsNotFoundAndHasNoUnitCount) {
    Sandbox sandbox;
    fs::remove_all(sandbox.library());
    const json status = statusOf(sandbox);
    EXPECT_FALSE(status["libraryFound"].get<bool>());
    EXPECT_FALSE(status["buildRequired"].get<bool>());
    EXPECT_TRUE(status["units"].is_null());
    EXPECT_TRUE(status["unitsError"].is_string());
    EXPECT_EQ(status["ensureError"], "the standard library was not found");
}

} // namespace
} // namespace quor::tooltest
