// StandardLibraryCacheState: the marker markReady() publishes, what isReady()
// accepts, and markReady()'s failures with their exact messages.

#include "compiler/StandardLibraryCacheState.h"
#include "tests/bootstrap/TestSupport.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace quor::testing {
namespace {

using compiler::StandardLibraryCacheState;

// Names of the files in `dir` that start with `prefix`.
std::vector<std::string> filesStartingWith(const fs::path& dir, const std::string& prefix) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().native();
        if (name.rfind(prefix, 0) == 0) {
            names.push_back(name);
        }
    }
    return names;
}

// A child's report of what markReady() throws for a marker in `dir`.
std::string markReadyError(const fs::path& dir) {
    return "error: " +
           runtimeErrorOf([&] { StandardLibraryCacheState(dir, "0.1.6", 3, "abc").markReady(); }) +
           "\n";
}

// In a child: markReadyError(dir) while any write past the first few bytes of
// a file fails with EFBIG instead of killing the process. Only the soft limit
// is lowered, and raised again afterwards: the child's report goes to a file.
std::string markReadyErrorWithTinyFiles(const fs::path& dir) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit usual{};
    if (getrlimit(RLIMIT_FSIZE, &usual) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit(RLIMIT_FSIZE)");
    }
    const rlimit tiny{8, usual.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &tiny) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit(RLIMIT_FSIZE)");
    }
    const std::string error = markReadyError(dir);
    setrlimit(RLIMIT_FSIZE, &usual); // cannot fail: back to a limit the child already had
    return error;
}

TEST(CacheState, MarkReadyWritesExactlyTheSeventyThreeBytes) {
    TemporaryDirectory temp;
    const StandardLibraryCacheState state(temp.path(), "0.1.6", 3, "abc");
    state.markReady();
    const std::string expected = "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=3\n"
                                 "fingerprint=abc\n";
    ASSERT_EQ(expected.size(), 73u);
    EXPECT_EQ(readFile(temp.path() / ".quor-stdlib-ready"), expected);
}

TEST(CacheState, MarkReadyLeavesNoTemporaryFile) {
    TemporaryDirectory temp;
    StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").markReady();
    EXPECT_TRUE(filesStartingWith(temp.path(), ".quor-stdlib-ready.tmp.").empty());
    EXPECT_EQ(filesStartingWith(temp.path(), ".quor-stdlib-ready"),
              std::vector<std::string>{".quor-stdlib-ready"});
}

TEST(CacheState, MarkReadyCreatesMissingAncestors) {
    TemporaryDirectory temp;
    const fs::path dir = temp.path() / "a" / "b" / "c";
    const StandardLibraryCacheState state(dir, "0.1.6", 3, "abc");
    state.markReady();
    EXPECT_TRUE(fs::is_directory(dir));
    EXPECT_TRUE(state.isReady());
}

TEST(CacheState, IsReadyWithoutMarkerIsFalseAndCreatesNothing) {
    TemporaryDirectory temp;
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path() / "x" / "y", "0.1.6", 3, "abc").isReady());
    EXPECT_TRUE(pathsBelow(temp.path()).empty());
}

TEST(CacheState, ConstructorTouchesNoFile) {
    TemporaryDirectory temp;
    const StandardLibraryCacheState state(temp.path() / "x", "0.1.6", 3, "abc");
    EXPECT_TRUE(pathsBelow(temp.path()).empty());
}

TEST(CacheState, IsReadyIsFalseWhenAnyIdentityByteDiffers) {
    TemporaryDirectory temp;
    StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").markReady();
    EXPECT_TRUE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.7", 3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6.", 3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1", 3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 4, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", -3, "abc").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abC").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abcd").isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "").isReady());
}

TEST(CacheState, SecondMarkReadyKeepsExactlyOneMarkerWithSameContent) {
    TemporaryDirectory temp;
    const StandardLibraryCacheState state(temp.path(), "0.1.6", 3, "abc");
    state.markReady();
    const std::string first = readFile(temp.path() / ".quor-stdlib-ready");
    state.markReady();
    EXPECT_EQ(readFile(temp.path() / ".quor-stdlib-ready"), first);
    EXPECT_EQ(pathsBelow(temp.path()), std::set<std::string>{".quor-stdlib-ready"});
    EXPECT_TRUE(state.isReady());
}

TEST(CacheState, MarkReadyReplacesMarkerOfAnotherIdentity) {
    TemporaryDirectory temp;
    StandardLibraryCacheState(temp.path(), "0.1.5", 2, "old").markReady();
    const StandardLibraryCacheState state(temp.path(), "0.1.6", 3, "abc");
    EXPECT_FALSE(state.isReady());
    state.markReady();
    EXPECT_TRUE(state.isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.5", 2, "old").isReady());
}

TEST(CacheState, MarkReadyReplacesGarbageMarker) {
    TemporaryDirectory temp;
    writeFile(temp.path() / ".quor-stdlib-ready", "garbage");
    const StandardLibraryCacheState state(temp.path(), "0.1.6", 3, "abc");
    state.markReady();
    EXPECT_TRUE(state.isReady());
}

TEST(CacheState, MarkReadyFailsWhenRegularFileStandsInPlaceOfDirectory) {
    TemporaryDirectory temp;
    const fs::path dir = temp.path() / "cache";
    writeFile(dir, "not a directory");
    std::error_code expectedError;
    fs::create_directories(dir, expectedError);
    ASSERT_TRUE(expectedError);
    EXPECT_EQ(
        runtimeErrorOf([&] { StandardLibraryCacheState(dir, "0.1.6", 3, "abc").markReady(); }),
        "Unable to create standard-library cache directory '" + dir.native() +
            "': " + expectedError.message());
    EXPECT_EQ(readFile(dir), "not a directory");
}

TEST(CacheState, MarkReadyFailsWhenAncestorIsRegularFile) {
    TemporaryDirectory temp;
    writeFile(temp.path() / "file", "x");
    const fs::path dir = temp.path() / "file" / "cache";
    std::error_code expectedError;
    fs::create_directories(dir, expectedError);
    ASSERT_TRUE(expectedError);
    EXPECT_EQ(
        runtimeErrorOf([&] { StandardLibraryCacheState(dir, "0.1.6", 3, "abc").markReady(); }),
        "Unable to create standard-library cache directory '" + dir.native() +
            "': " + expectedError.message());
}

TEST(CacheState, MarkReadyFailsToPublishOntoNonEmptyDirectory) {
    TemporaryDirectory temp;
    writeFile(temp.path() / ".quor-stdlib-ready" / "occupant", "x");
    // The rename error the marker's publication meets, made the same way.
    writeFile(temp.path() / "probe-dir" / "occupant", "x");
    writeFile(temp.path() / "probe-file", "x");
    std::error_code renameError;
    fs::rename(temp.path() / "probe-file", temp.path() / "probe-dir", renameError);
    ASSERT_TRUE(renameError);
    fs::remove_all(temp.path() / "probe-dir");
    fs::remove(temp.path() / "probe-file");

    EXPECT_EQ(runtimeErrorOf(
                  [&] { StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").markReady(); }),
              "Unable to publish standard-library cache marker: " + renameError.message());
    EXPECT_TRUE(filesStartingWith(temp.path(), ".quor-stdlib-ready.tmp.").empty());
    EXPECT_TRUE(fs::is_directory(temp.path() / ".quor-stdlib-ready"));
    EXPECT_EQ(readFile(temp.path() / ".quor-stdlib-ready" / "occupant"), "x");
}

TEST(CacheState, NegativeAbiIsWrittenWithMinusSignAndValidates) {
    TemporaryDirectory temp;
    const StandardLibraryCacheState state(temp.path(), "0.1.6", -1, "abc");
    state.markReady();
    EXPECT_EQ(readFile(temp.path() / ".quor-stdlib-ready"),
              "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=-1\nfingerprint=abc\n");
    EXPECT_TRUE(state.isReady());
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 1, "abc").isReady());
}

TEST(CacheState, EmptyVersionAndFingerprintAreWrittenAsEmptyValues) {
    TemporaryDirectory temp;
    const StandardLibraryCacheState state(temp.path(), "", 0, "");
    state.markReady();
    EXPECT_EQ(readFile(temp.path() / ".quor-stdlib-ready"),
              "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=\nabi=0\nfingerprint=\n");
    EXPECT_TRUE(state.isReady());
}

TEST(CacheState, IsReadyOnDirectoryInPlaceOfMarkerIsFalse) {
    TemporaryDirectory temp;
    fs::create_directories(temp.path() / ".quor-stdlib-ready");
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").isReady());
}

TEST(CacheState, IsReadyIgnoresStrayTemporaryFiles) {
    TemporaryDirectory temp;
    writeFile(temp.path() / ".quor-stdlib-ready.tmp.1.2",
              "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=3\nfingerprint=abc\n");
    EXPECT_FALSE(StandardLibraryCacheState(temp.path(), "0.1.6", 3, "abc").isReady());
}

TEST(CacheState, UnreadableMarkerIsNotReady) {
    TemporaryDirectory temp;
    fs::permissions(temp.path(), fs::perms(0755));
    const StandardLibraryCacheState state(temp.path(), "0.1.6", 3, "abc");
    state.markReady();
    fs::permissions(temp.path() / ".quor-stdlib-ready", fs::perms(0600));
    EXPECT_EXIT(
        testsupport::reportAsNobody([&] { return state.isReady() ? "ready\n" : "not ready\n"; }),
        ::testing::ExitedWithCode(0), ::testing::Eq("not ready\n"));
}

TEST(CacheState, MarkReadyFailsWhenTemporaryFileCannotBeCreated) {
    TemporaryDirectory temp;
    fs::permissions(temp.path(), fs::perms(0755));
    const fs::path dir = temp.path() / "cache";
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms(0755)); // owned by root: nobody may create files in it
    const std::string marker = (dir / ".quor-stdlib-ready").native();
    const std::string prefix = "Unable to write standard-library cache marker '" + marker + ".tmp.";
    EXPECT_EXIT(testsupport::reportAsNobody([&] { return markReadyError(dir); }),
                ::testing::ExitedWithCode(0),
                ::testing::MatchesRegex("error: " + testsupport::literalPattern(prefix) +
                                        "[0-9]+\\.-?[0-9]+'\n"));
    EXPECT_TRUE(pathsBelow(dir).empty());
}

TEST(CacheState, MarkReadyFailsWhenMarkerCannotBeFlushedAndRemovesTemporary) {
    TemporaryDirectory temp;
    const fs::path dir = temp.path();
    const std::string marker = (dir / ".quor-stdlib-ready").native();
    // The forked child runs on a copy of this thread, with its id.
    const std::string prefix =
        "Unable to flush standard-library cache marker '" + marker + ".tmp." +
        std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())) + ".";
    EXPECT_EXIT(
        testsupport::reportAndExit([&] { return markReadyErrorWithTinyFiles(dir); }),
        ::testing::ExitedWithCode(0),
        ::testing::MatchesRegex("error: " + testsupport::literalPattern(prefix) + "-?[0-9]+'\n"));
    EXPECT_TRUE(pathsBelow(dir).empty());
}

TEST(CacheState, MarkReadyFailureLeavesPreviousMarkerUntouched) {
    TemporaryDirectory temp;
    const fs::path dir = temp.path();
    StandardLibraryCacheState(dir, "0.1.5", 2, "old").markReady();
    const std::string before = readFile(dir / ".quor-stdlib-ready");
    EXPECT_EXIT(testsupport::reportAndExit([&] { return markReadyErrorWithTinyFiles(dir); }),
                ::testing::ExitedWithCode(0),
                ::testing::MatchesRegex(
                    "error: " +
                    testsupport::literalPattern("Unable to flush standard-library cache marker '") +
                    ".*"));
    EXPECT_EQ(readFile(dir / ".quor-stdlib-ready"), before);
    EXPECT_EQ(pathsBelow(dir), std::set<std::string>{".quor-stdlib-ready"});
}

} // namespace
} // namespace quor::testing
