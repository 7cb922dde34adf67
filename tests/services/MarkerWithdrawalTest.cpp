// Two standard libraries that share a cache root share its library cache and
// its readiness marker. A build for one of them must withdraw the marker before
// it changes an object, so that a failed or unfinished build never leaves the
// other library's marker vouching for objects it did not see.

#include "compiler/Compiler.h"
#include "compiler/ObjectCache.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <vector>

namespace quor::test {
namespace {

using compiler::Compiler;
using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapStage;

class MarkerWithdrawal : public ::testing::Test {
protected:
    MarkerWithdrawal() {
        writeLibrary(libraryA(), "public fn identity(x: Int) -> Int {\n    return x\n}\n",
                     std::string(64, 'a'));
        writeLibrary(libraryB(), "public fn twice(x: Int) -> Int {\n    return x\n}\n",
                     std::string(64, 'b'));
        // B also holds a unit that does not compile, after its Prelude in build order.
        writeFile(libraryB() / "time" / "Weekday.qr", "package time\n\npublic enum Weekday {\n");
    }

    static void writeLibrary(const fs::path& root, const std::string& prelude,
                             const std::string& fingerprint) {
        writeFile(root / "Prelude.qr", prelude);
        writeFile(root / "core" / "Int.qr", "package core\n\npublic struct Int {\n}\n");
        writeFile(root / ".quor-stdlib-fingerprint", fingerprint + "\n");
    }

    fs::path libraryA() const { return directory_.path() / "a"; }
    fs::path libraryB() const { return directory_.path() / "b"; }
    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path libCache(const fs::path& root) const { return root / QUOR_COMPILER_VERSION / "lib"; }
    fs::path marker() const {
        return cacheRoot() / ".first-launch" / QUOR_COMPILER_VERSION / "lib" / ".quor-stdlib-ready";
    }

    void use(const fs::path& library, const fs::path& root) {
        runtime_.reset();
        compiler::RuntimeConfiguration configuration;
        configuration.standardLibraryPath = library.native();
        configuration.cacheRoot = root.native();
        configuration.jobs = 1;
        runtime_.emplace(configuration);
    }

    std::string failureOfEnsure(
        const std::function<void(const StandardLibraryBootstrapProgress&)>& progress = {}) {
        return runtimeErrorOf([&] { StandardLibraryBootstrap::ensure(progress); });
    }

    TemporaryDirectory directory_;
    std::optional<ScopedRuntime> runtime_;
};

TEST_F(MarkerWithdrawal, FailedBuildOfAnotherLibraryLeavesTheFirstNotReadyUntilRebuilt) {
    use(libraryA(), cacheRoot());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    ASSERT_FALSE(StandardLibraryBootstrap::isRequired());

    use(libraryB(), cacheRoot());
    EXPECT_NE(failureOfEnsure().find("Weekday.qr:"), std::string::npos);
    // B's Prelude object has replaced A's: A's marker must not survive that.
    EXPECT_NE(readFile(libCache(cacheRoot()) / "Prelude.qo").find("twice"), std::string::npos);

    use(libraryA(), cacheRoot());
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());

    // Every object A's marker now vouches for is what a clean build of A makes.
    const fs::path clean = directory_.path() / "clean";
    use(libraryA(), clean);
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    for (const auto& [name, content] : snapshotTree(libCache(clean)))
        EXPECT_EQ(readFile(libCache(cacheRoot()) / name), content) << name;
}

TEST_F(MarkerWithdrawal, BuildOfAnotherLibraryWithdrawsTheMarkerBeforeItsFirstObject) {
    use(libraryA(), cacheRoot());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    ASSERT_TRUE(fs::exists(marker()));

    use(libraryB(), cacheRoot());
    bool markerSeenDuringTheBuild = false;
    failureOfEnsure([&](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage == StandardLibraryBootstrapStage::Compiling)
            markerSeenDuringTheBuild = markerSeenDuringTheBuild || fs::exists(marker());
    });
    EXPECT_FALSE(markerSeenDuringTheBuild);
    EXPECT_FALSE(fs::exists(marker()));
}

// The changes made below a set of directories, in the order the kernel made
// them: one inotify instance queues the events of all its watches in one line.
class ChangeLog {
public:
    explicit ChangeLog(const std::vector<fs::path>& directories)
        : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(fd_, 0);
        constexpr std::uint32_t changes = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                          IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
        for (const fs::path& directory : directories) {
            const int watch = ::inotify_add_watch(fd_, directory.c_str(), changes);
            EXPECT_GE(watch, 0) << directory;
            watched_[watch] = directory;
        }
    }
    ~ChangeLog() { ::close(fd_); }
    ChangeLog(const ChangeLog&) = delete;
    ChangeLog& operator=(const ChangeLog&) = delete;

    // Each change so far as the path it touched.
    std::vector<fs::path> changes() {
        std::vector<fs::path> paths;
        alignas(inotify_event) char buffer[64 * 1024];
        while (true) {
            const ssize_t length = ::read(fd_, buffer, sizeof buffer);
            if (length <= 0)
                return paths;
            for (ssize_t at = 0; at < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if (event->len > 0)
                    paths.push_back(watched_[event->wd] / event->name);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
    }

private:
    int fd_;
    std::map<int, fs::path> watched_;
};

// A caller that runs the precompiler without the ABI check first (a compiler
// that rebuilds its library by itself) gets the same protection: the marker is
// gone, durably, before anything in the library cache changes.
TEST_F(MarkerWithdrawal, PrecompileSourcesOnItsOwnWithdrawsAReadyMarkerBeforeItChangesAnything) {
    use(libraryA(), cacheRoot());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    ASSERT_TRUE(fs::exists(marker()));
    // Something for the build to remove, and a unit for it to compile again.
    writeFile(libCache(cacheRoot()) / "gone" / "Old.qo", "left by an earlier library\n");
    writeFile(libraryA() / "Prelude.qr", "public fn identity(y: Int) -> Int {\n    return y\n}\n");
    compiler::SourceManager::instance().clear();

    ChangeLog log({marker().parent_path(), libCache(cacheRoot()), libCache(cacheRoot()) / "gone",
                   libCache(cacheRoot()) / "core"});
    compiler::BuildSession session;
    const compiler::BuildSession::Scope scope(&session);
    Compiler::precompileSources(
        {(libraryA() / "Prelude.qr").native(), (libraryA() / "core" / "Int.qr").native()}, nullptr,
        {});

    const std::vector<fs::path> changes = log.changes();
    ASSERT_FALSE(changes.empty());
    EXPECT_EQ(changes.front(), marker()) << "the first change was not the marker's withdrawal";
    EXPECT_FALSE(fs::exists(marker()));
    // The build did change the library cache, after the withdrawal.
    EXPECT_FALSE(fs::exists(libCache(cacheRoot()) / "gone"));
    EXPECT_EQ(session.summary().compiled, 1u);
    EXPECT_GT(changes.size(), 1u);
}

TEST_F(MarkerWithdrawal, ReadyCacheKeepsItsMarkerWhenNothingIsBuilt) {
    use(libraryA(), cacheRoot());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    const std::string before = readFile(marker());
    EXPECT_FALSE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(readFile(marker()), before);
}

} // namespace
} // namespace quor::test
