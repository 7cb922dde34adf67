// The command library called directly, without a process: the command table
// and its typo suggestions, the lock-table parser, the fingerprint rules the
// tool shares with the bootstrap, the marker diagnosis, and a handler writing
// to string streams.

#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "LockHolder.h"
#include "Progress.h"
#include "ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace quor::tooltest {
namespace {

using namespace quor::stdlibtool;

TEST(CommandTable, EveryCommandIsFoundByItsName) {
    ASSERT_FALSE(commands().empty());
    for (const Command& command : commands()) {
        EXPECT_EQ(findCommand(command.name), &command);
        EXPECT_FALSE(command.summary.empty());
        EXPECT_NE(command.handler, nullptr);
    }
    EXPECT_EQ(findCommand("nonsense"), nullptr);
}

TEST(CommandTable, ClosestCommandCatchesTyposAndPrefixes) {
    EXPECT_EQ(closestCommand("stauts")->name, "status");
    EXPECT_EQ(closestCommand("ensrue")->name, "ensure");
    EXPECT_EQ(closestCommand("purne")->name, "prune");
    EXPECT_EQ(closestCommand("pr")->name, "prune");
    EXPECT_EQ(closestCommand("hlep")->name, "help");
    EXPECT_EQ(closestCommand("compile-everything"), nullptr);
    EXPECT_EQ(closestCommand(""), nullptr);
}

TEST(LockTable, FindsTheGrantedHolderAndSkipsWaitersAndSelf) {
    Sandbox sandbox;
    const fs::path file = sandbox.path() / "some.lock";
    writeFile(file, "");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    char device[64];
    std::snprintf(device, sizeof device, "%02x:%02x:%llu", major(info.st_dev), minor(info.st_dev),
                  static_cast<unsigned long long>(info.st_ino));
    const pid_t self = getpid();
    const std::string table = "1: POSIX  ADVISORY  WRITE 77 00:11:99 0 EOF\n"
                              "2: FLOCK  ADVISORY  WRITE " +
                              std::to_string(self) + " " + device +
                              " 0 EOF\n"
                              "2: -> FLOCK  ADVISORY  WRITE 4242 " +
                              device +
                              " 0 EOF\n"
                              "3: FLOCK  ADVISORY  WRITE 4343 " +
                              device + " 0 EOF\n";
    const auto holder = findLockHolder(file, self, table);
    ASSERT_TRUE(holder.has_value());
    EXPECT_EQ(holder->pid, 4343);
    EXPECT_FALSE(findLockHolder(
        file, 4343, "3: FLOCK  ADVISORY  WRITE 4343 " + std::string(device) + " 0 EOF\n"));
    EXPECT_FALSE(findLockHolder(sandbox.path() / "absent.lock", self, table));
}

TEST(LockTable, NamesARealHolderThroughTheKernel) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    const auto found = findLockHolder(sandbox.lockFile(), getpid());
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->pid, holder.pid());
    EXPECT_NE(found->command.find("quor_tool_tests"), std::string::npos) << found->command;
    EXPECT_EQ(describe(*found).rfind("process " + std::to_string(holder.pid()) + " (", 0), 0u);
    holder.release();
    EXPECT_FALSE(findLockHolder(sandbox.lockFile(), getpid()).has_value());
}

TEST(Fingerprint, FollowsTheBootstrapsReadingRules) {
    Sandbox sandbox;
    const fs::path file = sandbox.path() / "fingerprint";
    const std::string hex64 = "0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789ABCDEF";
    std::string lower = hex64;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto read = [&](const std::string& text) {
        writeFile(file, text);
        return readFingerprintFile(file);
    };
    EXPECT_EQ(read("  " + hex64 + "\r\n"), lower);
    EXPECT_EQ(read("\t" + hex64), lower);
    EXPECT_EQ(read("\n" + hex64 + "\n"), "");
    EXPECT_EQ(read(hex64.substr(1)), "");
    EXPECT_EQ(read(hex64 + "a"), "");
    EXPECT_EQ(read(hex64.substr(1) + "g"), "");
    EXPECT_EQ(read(hex64 + "\v"), "");
    EXPECT_EQ(read("\xEF\xBB\xBF" + hex64), "");
    EXPECT_EQ(read(""), "");
    EXPECT_EQ(readFingerprintFile(sandbox.path() / "absent"), "");
    EXPECT_EQ(readFingerprintFile(sandbox.path()), "");
}

TEST(MarkerDiagnosis, ReportsEveryDifferingFieldAfterTrimmingValues) {
    Sandbox sandbox;
    const fs::path marker = sandbox.path() / ".quor-stdlib-ready";
    Identity identity;
    identity.version = "0.1.6";
    identity.abiVersion = -3;
    identity.fingerprint = "abc";
    EXPECT_EQ(diagnoseMarker(marker, identity).verdict, MarkerVerdict::Missing);

    writeFile(marker, "QUOR_STANDARD_LIBRARY_CACHE\nformat= 1\nversion=0.1.6\nabi=-3\n"
                      "fingerprint=abc");
    EXPECT_EQ(diagnoseMarker(marker, identity).verdict, MarkerVerdict::Valid);

    writeFile(marker, "QUOR_STANDARD_LIBRARY_CACHE\nformat=01\nversion=0.1.5\nabi=-3\n"
                      "fingerprint=abd\n");
    const auto mismatch = diagnoseMarker(marker, identity);
    EXPECT_EQ(mismatch.verdict, MarkerVerdict::Mismatch);
    ASSERT_EQ(mismatch.differences.size(), 3u);
    EXPECT_EQ(mismatch.differences[0].name, "format");
    EXPECT_EQ(mismatch.differences[0].found, "01");
    EXPECT_EQ(mismatch.differences[1].name, "version");
    EXPECT_EQ(mismatch.differences[1].expected, "0.1.6");
    EXPECT_EQ(mismatch.differences[1].found, "0.1.5");
    EXPECT_EQ(mismatch.differences[2].name, "fingerprint");

    writeFile(marker, "QUOR_STANDARD_LIBRARY_CACHE\r\nformat=1\nversion=0.1.6\nabi=-3\n"
                      "fingerprint=abc\n");
    EXPECT_EQ(diagnoseMarker(marker, identity).verdict, MarkerVerdict::Malformed);
    writeFile(marker, "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=-3\n");
    EXPECT_EQ(diagnoseMarker(marker, identity).verdict, MarkerVerdict::Malformed);
}

TEST(UnitSelection, MatchesTheSandboxLibrary) {
    Sandbox sandbox;
    const auto units = compilableUnits(sandbox.library());
    const std::vector<std::string> expected = {
        (sandbox.library() / "Prelude.qr").string(),
        (sandbox.library() / "collections" / "Stack.qr").string(),
        (sandbox.library() / "core" / "Object.qr").string(),
        (sandbox.library() / "core" / "Text.qr").string(),
    };
    EXPECT_EQ(units, expected);
    EXPECT_THROW(compilableUnits(sandbox.path() / "absent"), std::runtime_error);
}

TEST(ProgressLine, HasBarCountsPercentTimesAndLabelWithinTheWidth) {
    const std::string line = ProgressView::renderLine(10, 40, "collections.immutable", 2.0, 200);
    EXPECT_EQ(line.rfind("[#####...............] 10/40  25%", 0), 0u) << line;
    EXPECT_NE(line.find("2.0s elapsed"), std::string::npos) << line;
    EXPECT_NE(line.find("~6.0s left"), std::string::npos) << line;
    EXPECT_NE(line.find("collections.immutable"), std::string::npos) << line;
    EXPECT_LE(ProgressView::renderLine(10, 40, "collections.immutable", 2.0, 30).size(), 29u);
}

TEST(ProgressLine, ANarrowTerminalShrinksTheBarThenDropsFieldsButKeepsTheCounts) {
    const std::string label = "collections.immutable";
    // 40 columns: the bar is shorter, the package goes first.
    const std::string forty = ProgressView::renderLine(8753, 45600, label, 4.0, 40);
    EXPECT_LE(forty.size(), 39u) << forty;
    EXPECT_NE(forty.find("8753/45600  19%"), std::string::npos) << forty;
    EXPECT_EQ(forty.find(label), std::string::npos) << forty;
    EXPECT_EQ(forty.rfind("[", 0), 0u) << forty;
    // 20 columns: only the counts are left.
    EXPECT_EQ(ProgressView::renderLine(8753, 45600, label, 4.0, 20), "8753/45600  19%");
    // 120 columns: everything, with the full bar.
    const std::string wide = ProgressView::renderLine(8753, 45600, label, 4.0, 120);
    EXPECT_EQ(wide.rfind("[###.................] 8753/45600  19%", 0), 0u) << wide;
    EXPECT_NE(wide.find(label), std::string::npos) << wide;
}

TEST(ProgressLine, TheScanShowsHowManyUnitsWereRead) {
    ProgressView::Line line;
    line.label = "scanning the library: 812 units read";
    line.elapsedSeconds = 1.5;
    EXPECT_EQ(ProgressView::renderLine(line, 100), "scanning the library: 812 units read  1.5s");
    EXPECT_EQ(ProgressView::renderLine(line, 30), "scanning the library: 812 uni");
}

TEST(Handlers, StatusWritesJsonToTheGivenStreams) {
    Sandbox sandbox;
    Invocation invocation;
    invocation.global.standardLibraryPath = sandbox.library().string();
    invocation.global.cacheRoot = sandbox.cacheRoot().string();
    invocation.global.json = true;
    std::ostringstream out, err;
    Console console(out, err);
    EXPECT_EQ(runStatus(invocation, console), ExitSuccess);
    const auto status = nlohmann::json::parse(out.str());
    EXPECT_EQ(status["units"], Sandbox::compilableUnits);
    EXPECT_EQ(err.str(), "");

    // --check answers from the marker alone: the library is not walked.
    invocation.status.check = true;
    std::ostringstream checkOut, checkErr;
    Console checkConsole(checkOut, checkErr);
    EXPECT_EQ(runStatus(invocation, checkConsole), ExitFailure);
    const auto checked = nlohmann::json::parse(checkOut.str());
    EXPECT_EQ(checked["ready"], false);
    EXPECT_TRUE(checked["units"].is_null());
    EXPECT_TRUE(checked["olderVersions"].is_null());

    std::ostringstream ensureOut, ensureErr;
    Console ensureConsole(ensureOut, ensureErr);
    invocation.global.json = false;
    EXPECT_EQ(runEnsure(invocation, ensureConsole), ExitSuccess) << ensureErr.str();
    EXPECT_TRUE(ensureOut.str().starts_with("built 4 units in ")) << ensureOut.str();
    std::ostringstream again, againErr;
    Console againConsole(again, againErr);
    invocation.global.quiet = true;
    EXPECT_EQ(runStatus(invocation, againConsole), ExitSuccess);
    EXPECT_EQ(again.str(), "");
}

TEST(Formats, BytesAndDurations) {
    EXPECT_EQ(formatBytes(512), "512 B");
    EXPECT_EQ(formatBytes(2048), "2.0 KiB");
    EXPECT_EQ(formatBytes(3u * 1024 * 1024 + 512 * 1024), "3.5 MiB");
    EXPECT_EQ(formatDuration(0.5), "0.50 s");
    EXPECT_EQ(formatDuration(12.34), "12.3 s");
    EXPECT_EQ(formatDuration(125), "2 min 05 s");
    EXPECT_EQ(formatClock(7.44), "7.4s");
    EXPECT_EQ(formatClock(754), "12:34");
}

} // namespace
} // namespace quor::tooltest
