// quor-stdlib when its own process is in a bad way: started with its standard
// streams closed, unable to start a thread, stopped by SIGTERM or SIGHUP,
// writing to a reader that went away, shown values that would steer a
// terminal, or handed a QUOR_JOBS it cannot use.

#include "Commands.h"
#include "Console.h"
#include "ToolTestSupport.h"
#include "quor/Config.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include <csignal>
#include <functional>
#include <pthread.h>
#include <sstream>

namespace quor::tooltest {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr uid_t nobody = testsupport::kNobody;

// How the child's standard output is connected.
enum class Output {
    Captured,      // a pipe read to its end
    FirstLineOnly, // a pipe whose reader closes it after the first line
    ReaderGone,    // a pipe whose read end is closed before the tool starts
    AllClosed,     // descriptors 0, 1 and 2 all closed, nothing captured
};

struct Launch {
    std::vector<std::string> arguments;
    fs::path home;
    Output output = Output::Captured;
    std::vector<std::string> environment = {}; // "NAME=value", added to the cleaned one
    // Runs in the child just before exec; a non-zero result is its exit status.
    std::function<int()> inChild = {};
    // Runs in the parent while the tool runs (Captured only), with the tool
    // as a running program whose output it may read and whom it may signal.
    std::function<void(testsupport::Program&)> meanwhile = {};
};

ToolRun launch(const Launch& launch) {
    ProgramOptions options = toolOptions(launch.arguments, launch.home, launch.environment);
    options.inChild = launch.inChild;
    options.streams = launch.output == Output::AllClosed    ? testsupport::Streams::AllClosed
                      : launch.output == Output::ReaderGone ? testsupport::Streams::OutputReaderGone
                                                            : testsupport::Streams::Captured;
    testsupport::Program tool(options);
    if (launch.meanwhile)
        launch.meanwhile(tool);
    if (launch.output == Output::FirstLineOnly) {
        tool.readOutputLine(60s);
        tool.closeOutput();
    }
    return tool.finish();
}

// True when the cache is ready in the bootstrap's own judgement.
bool markerValid(const Sandbox& sandbox) {
    return runTool(sandbox.arguments({"status", "--check", "--quiet"}), sandbox.path()).status == 0;
}

// True when the lock file is there and nobody holds the build lock: taking it
// without waiting succeeds.
bool lockFree(const Sandbox& sandbox) {
    return probeLock(sandbox.lockFile()) == LockState::Free;
}

// Enough units that a build at one worker is still running when a signal or
// a closed pipe comes, and writes far more JSON than a pipe holds.
void addManyUnits(const Sandbox& sandbox, int count = 1500) {
    for (int i = 0; i < count; ++i)
        writeFile(sandbox.library() / "bulk" / ("Unit" + std::to_string(i) + ".qr"),
                  "package bulk\n\npublic class Unit" + std::to_string(i) +
                      " {\n    let value: Int\n}\n");
}

std::string lastLine(const std::string& text) {
    std::istringstream lines(text);
    std::string line, last;
    while (std::getline(lines, line))
        if (!line.empty())
            last = line;
    return last;
}

TEST(ExitStatusHelp, ListsEveryStatusTheToolReturns) {
    using namespace stdlibtool;
    const std::string help(exitStatusHelp());
    for (const int status : {ExitSuccess, ExitFailure, ExitUsage, ExitHangup, ExitInterrupted,
                             ExitOutputClosed, ExitTerminated}) {
        std::string number = std::to_string(status);
        number.resize(5, ' ');
        EXPECT_NE(help.find("\n  " + number), std::string::npos) << status << "\n" << help;
    }
}

// --- closed standard streams ------------------------------------------------

TEST(ClosedStandardStreams, NoProgressTextEndsUpInTheCache) {
    Sandbox reference;
    ASSERT_EQ(runTool(reference.arguments({"ensure", "--quiet"}), reference.path()).status, 0);
    // Every entry with its kind, mode and bytes: the files, and also that no
    // link or folder appears that a normal build does not make.
    const auto expected = testsupport::wholeTree(reference.cacheRoot());
    ASSERT_TRUE(
        expected.contains(".first-launch/" QUOR_COMPILER_VERSION "/.stdlib-bootstrap-lib.lock"));
    ASSERT_TRUE(expected.contains(QUOR_COMPILER_VERSION "/lib/.quor-object-abi"));

    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Sandbox sandbox;
        const ToolRun run = launch({.arguments = sandbox.arguments({"ensure", "--jobs", "2"}),
                                    .home = sandbox.path(),
                                    .output = Output::AllClosed});
        ASSERT_EQ(run.status, 0);
        EXPECT_TRUE(markerValid(sandbox));
        const auto files = testsupport::wholeTree(sandbox.cacheRoot());
        for (const auto& [name, content] : files) {
            EXPECT_EQ(content.find("quor-stdlib"), std::string::npos) << name;
            EXPECT_EQ(content.find("compiled "), std::string::npos) << name;
            EXPECT_EQ(content.find("built "), std::string::npos) << name;
        }
        // Objects, ABI record, marker and the (empty) lock file as a normal build leaves them.
        EXPECT_EQ(files, expected);
    }
}

// --- no thread to be had ----------------------------------------------------

using testsupport::giveToNobody;

// Exit statuses of the child before exec, chosen outside the tool's own
// (testsupport::kCannotChangeUser is too).
constexpr int cannotLimitProcesses = 91;
constexpr int threadsStillStart = 92;

// In the forked child: become nobody, or end with the reason on standard error.
int dropToNobody() {
    testsupport::becomeUser(nobody);
    return 0;
}

// LeakSanitizer checks for leaks from a thread of its own at exit, which the
// process limit below forbids; the tool itself needs none.
const std::vector<std::string> withoutThreadsEnvironment = {"ASAN_OPTIONS=detect_leaks=0"};

// In the forked child: become nobody with room for no other thread, and
// check that a thread really cannot be started any more.
int becomeNobodyWithoutThreads() {
    std::string report; // the exit status says it all
    if (!testsupport::becomeNobody(1, report))
        return cannotLimitProcesses;
    pthread_t thread;
    if (pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr) == 0) {
        pthread_join(thread, nullptr);
        return threadsStillStart;
    }
    return 0;
}

TEST(NoThreads, EnsureBuildsOnTheCallingThread) {
    Sandbox sandbox;
    giveToNobody(sandbox.path());
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure", "-j", "8"}),
                                .home = sandbox.path(),
                                .environment = withoutThreadsEnvironment,
                                .inChild = becomeNobodyWithoutThreads});
    ASSERT_NE(run.status, testsupport::kCannotChangeUser) << run.err;
    ASSERT_NE(run.status, cannotLimitProcesses);
    ASSERT_NE(run.status, threadsStillStart) << "RLIMIT_NPROC did not stop thread creation";
    EXPECT_EQ(run.err.find("terminate called"), std::string::npos) << run.err;
    EXPECT_EQ(run.status, 0) << run.err;
    // Asked as its owner: the cache belongs to nobody, and root would not trust it.
    const ToolRun check = launch({.arguments = sandbox.arguments({"status", "--check", "--quiet"}),
                                  .home = sandbox.path(),
                                  .inChild = dropToNobody});
    EXPECT_EQ(check.status, 0) << check.err;
    EXPECT_TRUE(
        run.out.starts_with("built " + std::to_string(Sandbox::compilableUnits) + " units in "))
        << run.out;
}

// The size walk shares its work among threads when it can; without any, the
// calling thread walks alone and counts the same.
TEST(NoThreads, StatusAndPruneStillSizeAndRemoveOldVersions) {
    Sandbox sandbox;
    for (int index = 0; index < 300; ++index)
        writeFile(sandbox.cacheRoot() / "0.1.5" / "lib" / ("pkg" + std::to_string(index / 30)) /
                      ("Unit" + std::to_string(index) + ".qo"),
                  std::string(5000, 'o'));
    giveToNobody(sandbox.path());
    const ToolRun status = launch({.arguments = sandbox.arguments({"--json", "status"}),
                                   .home = sandbox.path(),
                                   .environment = withoutThreadsEnvironment,
                                   .inChild = becomeNobodyWithoutThreads});
    ASSERT_NE(status.status, threadsStillStart) << "RLIMIT_NPROC did not stop thread creation";
    ASSERT_EQ(status.status, 0) << status.err;
    const json listed = json::parse(status.out)["olderVersions"];
    ASSERT_EQ(listed.size(), 1u) << status.out;
    // 300 files of two 4 KiB blocks each, at the least.
    EXPECT_GE(listed[0]["bytes"].get<std::uint64_t>(), 300u * 8192);

    const ToolRun prune = launch({.arguments = sandbox.arguments({"--json", "prune"}),
                                  .home = sandbox.path(),
                                  .environment = withoutThreadsEnvironment,
                                  .inChild = becomeNobodyWithoutThreads});
    ASSERT_EQ(prune.status, 0) << prune.err;
    const json report = json::parse(prune.out);
    EXPECT_EQ(report["olderVersions"][0]["bytes"], listed[0]["bytes"]);
    EXPECT_EQ(report["removed"], 1);
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.5"));
}

TEST(NoThreads, TimeoutStillEndsTheLockWait) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    giveToNobody(sandbox.path());
    const auto started = std::chrono::steady_clock::now();
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure", "--timeout", "1"}),
                                .home = sandbox.path(),
                                .environment = withoutThreadsEnvironment,
                                .inChild = becomeNobodyWithoutThreads});
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_NE(run.status, threadsStillStart) << "RLIMIT_NPROC did not stop thread creation";
    EXPECT_EQ(run.status, 124) << run.err;
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 30.0);
    const std::string named = "process " + std::to_string(holder.pid());
    EXPECT_NE(run.err.find("quor-stdlib: waiting for " + named), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("quor-stdlib: error: gave up waiting for the build lock after "),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("; it is held by " + named), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

TEST(NoThreads, SigtermStillEndsTheLockWait) {
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    giveToNobody(sandbox.path());
    bool waiting = false;
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure"}),
                                .home = sandbox.path(),
                                .environment = withoutThreadsEnvironment,
                                .inChild = becomeNobodyWithoutThreads,
                                .meanwhile = [&waiting](testsupport::Program& tool) {
                                    waiting = tool.waitForError("waiting for", 60s);
                                    kill(tool.pid(), SIGTERM);
                                }});
    ASSERT_NE(run.status, threadsStillStart) << "RLIMIT_NPROC did not stop thread creation";
    EXPECT_TRUE(waiting) << run.err;
    EXPECT_EQ(run.status, 143) << run.err;
    EXPECT_TRUE(run.err.ends_with("quor-stdlib: interrupted by SIGTERM while waiting for the build "
                                  "lock; nothing was built\n"))
        << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

TEST(NoThreads, SigtermStopsTheBuildAtTheNextUnit) {
    Sandbox sandbox;
    addManyUnits(sandbox);
    giveToNobody(sandbox.path());
    bool compiling = false;
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure", "--json"}),
                                .home = sandbox.path(),
                                .environment = withoutThreadsEnvironment,
                                .inChild = becomeNobodyWithoutThreads,
                                .meanwhile = [&compiling](testsupport::Program& tool) {
                                    compiling = tool.waitForOutput("\"Compiling\"", 60s);
                                    kill(tool.pid(), SIGTERM);
                                }});
    ASSERT_NE(run.status, threadsStillStart) << "RLIMIT_NPROC did not stop thread creation";
    EXPECT_TRUE(compiling) << run.err;
    ASSERT_EQ(run.out.find("\"event\":\"result\""), std::string::npos)
        << "the build finished before the signal arrived";
    EXPECT_EQ(run.status, 143) << run.err;
    EXPECT_EQ(run.err, "quor-stdlib: interrupted by SIGTERM; the standard-library cache was left "
                       "without a readiness marker\n");
    EXPECT_FALSE(fs::exists(sandbox.marker()));
    EXPECT_TRUE(lockFree(sandbox));
}

// --- stop signals -----------------------------------------------------------

struct StopCase {
    int signal;
    const char* name;
    int status;
    const char* interrupted; // how the message names it
};

void PrintTo(const StopCase& stop, std::ostream* out) {
    *out << stop.name;
}

class StopSignal : public testing::TestWithParam<StopCase> {};

TEST_P(StopSignal, DuringABuildStopsWithoutAMarkerAndFreesTheLock) {
    const StopCase& stop = GetParam();
    Sandbox sandbox;
    addManyUnits(sandbox);
    ToolProcess tool(sandbox.arguments({"ensure", "--json", "--jobs", "1"}), sandbox.path());
    ASSERT_TRUE(tool.waitForOutput("\"Compiling\"", 60s)) << tool.err();
    kill(tool.pid(), stop.signal);
    const ToolRun run = tool.finish();
    ASSERT_EQ(run.out.find("\"event\":\"result\""), std::string::npos)
        << "the build finished before the signal arrived";
    EXPECT_EQ(run.status, stop.status) << run.err;
    const std::string message = std::string(stop.interrupted) +
                                "; the standard-library cache was left without a readiness marker";
    EXPECT_EQ(run.err, "quor-stdlib: " + message + "\n");
    const json event = json::parse(lastLine(run.out));
    EXPECT_EQ(event["event"], "interrupted");
    EXPECT_EQ(event["signal"], stop.name);
    EXPECT_EQ(event["message"], message);
    EXPECT_EQ(event["exitStatus"], stop.status);
    EXPECT_FALSE(fs::exists(sandbox.marker()));
    EXPECT_TRUE(lockFree(sandbox));
}

TEST_P(StopSignal, WhileWaitingForTheLockSaysNothingWasBuilt) {
    const StopCase& stop = GetParam();
    Sandbox sandbox;
    LockHolderProcess holder(sandbox.lockFile());
    ToolProcess tool(sandbox.arguments({"ensure"}), sandbox.path());
    ASSERT_TRUE(tool.waitForError("waiting for", 5s)) << tool.err();
    kill(tool.pid(), stop.signal);
    const ToolRun run = tool.finish();
    EXPECT_EQ(run.status, stop.status) << run.err;
    const std::string expected = "quor-stdlib: " + std::string(stop.interrupted) +
                                 " while waiting for the build lock; nothing was built\n";
    ASSERT_TRUE(run.err.ends_with(expected)) << run.err;
    EXPECT_EQ(run.err.find("readiness marker"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

INSTANTIATE_TEST_SUITE_P(
    EachStopSignal, StopSignal,
    testing::Values(StopCase{SIGTERM, "SIGTERM", 143, "interrupted by SIGTERM"},
                    StopCase{SIGHUP, "SIGHUP", 129, "interrupted by SIGHUP"},
                    StopCase{SIGINT, "SIGINT", 130, "interrupted"}),
    [](const testing::TestParamInfo<StopCase>& info) { return std::string(info.param.name); });

// --- closed standard output -------------------------------------------------

TEST(ClosedOutput, EnsureJsonRunsTheBuildToItsEnd) {
    Sandbox sandbox;
    addManyUnits(sandbox);
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure", "--json", "--jobs", "2"}),
                                .home = sandbox.path(),
                                .output = Output::FirstLineOnly});
    ASSERT_FALSE(run.out.empty());
    EXPECT_EQ(json::parse(run.out)["stage"], "Preparing");
    EXPECT_EQ(run.status, 141);
    EXPECT_EQ(run.err, "quor-stdlib: standard output was closed; the build ran to its end\n");
    EXPECT_TRUE(markerValid(sandbox));
    EXPECT_TRUE(lockFree(sandbox));
}

TEST(ClosedOutput, EnsureThatFindsTheCacheReadySaysSo) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"ensure", "--quiet"}), sandbox.path()).status, 0);
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure"}),
                                .home = sandbox.path(),
                                .output = Output::ReaderGone});
    EXPECT_EQ(run.status, 141);
    EXPECT_EQ(run.err,
              "quor-stdlib: standard output was closed; the cache was already up to date\n");
}

TEST(ClosedOutput, StatusSaysItsReportWasCutShort) {
    Sandbox sandbox;
    const ToolRun run = launch({.arguments = sandbox.arguments({"status"}),
                                .home = sandbox.path(),
                                .output = Output::ReaderGone});
    EXPECT_EQ(run.status, 141);
    EXPECT_EQ(run.err,
              "quor-stdlib: standard output was closed; the status report was cut short\n");
    // A failure keeps its own status: --check on a cache that is not ready.
    const ToolRun check = launch({.arguments = sandbox.arguments({"status", "--check"}),
                                  .home = sandbox.path(),
                                  .output = Output::ReaderGone});
    EXPECT_EQ(check.status, 1);
    EXPECT_EQ(check.err, "");
}

TEST(ClosedOutput, PruneStillRemovesTheOlderVersions) {
    Sandbox sandbox;
    for (const char* version : {"0.1.4", "0.1.5"})
        writeFile(sandbox.cacheRoot() / version / "lib" / "core" / "Object.qo", "old\n");
    const ToolRun run = launch({.arguments = sandbox.arguments({"prune"}),
                                .home = sandbox.path(),
                                .output = Output::ReaderGone});
    EXPECT_EQ(run.status, 141);
    EXPECT_EQ(run.err, "quor-stdlib: standard output was closed; prune ran to its end and "
                       "removed 2 older versions\n");
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.4"));
    EXPECT_FALSE(fs::exists(sandbox.cacheRoot() / "0.1.5"));

    writeFile(sandbox.cacheRoot() / "0.1.3" / "lib" / "core" / "Object.qo", "old\n");
    const ToolRun dry = launch({.arguments = sandbox.arguments({"prune", "--dry-run"}),
                                .home = sandbox.path(),
                                .output = Output::ReaderGone});
    EXPECT_EQ(dry.status, 141);
    EXPECT_EQ(dry.err, "quor-stdlib: standard output was closed; prune ran to its end (dry run: "
                       "nothing removed)\n");
    EXPECT_TRUE(fs::exists(sandbox.cacheRoot() / "0.1.3"));
}

// --- terminal injection -----------------------------------------------------

TEST(VisibleText, EscapesWhatATerminalWouldObey) {
    using stdlibtool::visible;
    EXPECT_EQ(visible("\033[2J"), "\\x1b[2J");
    EXPECT_EQ(visible("\033]0;owned\007"), "\\x1b]0;owned\\x07");
    EXPECT_EQ(visible(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(visible("tab\there\nline\r"), "tab\\x09here\\x0aline\\x0d");
    EXPECT_EQ(visible("\x7f"), "\\x7f");
    // C1 controls, as characters: CSI (U+009B) starts a sequence on many terminals.
    EXPECT_EQ(visible("\xc2\x9b"
                      "2J"),
              "\\u009b2J");
    EXPECT_EQ(visible("\xc2\x80\xc2\x9f"), "\\u0080\\u009f");
}

TEST(VisibleText, EscapesEachByteThatIsNotUtf8) {
    using stdlibtool::visible;
    EXPECT_EQ(visible("caf\xe9.qr"), "caf\\xe9.qr");                // Latin-1
    EXPECT_EQ(visible("\xff\xfe"), "\\xff\\xfe");                   // never in UTF-8
    EXPECT_EQ(visible("\xc3"), "\\xc3");                            // cut short at the end
    EXPECT_EQ(visible("\xc3("), "\\xc3(");                          // cut short before ASCII
    EXPECT_EQ(visible("\xc0\xaf"), "\\xc0\\xaf");                   // overlong '/'
    EXPECT_EQ(visible("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");          // overlong, three bytes
    EXPECT_EQ(visible("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // a surrogate
    EXPECT_EQ(visible("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // above U+10FFFF
    EXPECT_EQ(visible("\x80"), "\\x80");                            // a lone continuation
    EXPECT_EQ(visible("\xe2\x82"), "\\xe2\\x82");                   // three-byte, cut short
}

TEST(VisibleText, KeepsPrintableTextAndIsStable) {
    using stdlibtool::visible;
    const std::string ordinary = "/home/you/.cache/quor/0.1.6 caf\xc3\xa9 \xc3\xbc\xc3\xb1"
                                 "\xc3\xaf \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x99\x82 \xc2\xa0~";
    EXPECT_EQ(visible(ordinary), ordinary);
    EXPECT_EQ(visible(""), "");
    const std::string hostile = "\033[2J\xc2\x9b\xff\x7f\\x1b";
    EXPECT_EQ(visible(visible(hostile)), visible(hostile));
}

bool hasTerminalControls(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20 && byte != '\n') || byte == 0x7f)
            return true;
        if (byte == 0xc2 && i + 1 < text.size() &&
            static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
            static_cast<unsigned char>(text[i + 1]) <= 0x9f)
            return true;
    }
    return false;
}

TEST(TerminalInjection, StatusShowsMarkerValuesEscaped) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"ensure", "--quiet"}), sandbox.path()).status, 0);
    editMarkerLine(sandbox.marker(), 2, "version=\033[2J\033]0;owned\007");
    const ToolRun run = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.find('\033'), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find('\007'), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("version: expected \"" QUOR_COMPILER_VERSION
                           "\", found \"\\x1b[2J\\x1b]0;owned\\x07\"\n"),
              std::string::npos)
        << run.out;
    // JSON keeps the value itself, escaped the JSON way.
    const ToolRun machine = runTool(sandbox.arguments({"status", "--json"}), sandbox.path());
    EXPECT_EQ(json::parse(machine.out)["reason"]["differences"][0]["found"],
              "\033[2J\033]0;owned\007");
}

TEST(TerminalInjection, PathsInStatusPruneAndErrorsAreEscaped) {
    Sandbox sandbox;
    const std::string hostile = "\033]0;owned\007\xc2\x9b\xff";
    const std::string shown = "\\x1b]0;owned\\x07\\u009b\\xff";
    const fs::path cacheRoot = sandbox.path() / ("cache" + hostile);
    fs::create_directories(cacheRoot);
    const std::vector<std::string> where = {"--stdlib", sandbox.library().string(), "--cache-root",
                                            cacheRoot.string()};
    auto with = [&where](std::vector<std::string> words) {
        words.insert(words.begin(), where.begin(), where.end());
        return words;
    };

    const ToolRun status = runTool(with({"status"}), sandbox.path());
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_FALSE(hasTerminalControls(status.out)) << status.out;
    EXPECT_NE(
        status.out.find("  cache root        " + sandbox.path().string() + "/cache" + shown + "\n"),
        std::string::npos)
        << status.out;

    const ToolRun prune = runTool(with({"prune"}), sandbox.path());
    EXPECT_EQ(prune.status, 0) << prune.err;
    EXPECT_EQ(prune.out,
              "no older versions under " + sandbox.path().string() + "/cache" + shown + "\n");

    const fs::path library = sandbox.path() / ("lib" + hostile);
    const ToolRun ensure = runTool(
        {"--stdlib", library.string(), "--cache-root", sandbox.cacheRoot().string(), "ensure"},
        sandbox.path());
    EXPECT_EQ(ensure.status, 1);
    EXPECT_FALSE(hasTerminalControls(ensure.err)) << ensure.err;
    EXPECT_NE(ensure.err.find("quor-stdlib: error: Unable to enumerate Quor standard library '" +
                              sandbox.path().string() + "/lib" + shown +
                              "': No such file or directory\n"),
              std::string::npos)
        << ensure.err;
}

TEST(TerminalInjection, UnitNamesInTheProgressAreEscaped) {
    Sandbox sandbox;
    writeFile(sandbox.library() / "Clear\033[2J.qr", "public fn clear() -> Int {\n"
                                                     "    return 1\n"
                                                     "}\n");
    const ToolRun plain = runTool(sandbox.arguments({"ensure", "--jobs", "1"}), sandbox.path());
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_FALSE(hasTerminalControls(plain.err)) << plain.err;

    fs::remove_all(sandbox.cacheRoot());
    fs::create_directories(sandbox.cacheRoot());
    const ToolRun screen =
        runToolOnTerminal(sandbox.arguments({"ensure", "--jobs", "1"}), sandbox.path(), 200);
    EXPECT_EQ(screen.status, 0) << screen.out;
    EXPECT_NE(screen.out.find("Clear\\x1b[2J.qr"), std::string::npos) << screen.out;
    EXPECT_EQ(screen.out.find("\033[2J"), std::string::npos) << screen.out;
}

TEST(TerminalInjection, TheHoldersCommandLineIsEscaped) {
    Sandbox sandbox;
    // The holder becomes `sleep` under this name, its command line shown by the tool.
    LockHolderProcess holder(sandbox.lockFile(), "holder\033]0;owned\007\033[2J");
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--timeout", "1"}), sandbox.path());
    EXPECT_EQ(run.status, 124) << run.err;
    EXPECT_FALSE(hasTerminalControls(run.err)) << run.err;
    const std::string shown =
        "process " + std::to_string(holder.pid()) + " (holder\\x1b]0;owned\\x07\\x1b[2J 120)";
    EXPECT_NE(run.err.find("quor-stdlib: waiting for " + shown + ", which holds"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("; it is held by " + shown + "\n"), std::string::npos) << run.err;
}

// --- QUOR_JOBS --------------------------------------------------------------

class UnusableJobs : public testing::TestWithParam<std::string> {};

TEST_P(UnusableJobs, IsAUsageErrorWhenEnsureWouldUseIt) {
    Sandbox sandbox;
    const ToolRun run = launch({.arguments = sandbox.arguments({"ensure"}),
                                .home = sandbox.path(),
                                .environment = {"QUOR_JOBS=" + GetParam()}});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "quor-stdlib: error: QUOR_JOBS: expected a whole number of worker "
                       "threads, at least 1, got '" +
                           stdlibtool::visible(GetParam()) +
                           "'\nRun 'quor-stdlib help' to list the subcommands and options.\n");
    EXPECT_FALSE(fs::exists(sandbox.marker()));
}

INSTANTIATE_TEST_SUITE_P(Values, UnusableJobs,
                         testing::Values("0", "abc", "-3", "4x", " 4", "1e3", "9999999",
                                         "2\033[2J"));

TEST(JobsEnvironment, IsLeftAloneWhereItIsNotUsed) {
    Sandbox sandbox;
    const std::vector<std::string> bad = {"QUOR_JOBS=abc"};
    EXPECT_EQ(launch({.arguments = sandbox.arguments({"status"}),
                      .home = sandbox.path(),
                      .environment = bad})
                  .status,
              0);
    const ToolRun withFlag = launch({.arguments = sandbox.arguments({"ensure", "--jobs", "2"}),
                                     .home = sandbox.path(),
                                     .environment = bad});
    EXPECT_EQ(withFlag.status, 0) << withFlag.err;
    EXPECT_TRUE(markerValid(sandbox));
}

TEST(JobsEnvironment, EmptyCountsAsUnsetAndAWholeNumberIsUsed) {
    for (const std::string value : {"", "2"}) {
        SCOPED_TRACE("QUOR_JOBS=" + value);
        Sandbox sandbox;
        const ToolRun run = launch({.arguments = sandbox.arguments({"ensure"}),
                                    .home = sandbox.path(),
                                    .environment = {"QUOR_JOBS=" + value}});
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_TRUE(markerValid(sandbox));
    }
}

} // namespace
} // namespace quor::tooltest
