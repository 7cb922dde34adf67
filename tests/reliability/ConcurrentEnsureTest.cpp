// Contention: many `quor-stdlib ensure` processes started at once on one cache,
// round after round, with the library changed between rounds (one unit's text
// and the installed fingerprint). In every round exactly one process builds
// (its JSON result says bootstrapped=true), every process succeeds, and the
// marker afterwards certifies the round's fingerprint.

#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/ToolHarness.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <iostream>
#include <sstream>

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;

// The "result" object of one process's JSON Lines output, or null.
nlohmann::json resultOf(const std::string& output) {
    std::istringstream lines(output);
    std::string line;
    nlohmann::json result;
    while (std::getline(lines, line)) {
        const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
        if (event.is_object() && event.value("event", "") == "result") {
            result = event;
        }
    }
    return result;
}

TEST(ConcurrentEnsure, EachRoundBuildsExactlyOnceAcrossManyProcesses) {
    if (toolPath().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib tool";
    }
    const unsigned processes = stressCount("QUOR_CONCURRENT_PROCESSES", 8, 32);
    const unsigned rounds = stressCount("QUOR_CONCURRENT_ROUNDS", 3, 10);
    const std::uint64_t seed = stressSeed();
    std::cout << "concurrent ensure: " << processes << " processes, " << rounds << " rounds, seed "
              << seed << std::endl;

    TemporaryDirectory scratch;
    const fs::path library = scratch.path() / "stdlib";
    const std::vector<fs::path> compiled = generateLibrary(library, 120, 3000, seed);
    const fs::path cache = scratch.path() / "cache";
    const fs::path changed = library / compiled.front();

    for (unsigned round = 0; round < rounds; ++round) {
        const std::string fingerprint = writeFingerprint(library, seed + round + 1);
        writeFile(changed,
                  readFile(changed, Unreadable::Throw) + "// round " + std::to_string(round) + "\n",
                  Parents::MustExist);

        std::vector<pid_t> children;
        std::vector<fs::path> outputs;
        for (unsigned p = 0; p < processes; ++p) {
            outputs.push_back(scratch.path() / ("out-" + std::to_string(p)));
            fs::remove(outputs.back());
            children.push_back(startTool(
                {"--stdlib", library.string(), "--cache-root", cache.string(), "--json", "ensure"},
                outputs.back()));
        }
        unsigned builds = 0;
        unsigned waited = 0; // processes that found the lock taken and said so
        for (unsigned p = 0; p < processes; ++p) {
            const int status = waitForChild(children[p]);
            const std::string output = readFile(outputs[p], Unreadable::Throw);
            EXPECT_EQ(status, 0) << "round " << round << ", process " << p << ":\n" << output;
            const nlohmann::json result = resultOf(output);
            ASSERT_TRUE(result.is_object())
                << "round " << round << ", process " << p << ": no result event:\n"
                << output;
            builds += result.value("bootstrapped", false) ? 1 : 0;
            waited += output.find("\"event\":\"waiting\"") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(builds, 1U) << "round " << round;
        EXPECT_TRUE(markerValid(cache, fingerprint)) << "round " << round;
        std::cout << "concurrent ensure: round " << round << ": " << builds << " build, "
                  << processes << " processes succeeded, " << waited
                  << " of them waited for the lock" << std::endl;
    }
}

} // namespace
} // namespace quor::reliability
