// Crash test of incremental builds: one cache is carried from trial to trial
// while `quor-stdlib ensure` (sometimes with --force) switches between two
// libraries, A and B, that share most units, differ in some, and each have
// units of their own. Every run is killed with SIGKILL after a delay drawn from
// a seeded generator over the measured length of such a build, or runs to its
// end. After every run, whichever library the marker vouches for, if any, must
// find the library cache byte-identical to a clean build of that library,
// folders included. Every few trials a run to the end checks that the cache
// recovers from whatever the kills left.

#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/ToolHarness.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <thread>

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Library B: library A with every seventh unit edited, every eleventh removed,
// and a folder of units of its own.
void deriveLibrary(const fs::path& a, const fs::path& b, std::uint64_t seed) {
    fs::remove_all(b);
    fs::copy(a, b, fs::copy_options::recursive);
    std::size_t index = 0;
    std::vector<fs::path> units;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(b)) {
        if (entry.path().extension() == ".qr") {
            units.push_back(entry.path());
        }
    }
    std::sort(units.begin(), units.end());
    for (const fs::path& unit : units) {
        ++index;
        if (index % 11 == 0) {
            fs::remove(unit);
        } else if (index % 7 == 0) {
            writeFile(unit, readFile(unit, Unreadable::Throw) + "// edited for library B\n",
                      Parents::MustExist);
        }
    }
    fs::create_directories(b / "only" / "b");
    for (int i = 0; i < 5; ++i) {
        writeFile(b / "only" / "b" / ("Extra" + std::to_string(i) + ".qr"),
                  "package only.b\npublic struct Extra" + std::to_string(i) + " { }\n",
                  Parents::MustExist);
    }
    writeFingerprint(b, seed + 1);
}

TEST(IncrementalCrashTest, KilledSwitchesNeverLeaveAMarkerOverForeignObjects) {
    if (toolPath().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib tool";
    }
    const unsigned trials = stressCount("QUOR_INCREMENTAL_CRASH_TRIALS", 12, 200);
    const std::uint64_t seed = stressSeed();
    std::cout << "incremental crash test: " << trials << " trials, seed " << seed << std::endl;

    TemporaryDirectory scratch;
    struct Library {
        fs::path root;
        std::string fingerprint;
        Tree reference;
    };
    Library libraries[2];
    libraries[0].root = scratch.path() / "a";
    libraries[1].root = scratch.path() / "b";
    generateLibrary(libraries[0].root, stressCount("QUOR_CRASH_UNITS", 300, 600), 6000, seed);
    deriveLibrary(libraries[0].root, libraries[1].root, seed);
    const fs::path log = scratch.path() / "tool.log";
    const auto arguments = [](const Library& library, const fs::path& cache, bool force) {
        std::vector<std::string> line{
            "--stdlib", library.root.string(), "--cache-root", cache.string(), "--quiet", "ensure"};
        if (force) {
            line.push_back("--force");
        }
        return line;
    };

    // Clean builds are the references; a switch from one to the other, timed,
    // is the length the kill delays spread over.
    for (int i = 0; i < 2; ++i) {
        Library& library = libraries[i];
        library.fingerprint =
            readFile(library.root / ".quor-stdlib-fingerprint", Unreadable::Throw).substr(0, 64);
        const fs::path reference = scratch.path() / ("reference-" + std::to_string(i));
        const ToolRun clean = runTool(arguments(library, reference, false), log);
        ASSERT_EQ(clean.status, 0) << clean.output;
        library.reference = snapshot(libCacheOf(reference));
    }
    const fs::path cache = scratch.path() / "cache";
    ASSERT_EQ(runTool(arguments(libraries[0], cache, false), log).status, 0);
    const Clock::time_point started = Clock::now();
    ASSERT_EQ(runTool(arguments(libraries[1], cache, false), log).status, 0);
    const auto switchMicros =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count();

    const auto check = [&](unsigned trial, const char* when) {
        for (const Library& library : libraries) {
            if (markerValid(cache, library.fingerprint)) {
                ASSERT_EQ(snapshot(libCacheOf(cache)), library.reference)
                    << "trial " << trial << " (" << when << "): the marker of "
                    << library.root.filename() << " vouches for another set of objects";
            }
        }
    };

    std::mt19937_64 random(seed);
    unsigned killed = 0, finished = 0, readyAfterKill = 0, recoveries = 0;
    for (unsigned trial = 0; trial < trials; ++trial) {
        const Library& target = libraries[random() % 2];
        const bool force = random() % 4 == 0;
        const auto delay = std::chrono::microseconds(static_cast<long long>(
            std::uniform_real_distribution<double>(0.0, 1.2)(random) * switchMicros));
        const pid_t child = startTool(arguments(target, cache, force), log);
        std::this_thread::sleep_for(delay);
        ::kill(child, SIGKILL);
        const int status = waitForChild(child);
        if (status == 128 + SIGKILL) {
            ++killed;
            readyAfterKill += markerValid(cache, target.fingerprint) ? 1 : 0;
        } else {
            ASSERT_EQ(status, 0) << "trial " << trial << ": " << readFile(log, Unreadable::Throw);
            ++finished;
            ASSERT_TRUE(markerValid(cache, target.fingerprint)) << "trial " << trial;
        }
        check(trial, "after the kill");

        if (trial % 4 == 3) {
            const Library& next = libraries[random() % 2];
            const ToolRun recovery = runTool(arguments(next, cache, false), log);
            ASSERT_EQ(recovery.status, 0) << "trial " << trial << ": " << recovery.output;
            ASSERT_TRUE(markerValid(cache, next.fingerprint)) << "trial " << trial;
            ASSERT_EQ(snapshot(libCacheOf(cache)), next.reference)
                << "trial " << trial << ": the cache after recovery differs from a clean build";
            ++recoveries;
        }
    }
    std::cout << "incremental crash test: " << killed << " runs killed (" << readyAfterKill
              << " after their marker), " << finished << " finished first, " << recoveries
              << " recoveries; a switch took " << switchMicros / 1000 << " ms" << std::endl;
}

} // namespace
} // namespace quor::reliability
