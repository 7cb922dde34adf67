// Two standard libraries that share a cache root share its library cache and
// its readiness marker. A build for one of them must withdraw the marker before
// it changes an object, so that a failed or unfinished build never leaves the
// other library's marker vouching for objects it did not see.

#include "compiler/StandardLibraryBootstrap.h"
#include "tests/services/ServicesTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>

namespace quor::test {
namespace {

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
        try {
            StandardLibraryBootstrap::ensure(progress);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no failure";
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

TEST_F(MarkerWithdrawal, ReadyCacheKeepsItsMarkerWhenNothingIsBuilt) {
    use(libraryA(), cacheRoot());
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    const std::string before = readFile(marker());
    EXPECT_FALSE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(readFile(marker()), before);
}

} // namespace
} // namespace quor::test
