// Listing and removing the caches of older compiler versions on real trees:
// which names count as versions, the listing's order, links, the safety check
// before each removal, the removal of first-launch states, and the failures.

#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/bootstrap/FakeServices.h"
#include "tests/bootstrap/TestSupport.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

namespace quor::testing {
namespace {

using compiler::StandardLibraryBootstrap;
using Paths = std::vector<fs::path>;

class CachePruning : public ::testing::Test {
protected:
    void SetUp() override {
        resetFakes();
        cache = temp.path() / "cache";
        fs::create_directories(cache);
    }

    void TearDown() override { resetFakes(); }

    // In a child, as uid 65534: reports the error of removing the caches of
    // versions older than 0.1.6.
    [[noreturn]] void reportRemovalErrorAsNobody() const {
        testsupport::reportAsNobody([&] {
            return "error: " + runtimeErrorOf([&] {
                       StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6");
                   }) +
                   "\n";
        });
    }

    void dirs(std::initializer_list<std::string> names) {
        for (const std::string& name : names) {
            fs::create_directories(cache / name);
        }
    }

    Paths under(std::initializer_list<std::string> names) const {
        Paths paths;
        for (const std::string& name : names) {
            paths.push_back(cache / name);
        }
        return paths;
    }

    Paths older(const std::string& current) const {
        return StandardLibraryBootstrap::olderCacheVersions(cache, current);
    }

    static std::string s(const fs::path& path) { return path.native(); }

    TemporaryDirectory temp;
    fs::path cache;
};

TEST_F(CachePruning, VersionParsesIntoThreeNumbers) {
    dirs({"0.3.4", "1.1.9", "1.2.2", "1.2.3", "1.2.4", "1.3.0", "2.0.0"});
    EXPECT_EQ(older("1.2.3"), under({"0.3.4", "1.1.9", "1.2.2"}));
}

TEST_F(CachePruning, MalformedCurrentVersionsGiveEmptyList) {
    dirs({"0.0.0", "0.0.1"});
    for (const std::string current :
         {"1.2", "1.2.3.4", ".1.2", "1..2", "1.2.", "1.2.3a", "+1.2.3", " 1.2.3", "", "1.2.3 ",
          "-1.2.3", "1.-2.3", "0x1.2.3", "a.b.c", "1.2.3.", "..", "1.2..3"}) {
        EXPECT_EQ(older(current), Paths{}) << "current [" << current << "]";
        EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, current), 0u);
    }
    EXPECT_TRUE(fs::is_directory(cache / "0.0.0"));
}

TEST_F(CachePruning, MalformedNamesAreNeverListed) {
    dirs({"1.2", "1.2.3.4", ".1.2", "1..2", "1.2.", "1.2.3a", "+1.2.3", " 1.2.3", "1.2.3 ",
          "0.1.5-rc", "release-0.1.5", "version-0.1.5-abi-3", "1.0.0"});
    EXPECT_EQ(older("9.9.9"), under({"1.0.0"}));
}

TEST_F(CachePruning, LargestSixtyFourBitComponentParses) {
    dirs({"18446744073709551614.0.0", "18446744073709551615.0.0", "1.0.0"});
    EXPECT_EQ(older("18446744073709551615.0.0"), under({"1.0.0", "18446744073709551614.0.0"}));
}

TEST_F(CachePruning, OverflowingComponentIsRejectedWithoutException) {
    dirs({"1.0.0", "18446744073709551616.0.0", "0.0.99999999999999999999"});
    EXPECT_EQ(older("18446744073709551616.0.0"), Paths{});
    EXPECT_EQ(older("18446744073709551615.9.9"), under({"1.0.0"}));
}

TEST_F(CachePruning, LeadingZerosAreAllowed) {
    dirs({"00.01.010"});
    EXPECT_EQ(older("0.1.11"), under({"00.01.010"}));
    EXPECT_EQ(older("0.1.10"), Paths{});
    EXPECT_EQ(older("000.001.011"), under({"00.01.010"}));
}

TEST_F(CachePruning, ListsOnlyOlderRealVersionDirectories) {
    dirs({"0.1.5", "0.1.6", "0.2.0", "0.0.9", "notes", "0.1.5-rc"});
    fs::create_directories(temp.path() / "elsewhere");
    fs::create_directory_symlink(temp.path() / "elsewhere", cache / "0.1.4");
    EXPECT_EQ(older("0.1.6"), under({"0.0.9", "0.1.5"}));
}

TEST_F(CachePruning, ListingIsInPathOrderNotVersionOrder) {
    dirs({"0.9.0", "0.10.0"});
    EXPECT_EQ(older("1.0.0"), under({"0.10.0", "0.9.0"}));
}

TEST_F(CachePruning, RemovalFollowsPathOrder) {
    // 0.10.0 goes first: its removal succeeds before 0.9.0 is refused as a link.
    dirs({"0.10.0"});
    fs::create_directories(temp.path() / "target");
    fs::create_directory_symlink(temp.path() / "target", cache / "0.9.0");
    EXPECT_EQ(older("1.0.0"), under({"0.10.0"}));
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "1.0.0"), 1u);
    EXPECT_FALSE(fs::exists(cache / "0.10.0"));
    EXPECT_TRUE(fs::is_directory(temp.path() / "target"));
}

TEST_F(CachePruning, RegularFileNamedLikeVersionIsNotListed) {
    writeFile(cache / "0.1.0", "file");
    EXPECT_EQ(older("0.1.6"), Paths{});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 0u);
    EXPECT_TRUE(fs::is_regular_file(cache / "0.1.0"));
}

TEST_F(CachePruning, NonVersionCurrentGivesEmptyList) {
    dirs({"0.0.1", "0.1.5"});
    EXPECT_EQ(older("abc"), Paths{});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "abc"), 0u);
    EXPECT_TRUE(fs::is_directory(cache / "0.0.1"));
}

TEST_F(CachePruning, ListedPathsAreLexicallyNormal) {
    dirs({"0.1.5", "sub"});
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(fs::path(s(cache) + "/./"), "0.1.6"),
              under({"0.1.5"}));
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(cache / "sub" / "..", "0.1.6"),
              under({"0.1.5"}));
}

TEST_F(CachePruning, RootWithTrailingSeparatorRefusesFirstCandidate) {
    dirs({"0.1.4", "0.1.5"});
    const fs::path slashed(s(cache) + "/");
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(slashed, "0.1.6"),
              under({"0.1.4", "0.1.5"}));
    EXPECT_EQ(runtimeErrorOf(
                  [&] { StandardLibraryBootstrap::removeOlderCacheVersions(slashed, "0.1.6"); }),
              "Refusing to remove unsafe Quor cache path '" + s(cache / "0.1.4") + "'");
    EXPECT_TRUE(fs::is_directory(cache / "0.1.4"));
    EXPECT_TRUE(fs::is_directory(cache / "0.1.5"));
}

TEST_F(CachePruning, RemovesVersionTogetherWithItsFirstLaunchState) {
    writeFile(cache / "0.1.5" / "lib" / "core.o", "object");
    writeFile(cache / ".first-launch" / "0.1.5" / "lib" / ".quor-stdlib-ready", "marker");
    writeFile(cache / ".first-launch" / "0.1.5" / ".stdlib-bootstrap-lib.lock", "");
    writeFile(cache / ".first-launch" / "0.1.6" / "lib" / ".quor-stdlib-ready", "marker");
    dirs({"0.1.6", "0.2.0"});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 1u);
    EXPECT_FALSE(fs::exists(cache / "0.1.5"));
    EXPECT_FALSE(fs::exists(cache / ".first-launch" / "0.1.5"));
    EXPECT_TRUE(fs::is_directory(cache / "0.1.6"));
    EXPECT_TRUE(fs::is_directory(cache / "0.2.0"));
    EXPECT_TRUE(
        fs::is_regular_file(cache / ".first-launch" / "0.1.6" / "lib" / ".quor-stdlib-ready"));
}

TEST_F(CachePruning, RemovalWithoutFirstLaunchStateStillCounts) {
    dirs({"0.1.5"});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 1u);
    EXPECT_FALSE(fs::exists(cache / "0.1.5"));
}

TEST_F(CachePruning, FirstLaunchDirectorySurvivesPruning) {
    dirs({"0.0.1", ".first-launch/0.0.1", ".first-launch/0.1.6"});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 1u);
    EXPECT_TRUE(fs::is_directory(cache / ".first-launch"));
    EXPECT_TRUE(fs::is_directory(cache / ".first-launch" / "0.1.6"));
    EXPECT_FALSE(fs::exists(cache / ".first-launch" / "0.0.1"));
}

TEST_F(CachePruning, RemovesEveryOlderVersion) {
    dirs({"0.0.1", "0.1.0", "0.1.5", "0.1.6", "1.0.0", "scratch"});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 3u);
    EXPECT_EQ(pathsBelow(cache), (std::set<std::string>{"0.1.6", "1.0.0", "scratch"}));
}

TEST_F(CachePruning, LinkedVersionIsNeitherListedNorRemoved) {
    writeFile(temp.path() / "target" / "keep", "x");
    fs::create_directory_symlink(temp.path() / "target", cache / "0.1.4");
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 0u);
    EXPECT_TRUE(fs::is_symlink(cache / "0.1.4"));
    EXPECT_EQ(readFile(temp.path() / "target" / "keep"), "x");
}

TEST_F(CachePruning, MissingRootGivesEmptyList) {
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(temp.path() / "absent", "0.1.6"),
              Paths{});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(temp.path() / "absent", "0.1.6"),
              0u);
}

TEST_F(CachePruning, RootThatIsLinkGivesEmptyList) {
    dirs({"0.1.5"});
    fs::create_directory_symlink(cache, temp.path() / "link");
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(temp.path() / "link", "0.1.6"), Paths{});
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(temp.path() / "link", "0.1.6"),
              0u);
    EXPECT_TRUE(fs::is_directory(cache / "0.1.5"));
}

TEST_F(CachePruning, RootThatIsFileGivesEmptyList) {
    writeFile(temp.path() / "file", "x");
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(temp.path() / "file", "0.1.6"), Paths{});
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(temp.path() / "file" / "below", "0.1.6"),
              Paths{});
}

TEST_F(CachePruning, UnreadableRootGivesEmptyList) {
    fs::permissions(temp.path(), fs::perms(0755));
    dirs({"0.1.5"});
    fs::permissions(cache, fs::perms(0711));
    EXPECT_EXIT(testsupport::reportAsNobody([&] {
                    const auto listed =
                        StandardLibraryBootstrap::olderCacheVersions(cache, "0.1.6");
                    const auto removed =
                        StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6");
                    return "listed " + std::to_string(listed.size()) + ", removed " +
                           std::to_string(removed) + "\n";
                }),
                ::testing::ExitedWithCode(0), ::testing::Eq("listed 0, removed 0\n"));
    EXPECT_TRUE(fs::is_directory(cache / "0.1.5"));
}

TEST_F(CachePruning, RootBehindUnsearchableDirectoryGivesEmptyList) {
    fs::permissions(temp.path(), fs::perms(0700));
    dirs({"0.1.5"});
    EXPECT_EXIT(
        testsupport::reportAsNobody([&] {
            return "listed " +
                   std::to_string(
                       StandardLibraryBootstrap::olderCacheVersions(cache, "0.1.6").size()) +
                   "\n";
        }),
        ::testing::ExitedWithCode(0), ::testing::Eq("listed 0\n"));
}

TEST_F(CachePruning, IterationErrorThrowsWithSystemText) {
    dirs({"0.1.5"});
    const std::string expected = "Unable to inspect Quor cache versions in '" + s(cache) +
                                 "': " + std::error_code(EMFILE, std::generic_category()).message();
    EXPECT_EXIT(testsupport::reportAndExit([&] {
                    testsupport::exhaustDescriptors();
                    return "error: " + runtimeErrorOf([&] {
                               StandardLibraryBootstrap::olderCacheVersions(cache, "0.1.6");
                           }) +
                           "\n";
                }),
                ::testing::ExitedWithCode(0), ::testing::Eq("error: " + expected + "\n"));
}

TEST_F(CachePruning, FailedRemovalOfVersionReportsCacheMessage) {
    fs::permissions(temp.path(), fs::perms(0755));
    fs::permissions(cache, fs::perms(0777));
    writeFile(cache / "0.1.5" / "locked" / "object", "x");
    fs::permissions(cache / "0.1.5", fs::perms(0777));
    fs::permissions(cache / "0.1.5" / "locked", fs::perms(0755));
    const std::string expected = "Unable to remove old Quor cache '" + s(cache / "0.1.5") +
                                 "': " + std::error_code(EACCES, std::generic_category()).message();
    EXPECT_EXIT(reportRemovalErrorAsNobody(), ::testing::ExitedWithCode(0),
                ::testing::Eq("error: " + expected + "\n"));
}

TEST_F(CachePruning, FailedRemovalOfFirstLaunchStateComesAfterCacheIsGone) {
    fs::permissions(temp.path(), fs::perms(0755));
    fs::permissions(cache, fs::perms(0777));
    writeFile(cache / "0.1.5" / "lib" / "core.o", "x");
    testsupport::giveToNobody(cache / "0.1.5");
    writeFile(cache / ".first-launch" / "0.1.5" / "lib" / ".quor-stdlib-ready", "marker");
    fs::permissions(cache / ".first-launch" / "0.1.5", fs::perms(0777));
    fs::permissions(cache / ".first-launch" / "0.1.5" / "lib", fs::perms(0755));
    const fs::path state = cache / ".first-launch" / "0.1.5";
    const std::string expected = "Unable to remove old Quor first-launch state '" + s(state) +
                                 "': " + std::error_code(EACCES, std::generic_category()).message();
    EXPECT_EXIT(reportRemovalErrorAsNobody(), ::testing::ExitedWithCode(0),
                ::testing::Eq("error: " + expected + "\n"));
    EXPECT_FALSE(fs::exists(cache / "0.1.5"));
    EXPECT_TRUE(fs::exists(state / "lib" / ".quor-stdlib-ready"));
}

TEST_F(CachePruning, ErrorStopsRunButEarlierRemovalsStay) {
    fs::permissions(temp.path(), fs::perms(0755));
    fs::permissions(cache, fs::perms(0777));
    dirs({"0.1.3"});
    lchown((cache / "0.1.3").c_str(), 65534, 65534);
    writeFile(cache / "0.1.4" / "locked" / "object", "x");
    fs::permissions(cache / "0.1.4", fs::perms(0777));
    dirs({"0.1.5"});
    lchown((cache / "0.1.5").c_str(), 65534, 65534);
    const std::string expected = "Unable to remove old Quor cache '" + s(cache / "0.1.4") +
                                 "': " + std::error_code(EACCES, std::generic_category()).message();
    EXPECT_EXIT(reportRemovalErrorAsNobody(), ::testing::ExitedWithCode(0),
                ::testing::Eq("error: " + expected + "\n"));
    EXPECT_FALSE(fs::exists(cache / "0.1.3"));
    EXPECT_TRUE(fs::exists(cache / "0.1.4" / "locked" / "object"));
    EXPECT_TRUE(fs::is_directory(cache / "0.1.5"));
}

// Runs `change` on another thread as soon as the removal of "0.1.4" has deleted
// its first file. "0.1.4" holds enough files that its removal is still going on
// when the change is made, so the change lands between the listing and the
// check of "0.1.5".
class ChangeDuringRemoval {
public:
    ChangeDuringRemoval(const fs::path& cache, std::function<void()> change) {
        for (int i = 0; i < 4000; ++i) {
            writeFile(cache / "0.1.4" / ("f" + std::to_string(i)), "");
        }
        fd_ = inotify_init1(IN_CLOEXEC);
        if (fd_ < 0 || inotify_add_watch(fd_, (cache / "0.1.4").c_str(), IN_DELETE) < 0) {
            throw std::runtime_error("inotify unavailable");
        }
        thread_ = std::thread([this, change = std::move(change)] {
            pollfd ready{fd_, POLLIN, 0};
            alignas(inotify_event) char buffer[4096];
            if (poll(&ready, 1, 20000) == 1 && read(fd_, buffer, sizeof buffer) > 0) {
                change();
            }
        });
    }

    ~ChangeDuringRemoval() {
        if (thread_.joinable()) {
            thread_.join();
        }
        close(fd_); // nothing to report at teardown
    }

    void wait() { thread_.join(); }

private:
    int fd_ = -1;
    std::thread thread_;
};

TEST_F(CachePruning, CandidateGoneBeforeItsRemovalIsSkipped) {
    dirs({"0.1.5", ".first-launch/0.1.5"});
    ChangeDuringRemoval change(cache, [&] {
        std::error_code error;
        fs::rename(cache / "0.1.5", temp.path() / "moved", error);
    });
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"), 1u);
    change.wait();
    EXPECT_FALSE(fs::exists(cache / "0.1.4"));
    EXPECT_TRUE(fs::is_directory(temp.path() / "moved"));
    EXPECT_TRUE(fs::is_directory(cache / ".first-launch" / "0.1.5"));
}

TEST_F(CachePruning, CandidateTurnedIntoLinkIsRefused) {
    dirs({"0.1.5"});
    writeFile(temp.path() / "precious" / "keep", "x");
    ChangeDuringRemoval change(cache, [&] {
        std::error_code error;
        fs::remove(cache / "0.1.5", error);
        fs::create_directory_symlink(temp.path() / "precious", cache / "0.1.5", error);
    });
    const std::string message =
        runtimeErrorOf([&] { StandardLibraryBootstrap::removeOlderCacheVersions(cache, "0.1.6"); });
    change.wait();
    EXPECT_EQ(message, "Refusing to remove unsafe Quor cache path '" + s(cache / "0.1.5") + "'");
    EXPECT_EQ(readFile(temp.path() / "precious" / "keep"), "x");
    EXPECT_FALSE(fs::exists(cache / "0.1.4"));
}

TEST_F(CachePruning, ArgumentlessFormsUseRuntimeCacheRootAndCompilerVersion) {
    const std::string version = QUOR_COMPILER_VERSION;
    dirs({"0.0.1", version, "999.0.0"});
    setCacheBranchPath(s(cache / version));
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(), under({"0.0.1"}));
    const auto log = serviceLog();
    EXPECT_NE(std::find(log.begin(), log.end(), "Runtime::getCacheBranchPath"), log.end());
    EXPECT_EQ(StandardLibraryBootstrap::removeOlderCacheVersions(), 1u);
    EXPECT_EQ(pathsBelow(cache), (std::set<std::string>{version, "999.0.0"}));
}

TEST_F(CachePruning, ArgumentlessFormsAgreeWithExplicitOnes) {
    const std::string version = QUOR_COMPILER_VERSION;
    dirs({"0.0.1", "0.0.2", version});
    setCacheBranchPath(s(cache / "anything"));
    EXPECT_EQ(StandardLibraryBootstrap::olderCacheVersions(),
              StandardLibraryBootstrap::olderCacheVersions(cache, version));
}

} // namespace
} // namespace quor::testing
