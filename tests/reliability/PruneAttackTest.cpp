// Pruning under attack. While removeOlderCacheVersions deletes an old version
// directory, another thread keeps swapping that directory (or a folder inside
// it) with a symbolic link to a directory outside the cache root, and back. The
// outside directory holds sentinel files under exactly the names the removal is
// deleting, so a removal that followed the link even once would take a sentinel
// with it. Every round must leave the sentinels and the current version's cache
// intact, and end in one of the outcomes the pruning allows: the version
// removed; not removed because it was a link when listed or gone when its turn
// came; refused as unsafe; or a removal error naming the version.
//
// Swaps use renameat2(RENAME_EXCHANGE), so the version name never disappears,
// and, in a share of the rounds, two plain renames, which leave a moment in
// which it does. Their timing is drawn from a seeded generator.

#include "compiler/StandardLibraryBootstrap.h"
#include "tests/reliability/ReliabilitySupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;
using compiler::StandardLibraryBootstrap;

constexpr int kTopFiles = 120;
constexpr int kFolders = 4;
constexpr int kFolderFiles = 60;

std::string fileName(int index) {
    return "unit" + std::to_string(index) + ".qo";
}
std::string folderName(int index) {
    return "package" + std::to_string(index);
}

// The same layout for the victim and the sentinels: files at the top and in a
// few folders, so that a removal takes a while and a swap can land anywhere.
void populate(const fs::path& directory, const std::string& content) {
    fs::create_directories(directory);
    for (int i = 0; i < kTopFiles; ++i) {
        writeFile(directory / fileName(i), content, Parents::MustExist);
    }
    for (int f = 0; f < kFolders; ++f) {
        fs::create_directories(directory / folderName(f));
        for (int i = 0; i < kFolderFiles; ++i) {
            writeFile(directory / folderName(f) / fileName(i), content, Parents::MustExist);
        }
    }
}

// Counts the sentinel files that are still there with their content.
int intactSentinels(const fs::path& outside) {
    int intact = 0;
    const auto check = [&](const fs::path& file) {
        std::error_code error;
        if (fs::is_regular_file(fs::symlink_status(file, error)) &&
            readFile(file, Unreadable::Throw) == "sentinel") {
            ++intact;
        }
    };
    for (int i = 0; i < kTopFiles; ++i) {
        check(outside / fileName(i));
    }
    for (int f = 0; f < kFolders; ++f) {
        for (int i = 0; i < kFolderFiles; ++i) {
            check(outside / folderName(f) / fileName(i));
        }
    }
    return intact;
}

constexpr int kSentinelCount = kTopFiles + kFolders * kFolderFiles;

bool exchange(const fs::path& a, const fs::path& b) {
    return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

// Swaps `victim` and `decoy` (a symbolic link to the outside) until told to
// stop, and puts them back in place before returning whenever it can.
class Attacker {
public:
    Attacker(fs::path victim, fs::path decoy, bool twoStep, std::uint64_t seed)
        : victim_(std::move(victim)), decoy_(std::move(decoy)), twoStep_(twoStep), random_(seed) {
        thread_ = std::thread([this] { run(); });
        while (!started_.load()) {
            std::this_thread::yield();
        }
    }

    ~Attacker() { stop(); }

    void stop() {
        stopping_.store(true);
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    unsigned swaps() const { return swaps_.load(); }

private:
    void pause() {
        const unsigned spins = std::uniform_int_distribution<unsigned>(0, 4000)(random_);
        for (unsigned i = 0; i < spins; ++i) {
            sink_.fetch_add(1, std::memory_order_relaxed); // a pause the optimiser keeps
        }
    }

    bool swap() {
        if (!twoStep_) {
            return exchange(victim_, decoy_);
        }
        // victim -> parked, decoy -> victim, parked -> decoy: the victim's name is
        // missing for a moment.
        const fs::path parked = decoy_.native() + ".parked";
        std::error_code error;
        fs::rename(victim_, parked, error);
        if (error) {
            return false;
        }
        fs::rename(decoy_, victim_, error);
        fs::rename(parked, decoy_, error);
        return !error;
    }

    void run() {
        started_.store(true);
        while (!stopping_.load()) {
            pause();
            if (swap()) {
                swaps_.fetch_add(1);
            }
        }
    }

    fs::path victim_;
    fs::path decoy_;
    bool twoStep_;
    std::mt19937_64 random_;
    std::atomic<bool> started_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned> swaps_{0};
    std::atomic<unsigned> sink_{0};
    std::thread thread_;
};

// Removes `path` after the attack, without following a link at its place.
void clear(const fs::path& path) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    if (fs::is_symlink(status)) {
        fs::remove(path);
    } else if (fs::is_directory(status)) {
        fs::remove_all(path);
    }
}

TEST(PruneAttack, SwappingTheVersionForALinkNeverDeletesOutsideTheRoot) {
    const unsigned rounds = stressCount("QUOR_PRUNE_ROUNDS", 60, 1000);
    const std::uint64_t seed = stressSeed();
    std::cout << "prune attack: " << rounds << " rounds, seed " << seed << std::endl;
    std::mt19937_64 random(seed);

    TemporaryDirectory scratch;
    const fs::path root = scratch.path() / "cache";
    const fs::path outside = scratch.path() / "outside";
    populate(outside, "sentinel");
    populate(root / "0.1.6", "current");
    const fs::path version = root / "0.1.5";
    const fs::path state = root / ".first-launch" / "0.1.5";

    std::map<std::string, unsigned> outcomes;
    unsigned totalSwaps = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        // Even rounds attack the version directory itself, odd ones a folder
        // inside it; every fourth round swaps with two renames.
        const bool nested = round % 2 == 1;
        const bool twoStep = round % 4 >= 2;
        const fs::path victim = nested ? version / folderName(1) : version;
        const fs::path decoy = root / "decoy";
        clear(decoy);
        clear(decoy.native() + ".parked");
        clear(version);
        populate(version, "old");
        fs::create_directories(state / "lib");
        writeFile(state / "lib" / ".quor-stdlib-ready", "old marker", Parents::MustExist);
        fs::create_directory_symlink(nested ? outside / folderName(1) : outside, decoy);

        std::string outcome;
        std::size_t removed = 0;
        {
            Attacker attacker(victim, decoy, twoStep, random());
            try {
                removed = StandardLibraryBootstrap::removeOlderCacheVersions(root, "0.1.6");
                // 0: the version was a link when it was listed, or gone when it
                // was about to be removed.
                outcome = removed == 1 ? "removed" : "not removed (a link or gone)";
            } catch (const std::runtime_error& error) {
                const std::string message = error.what();
                const std::string unsafe =
                    "Refusing to remove unsafe Quor cache path '" + version.native() + "'";
                const std::string failed =
                    "Unable to remove old Quor cache '" + version.native() + "': ";
                if (message == unsafe) {
                    outcome = "refused as unsafe";
                } else if (message.rfind(failed, 0) == 0) {
                    outcome = "removal error: " + message.substr(failed.size());
                } else {
                    ADD_FAILURE() << "round " << round << ": unexpected error: " << message;
                    outcome = "unexpected: " + message;
                }
            }
            attacker.stop();
            totalSwaps += attacker.swaps();
        }
        // The removal may finish on the decoy's name after a swap: it then
        // reports the version removed while the real directory, emptied or not,
        // survives inside the root under the decoy's name.
        std::error_code ignored;
        if (outcome == "removed" && fs::is_directory(fs::symlink_status(decoy, ignored))) {
            outcome += ", directory survived as the decoy";
        }
        ++outcomes[(nested ? "nested, " : "top, ") +
                   std::string(twoStep ? "renames: " : "exchange: ") + outcome];

        ASSERT_EQ(intactSentinels(outside), kSentinelCount)
            << "round " << round << " (" << outcome << ") deleted files outside the cache root";
        ASSERT_TRUE(fs::exists(root / "0.1.6" / fileName(0))) << "round " << round;
        if (removed == 1) {
            EXPECT_FALSE(fs::exists(state)) << "round " << round;
        } else {
            EXPECT_TRUE(fs::exists(state / "lib" / ".quor-stdlib-ready")) << "round " << round;
        }
        clear(state);
    }

    std::cout << "prune attack: " << totalSwaps << " swaps in all; outcomes:\n";
    for (const auto& [outcome, count] : outcomes) {
        std::cout << "  " << count << "  " << outcome << "\n";
        ::testing::Test::RecordProperty(outcome, static_cast<int>(count));
    }
    EXPECT_GT(totalSwaps, 0U);
}

} // namespace
} // namespace quor::reliability
