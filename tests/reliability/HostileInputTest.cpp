// Hostile inputs: a cache root the user may not write, regular files and
// directories where the other kind must go, a lock file of another user, an
// unreadable library folder, a library reached through a symbolic link, very
// long paths, file names that are not UTF-8, an empty unit and a 100 MiB unit.
// The unit runs on the real services; where the tool's own handling matters
// (its exit status, its JSON), the tool runs as a process.
//
// Every case checks the outcome docs/errors.md gives for it: the exact message,
// no marker where the build did not finish, nothing deleted that was there.
// Permission cases run in a child that drops to uid 65534, since root passes
// every permission check.

#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/ToolHarness.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;
using compiler::Runtime;
using compiler::RuntimeConfiguration;
using compiler::SourceManager;
using compiler::StandardLibraryBootstrap;

class HostileInput : public ::testing::Test {
protected:
    void SetUp() override {
        // Readable and searchable by the unprivileged child.
        fs::permissions(scratch.path(), fs::perms::all, fs::perm_options::replace);
        fs::permissions(scratch.path(), fs::perms::others_write | fs::perms::group_write,
                        fs::perm_options::remove);
        compiled = generateLibrary(library, 14, 400, stressSeed());
        fingerprint =
            readFile(library / ".quor-stdlib-fingerprint", Unreadable::Throw).substr(0, 64);
        configure(library, cache);
    }

    void TearDown() override { SourceManager::instance().clear(); }

    static void configure(const fs::path& stdlib, const fs::path& cacheRoot) {
        RuntimeConfiguration configuration;
        configuration.standardLibraryPath = stdlib.string();
        configuration.cacheRoot = cacheRoot.string();
        configuration.jobs = 2;
        Runtime::getInstance().configure(configuration);
        SourceManager::instance().clear();
    }

    // The message of the exception ensure() throws, or "" when it succeeds.
    static std::string ensureError() {
        try {
            StandardLibraryBootstrap::ensure({});
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return {};
    }

    fs::path stateDirectory() const { return markerPathOf(cache).parent_path(); }
    fs::path lockFile() const {
        return cache / ".first-launch" / QUOR_COMPILER_VERSION / ".stdlib-bootstrap-lib.lock";
    }

    TemporaryDirectory scratch;
    fs::path library = scratch.path() / "stdlib";
    fs::path cache = scratch.path() / "cache";
    std::vector<fs::path> compiled;
    std::string fingerprint;
};

TEST_F(HostileInput, ReadOnlyCacheRootFailsWithTheCacheRootMessage) {
    fs::create_directories(cache);
    const fs::path lockDirectory = cache / ".first-launch" / QUOR_COMPILER_VERSION;
    EXPECT_EXIT(testsupport::reportAsNobody([&] {
                    const bool required = StandardLibraryBootstrap::isRequired();
                    return std::string(required ? "required" : "not required") +
                           "\nerror: " + ensureError() + "\n";
                }),
                ::testing::ExitedWithCode(0),
                ::testing::Eq("required\nerror: Unable to create Quor cache root '" +
                              lockDirectory.native() + "': Permission denied\n"));
    EXPECT_FALSE(fs::exists(cache / ".first-launch"));
}

TEST_F(HostileInput, RegularFileAsCacheRootFailsAndStaysUntouched) {
    writeFile(cache, "not a directory", Parents::MustExist);
    const fs::path lockDirectory = cache / ".first-launch" / QUOR_COMPILER_VERSION;
    EXPECT_EQ(ensureError(),
              "Unable to create Quor cache root '" + lockDirectory.native() + "': Not a directory");
    EXPECT_EQ(readFile(cache, Unreadable::Throw), "not a directory");
}

TEST_F(HostileInput, RegularFileAsStateDirectoryFailsAfterTheBuildWithoutAMarker) {
    fs::create_directories(stateDirectory().parent_path());
    writeFile(stateDirectory(), "in the way", Parents::MustExist);
    const std::string error = ensureError();
    const std::string prefix =
        "Unable to create standard-library cache directory '" + stateDirectory().native() + "': ";
    EXPECT_EQ(error.substr(0, prefix.size()), prefix) << error;
    EXPECT_EQ(readFile(stateDirectory(), Unreadable::Throw), "in the way");
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    std::cout << "state directory in the way: " << error << std::endl;
}

TEST_F(HostileInput, MarkerPathThatIsADirectoryFailsToPublishAndLeavesNoTemporary) {
    fs::create_directories(markerPathOf(cache) / "occupied");
    EXPECT_EQ(ensureError(), "Unable to publish standard-library cache marker: Is a directory");
    EXPECT_TRUE(fs::is_directory(markerPathOf(cache) / "occupied"));
    for (const fs::directory_entry& entry : fs::directory_iterator(stateDirectory())) {
        EXPECT_EQ(entry.path().filename(), ".quor-stdlib-ready");
    }
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
}

TEST_F(HostileInput, LockFileOfAnotherUserFailsWithTheLockMessage) {
    fs::create_directories(lockFile().parent_path());
    const int fd = ::open(lockFile().c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    fs::permissions(cache, fs::perms::all, fs::perm_options::add); // writable for the child
    const std::string expected =
        "Unable to lock Quor standard-library cache '" + lockFile().native() + "'";
    EXPECT_EXIT(testsupport::reportAsNobody([&] { return "error: " + ensureError() + "\n"; }),
                ::testing::ExitedWithCode(0), ::testing::Eq("error: " + expected + "\n"));
    EXPECT_FALSE(fs::exists(markerPathOf(cache)));
}

TEST_F(HostileInput, UnreadableLibraryFolderIsSkippedAndTheRestIsBuilt) {
    const fs::path hidden = library / "secret";
    fs::create_directories(hidden);
    writeFile(hidden / "Hidden.qr", "package secret\n\npublic class Hidden {\n}\n",
              Parents::MustExist);
    fs::permissions(hidden, fs::perms::owner_all, fs::perm_options::replace);
    // The unprivileged user's own cache root: one that others may write to
    // would be refused before the walk.
    fs::create_directories(cache);
    ASSERT_EQ(::chown(cache.c_str(), 65534, 65534), 0);
    EXPECT_EXIT(
        testsupport::reportAsNobody([&] {
            const compiler::StandardLibraryBootstrapResult result =
                StandardLibraryBootstrap::ensure({});
            return std::string(result.bootstrapped ? "built " : "not built ") +
                   std::to_string(result.total) + " units, marker " +
                   (markerValid(cache, fingerprint) ? "valid" : "not valid") + "\n";
        }),
        ::testing::ExitedWithCode(0),
        ::testing::Eq("built " + std::to_string(compiled.size()) + " units, marker valid\n"));
    EXPECT_FALSE(fs::exists(libCacheOf(cache) / "secret" / "Hidden.qo"));
    EXPECT_TRUE(markerValid(cache, fingerprint));
}

TEST_F(HostileInput, LibraryReachedThroughASymbolicLinkIsBuiltInFull) {
    const fs::path link = scratch.path() / "stdlib-link";
    fs::create_directory_symlink(library, link);
    configure(link, cache);
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    const compiler::StandardLibraryBootstrapResult result = StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_EQ(result.total, compiled.size());
    EXPECT_TRUE(markerValid(cache, fingerprint));
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

// Cache roots near PATH_MAX. One whose paths all fit builds. One where the
// lock file's path no longer fits fails with the lock message, which carries no
// system text. One where the lock fits but the objects' or the marker's paths
// do not fails in the step that meets the limit, and publishes no marker.
fs::path deepDirectory(const fs::path& base, std::size_t length) {
    fs::path path = base;
    while (path.native().size() + 201 < length) {
        path /= std::string(200, 'd');
    }
    path /= std::string(length - path.native().size() - 1, 'e');
    fs::create_directories(path);
    return path;
}

// The longest path the kernel takes, without its terminating NUL.
constexpr std::size_t kLongestPath = PATH_MAX - 1;

TEST_F(HostileInput, LongCacheRootBelowPathMaxBuilds) {
    const fs::path deep = deepDirectory(scratch.path(), kLongestPath - 160);
    configure(library, deep);
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_TRUE(markerValid(deep, fingerprint));
}

TEST_F(HostileInput, CacheRootWhoseLockPathIsTooLongFailsWithTheLockMessage) {
    const fs::path deep = deepDirectory(scratch.path(), kLongestPath - 30);
    configure(library, deep);
    const fs::path lock =
        deep / ".first-launch" / QUOR_COMPILER_VERSION / ".stdlib-bootstrap-lib.lock";
    ASSERT_GT(lock.native().size(), kLongestPath);
    EXPECT_EQ(ensureError(), "Unable to lock Quor standard-library cache '" + lock.native() + "'");
    EXPECT_FALSE(markerValid(deep, fingerprint));
}

TEST_F(HostileInput, CacheRootTooLongForObjectsOrMarkerFailsWithoutAMarker) {
    const fs::path deep = deepDirectory(scratch.path(), kLongestPath - 50);
    configure(library, deep);
    const std::string error = ensureError();
    EXPECT_FALSE(error.empty());
    EXPECT_NE(error.find("File name too long"), std::string::npos) << error;
    EXPECT_FALSE(markerValid(deep, fingerprint));
    std::cout << "near PATH_MAX: " << error.substr(0, 60) << "..."
              << error.substr(error.size() - 60) << std::endl;
}

TEST_F(HostileInput, NonUtf8FileNamesAreCompiledUnderTheirOwnBytes) {
    writeFile(library / "caf\xe9.qr", "public fn latin() -> Int {\n    return 1\n}\n",
              Parents::MustExist);
    EXPECT_EQ(StandardLibraryBootstrap::ensure({}).total, compiled.size() + 1);
    EXPECT_TRUE(fs::exists(libCacheOf(cache) / "caf\xe9.qo"));
    EXPECT_TRUE(markerValid(cache, fingerprint));
}

TEST_F(HostileInput, NonUtf8FileNamesKeepTheToolsJsonValid) {
    if (toolPath().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib tool";
    }
    writeFile(library / "caf\xe9.qr", "public fn latin() -> Int {\n    return 1\n}\n",
              Parents::MustExist);
    const ToolRun run =
        runTool({"--stdlib", library.string(), "--cache-root", cache.string(), "--json", "ensure"},
                scratch.path() / "tool.log");
    EXPECT_EQ(run.status, 0) << run.output;
    std::istringstream lines(run.output);
    std::string line;
    while (std::getline(lines, line)) {
        EXPECT_FALSE(nlohmann::json::parse(line, nullptr, false).is_discarded()) << line;
    }
    EXPECT_TRUE(markerValid(cache, fingerprint));
}

TEST_F(HostileInput, EmptyUnitIsCompiled) {
    writeFile(library / "Empty.qr", "", Parents::MustExist);
    EXPECT_EQ(StandardLibraryBootstrap::ensure({}).total, compiled.size() + 1);
    EXPECT_TRUE(fs::exists(libCacheOf(cache) / "Empty.qo"));
    EXPECT_TRUE(markerValid(cache, fingerprint));
}

TEST_F(HostileInput, HundredMebibyteUnitIsCompiled) {
    const std::size_t size = std::size_t{stressCount("QUOR_HUGE_UNIT_MIB", 100, 100)} << 20;
    std::string text = "public sealed class Huge : Sized {\n";
    const std::string member = "    fn step(value: Int) -> Int { return value * 31 + 7 }\n";
    text.reserve(size + member.size());
    while (text.size() + member.size() + 2 < size) {
        text += member;
    }
    text += "}\n";
    text.resize(size, '\n');
    writeFile(library / "Huge.qr", text, Parents::MustExist);
    text.clear();
    text.shrink_to_fit();
    EXPECT_EQ(StandardLibraryBootstrap::ensure({}).total, compiled.size() + 1);
    EXPECT_TRUE(fs::exists(libCacheOf(cache) / "Huge.qo"));
    EXPECT_TRUE(markerValid(cache, fingerprint));
}

TEST_F(HostileInput, ToolRefusesAFileAsCacheRootWithExitStatusOne) {
    if (toolPath().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib tool";
    }
    writeFile(cache, "not a directory", Parents::MustExist);
    const ToolRun run =
        runTool({"--stdlib", library.string(), "--cache-root", cache.string(), "ensure"},
                scratch.path() / "tool.log");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("quor-stdlib: error: Refusing to use Quor cache root '" +
                              cache.native() + "': '" + cache.native() +
                              "' is not a directory; remove it or choose another cache root\n"),
              std::string::npos)
        << run.output;
    EXPECT_EQ(readFile(cache, Unreadable::Throw), "not a directory");
}

} // namespace
} // namespace quor::reliability
