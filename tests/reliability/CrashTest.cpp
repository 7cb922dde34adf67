// Crash test: `quor-stdlib ensure` killed with SIGKILL at random moments of a
// build. The kill delays are drawn, from a seeded generator, uniformly over the
// measured length of a clean build, with one trial in five aimed at its last
// stretch, where the objects are synced and the marker is published, and one in
// five killed the moment the marker's temporary file appears (watched with
// inotify), up to 300 us into its publication.
//
// After every kill the cache is either not ready (no valid marker) or ready
// with every object a clean build writes, byte for byte; a marker that exists
// but does not validate is never acceptable on a fresh cache. The next ensure
// must succeed and leave objects and marker byte-identical to a clean build.
// Temporary files a killed process leaves behind are counted and reported, not
// compared: the marker's are documented as left for good, and the objects' are
// never taken for objects.

#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/ToolHarness.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <thread>

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

bool isTemporary(const std::string& name) {
    return name.find(".tmp.") != std::string::npos;
}

std::size_t countTemporaries(const fs::path& root) {
    std::size_t count = 0;
    std::error_code error;
    if (!fs::exists(root, error)) {
        return 0;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        count += isTemporary(entry.path().filename().string()) ? 1 : 0;
    }
    return count;
}

// True while `child` has not exited; does not reap it.
bool running(pid_t child) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

// Kills `child` `extra` after the marker's temporary file appears in the state
// directory below `cache`, which is when the marker is being published. False
// when the child ended first.
bool killAtPublication(pid_t child, const fs::path& cache, std::chrono::microseconds extra) {
    const fs::path stateDirectory = markerPathOf(cache).parent_path();
    const fs::path lockDirectory = stateDirectory.parent_path();
    const int events = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (events < 0) {
        throw std::runtime_error("inotify_init1 failed");
    }
    int lockWatch = -1;
    int stateWatch = -1;
    bool killed = false;
    alignas(inotify_event) char buffer[4096];
    while (!killed && running(child)) {
        if (lockWatch < 0 && fs::exists(lockDirectory)) {
            lockWatch = ::inotify_add_watch(events, lockDirectory.c_str(), IN_CREATE);
        }
        if (lockWatch >= 0 && stateWatch < 0 && fs::exists(stateDirectory)) {
            stateWatch = ::inotify_add_watch(events, stateDirectory.c_str(), IN_CREATE);
        }
        pollfd ready{events, POLLIN, 0};
        ::poll(&ready, 1, 1);
        const ssize_t length = ::read(events, buffer, sizeof buffer);
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->wd == stateWatch && event->len > 0 &&
                std::string(event->name).rfind(".quor-stdlib-ready.tmp.", 0) == 0) {
                const auto until = Clock::now() + extra;
                while (Clock::now() < until) {
                }
                ::kill(child, SIGKILL);
                killed = true;
                break;
            }
        }
    }
    ::close(events);
    return killed;
}

TEST(CrashTest, KilledEnsureNeverLeavesATrustedIncompleteCache) {
    if (toolPath().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib tool";
    }
    const unsigned trials = stressCount("QUOR_CRASH_TRIALS", 8, 200);
    const std::uint64_t seed = stressSeed();
    std::cout << "crash test: " << trials << " trials, seed " << seed << std::endl;

    TemporaryDirectory scratch;
    const fs::path library = scratch.path() / "stdlib";
    // A smaller library in the reduced run keeps it short under the sanitizers.
    const unsigned units = stressCount("QUOR_CRASH_UNITS", 300, 600);
    const std::vector<fs::path> compiled =
        generateLibrary(library, units, fullStress() ? 12000 : 8000, seed);
    const std::string fingerprint =
        readFile(library / ".quor-stdlib-fingerprint", Unreadable::Throw).substr(0, 64);
    const fs::path log = scratch.path() / "tool.log";
    const auto ensureArguments = [&](const fs::path& cache) {
        return std::vector<std::string>{"--stdlib",     library.string(), "--cache-root",
                                        cache.string(), "--quiet",        "ensure"};
    };

    // Clean builds: the first is the reference; the shortest of three is the
    // length of a build that the kill delays spread over.
    const fs::path reference = scratch.path() / "reference";
    auto buildTime = Clock::duration::max();
    for (int build = 0; build < 3; ++build) {
        const fs::path cache = build == 0 ? reference : scratch.path() / "timing";
        fs::remove_all(scratch.path() / "timing");
        const Clock::time_point started = Clock::now();
        const ToolRun clean = runTool(ensureArguments(cache), log);
        buildTime = std::min(buildTime, Clock::now() - started);
        ASSERT_EQ(clean.status, 0) << clean.output;
    }
    ASSERT_TRUE(markerValid(reference, fingerprint));
    const Tree referenceObjects = snapshot(libCacheOf(reference), isTemporary);
    // One object per compiled unit, besides whatever else the precompiler keeps
    // in its cache (its ABI record).
    std::size_t objects = 0;
    for (const auto& [name, content] : referenceObjects) {
        objects += fs::path(name).extension() == ".qo" ? 1 : 0;
    }
    ASSERT_EQ(objects, compiled.size());
    for (const fs::path& unit : compiled) {
        fs::path object = unit;
        object.replace_extension(".qo");
        ASSERT_EQ(referenceObjects.count(object.string()), 1U) << object;
    }
    const std::string referenceMarker = readFile(markerPathOf(reference), Unreadable::Throw);
    auto buildMicros = std::chrono::duration_cast<std::chrono::microseconds>(buildTime).count();
    std::cout << "crash test: clean build of " << compiled.size() << " units took "
              << buildMicros / 1000 << " ms" << std::endl;

    std::mt19937_64 random(seed);
    unsigned killedNotReady = 0, killedReady = 0, finishedFirst = 0, duringPublication = 0;
    unsigned publicationKills = 0;
    std::size_t leftTemporaries = 0, leftMarkerTemporaries = 0;
    for (unsigned trial = 0; trial < trials; ++trial) {
        const fs::path cache = scratch.path() / "cache";
        fs::remove_all(cache);
        const bool late = random() % 5 == 0;
        const double fraction = late ? std::uniform_real_distribution<double>(0.9, 1.1)(random)
                                     : std::uniform_real_distribution<double>(0.0, 1.0)(random);
        const auto delay =
            std::chrono::microseconds(static_cast<long long>(fraction * buildMicros));

        // Every fifth trial waits for the marker's publication to begin and
        // kills up to 300 us into it.
        const bool atPublication = trial % 5 == 4;
        const auto extra = std::chrono::microseconds(random() % 300);
        if (atPublication) {
            // An empty state directory (as a rebuild finds it) lets the watch be
            // in place before the marker's temporary file is created.
            fs::create_directories(markerPathOf(cache).parent_path());
        }
        const pid_t child = startTool(ensureArguments(cache), log);
        if (atPublication) {
            publicationKills += killAtPublication(child, cache, extra) ? 1 : 0;
        } else {
            std::this_thread::sleep_for(delay);
            ::kill(child, SIGKILL);
        }
        const int status = waitForChild(child);
        const bool killed = status == 128 + SIGKILL;
        if (!killed) {
            ASSERT_EQ(status, 0) << "trial " << trial << ": " << readFile(log, Unreadable::Throw);
            ++finishedFirst;
        }

        // What a killed build leaves behind.
        const fs::path marker = markerPathOf(cache);
        const bool ready = markerValid(cache, fingerprint);
        if (!ready) {
            ASSERT_FALSE(fs::exists(marker))
                << "trial " << trial << " (kill after " << delay.count()
                << " us): a marker that does not validate: " << readFile(marker, Unreadable::Throw);
            ++killedNotReady;
        } else {
            EXPECT_EQ(snapshot(libCacheOf(cache), isTemporary), referenceObjects)
                << "trial " << trial << " (kill after " << delay.count()
                << " us): a valid marker over an incomplete or different set of objects";
            killedReady += killed ? 1 : 0;
        }
        // The length of a build drifts with the machine's load. Late kills steer
        // the estimate of its end so that they straddle it: a kill that came too
        // early moves the end later, one that came after the marker moves it
        // earlier, so that late kills keep landing around the end of the build.
        if (late && !atPublication) {
            buildMicros = ready ? buildMicros * 96 / 100 : buildMicros * 104 / 100;
        } else if (!killed) {
            buildMicros = buildMicros * 96 / 100;
        }
        std::error_code error;
        if (fs::exists(marker.parent_path(), error)) {
            for (const fs::directory_entry& entry : fs::directory_iterator(marker.parent_path())) {
                if (entry.path().filename().string().rfind(".quor-stdlib-ready.tmp.", 0) == 0) {
                    ++duringPublication;
                    break;
                }
            }
        }

        // Recovery.
        const ToolRun again = runTool(ensureArguments(cache), log);
        ASSERT_EQ(again.status, 0) << "trial " << trial << ": " << again.output;
        ASSERT_TRUE(markerValid(cache, fingerprint)) << "trial " << trial;
        ASSERT_EQ(readFile(marker, Unreadable::Throw), referenceMarker) << "trial " << trial;
        ASSERT_EQ(snapshot(libCacheOf(cache), isTemporary), referenceObjects)
            << "trial " << trial << ": the cache after recovery differs from a clean build";
        leftTemporaries += countTemporaries(libCacheOf(cache));
        leftMarkerTemporaries += countTemporaries(markerPathOf(cache).parent_path());
    }

    std::cout << "crash test: " << killedNotReady << " kills left the cache not ready, "
              << killedReady << " came after the marker, " << finishedFirst
              << " builds finished before the kill, " << duringPublication
              << " kills left a marker being published (" << publicationKills
              << " aimed there); after recovery " << leftTemporaries
              << " temporary object files and " << leftMarkerTemporaries
              << " temporary marker files were left behind in all; kill delays aimed at "
              << buildMicros / 1000 << " ms at the end" << std::endl;
    ::testing::Test::RecordProperty("killedNotReady", static_cast<int>(killedNotReady));
    ::testing::Test::RecordProperty("killedReady", static_cast<int>(killedReady));
    ::testing::Test::RecordProperty("duringPublication", static_cast<int>(duringPublication));
    ::testing::Test::RecordProperty("publicationKills", static_cast<int>(publicationKills));
    ::testing::Test::RecordProperty("leftTemporaries", static_cast<int>(leftTemporaries));
    ::testing::Test::RecordProperty("leftMarkerTemporaries",
                                    static_cast<int>(leftMarkerTemporaries));
}

} // namespace
} // namespace quor::reliability
