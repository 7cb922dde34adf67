// The cache-root check on real directories, and the services' refusal to let a
// library cache that was removed during a build be marked ready. Checks about
// other users run in a child that drops to uid 65534, since root passes every
// permission check.

#include "compiler/CacheTrust.h"
#include "compiler/Compiler.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <tuple>

namespace quor::test {
namespace {

using compiler::CacheAccess;
using compiler::CacheLayoutEntry;
using compiler::Compiler;
using compiler::StandardLibraryBootstrap;
using compiler::UntrustedCacheError;
using compiler::verifyCacheRoot;
using testsupport::outcomeOf;
using testsupport::reportAsNobody;
using Kind = CacheLayoutEntry::Kind;

std::string refusal(const std::function<void()>& call) {
    try {
        call();
    } catch (const UntrustedCacheError& error) {
        return error.what();
    }
    return "no refusal";
}

class CacheTrustTest : public ::testing::Test {
protected:
    CacheTrustTest() {
        ::chmod(directory_.path().c_str(), 0755);
        fs::create_directory(shared());
        ::chmod(shared().c_str(), 01777);
    }
    fs::path shared() const { return directory_.path() / "shared"; }
    fs::path root() const { return directory_.path() / "cache"; }

    TemporaryDirectory directory_;
};

TEST_F(CacheTrustTest, OwnCacheRootIsWritableAndItsLayoutIsCreatedClosedToOthers) {
    const mode_t previous = ::umask(0);
    const auto access =
        verifyCacheRoot(root() / "deep", {{root() / "deep" / "0.1.6", Kind::Directory}}, true);
    ::umask(previous);
    EXPECT_EQ(access, CacheAccess::Writable);
    for (const fs::path& made : {root(), root() / "deep", root() / "deep" / "0.1.6"}) {
        struct stat info {};
        ASSERT_EQ(::lstat(made.c_str(), &info), 0) << made;
        EXPECT_EQ(info.st_mode & 07777, 0755u) << made;
    }
}

TEST_F(CacheTrustTest, MissingCacheRootIsNotCreatedWhenOnlyInspected) {
    EXPECT_EQ(verifyCacheRoot(root(), {{root() / "0.1.6", Kind::Directory}}, false),
              CacheAccess::Writable);
    EXPECT_FALSE(fs::exists(root()));
}

TEST_F(CacheTrustTest, CacheRootWritableByOthersIsRefused) {
    fs::create_directory(root());
    ::chmod(root().c_str(), 0777);
    EXPECT_EQ(refusal([&] { verifyCacheRoot(root(), {}, false); }),
              "Refusing to use Quor cache root '" + root().native() + "': '" + root().native() +
                  "' is writable by other users; remove their write permission (chmod go-w)");
}

TEST_F(CacheTrustTest, DirectoryOnTheWayWritableByOthersWithoutStickyBitIsRefused) {
    const fs::path open = directory_.path() / "open";
    fs::create_directory(open);
    ::chmod(open.c_str(), 0777);
    EXPECT_EQ(refusal([&] { verifyCacheRoot(open / "cache", {}, true); }),
              "Refusing to use Quor cache root '" + (open / "cache").native() + "': '" +
                  open.native() +
                  "' is writable by other users and not sticky; choose a cache root that only "
                  "you can change");
    EXPECT_FALSE(fs::exists(open / "cache"));
}

// Write permission for the group alone is enough to replace a cache root: a
// shared project directory (mode 0775) is no safer than /tmp without its
// sticky bit.
TEST_F(CacheTrustTest, DirectoryOnTheWayWritableByItsGroupWithoutStickyBitIsRefused) {
    const fs::path team = directory_.path() / "team";
    fs::create_directory(team);
    ::chmod(team.c_str(), 0775);
    EXPECT_EQ(refusal([&] { verifyCacheRoot(team / "cache", {}, true); }),
              "Refusing to use Quor cache root '" + (team / "cache").native() + "': '" +
                  team.native() +
                  "' is writable by other users and not sticky; choose a cache root that only "
                  "you can change");
    EXPECT_FALSE(fs::exists(team / "cache"));

    // The same directory made sticky protects what lies in it.
    ::chmod(team.c_str(), 01775);
    EXPECT_EQ(verifyCacheRoot(team / "cache", {}, true), CacheAccess::Writable);
    EXPECT_TRUE(fs::is_directory(team / "cache"));
}

// A file of one's own cache that the group or others may write: whoever can
// write the lock file or the ABI record can make a build trust what it should
// not. Mode 0664 is what a umask of 002 gives.
class CacheFileWritableByOthers : public CacheTrustTest,
                                  public ::testing::WithParamInterface<std::tuple<Kind, mode_t>> {};

TEST_P(CacheFileWritableByOthers, IsRefused) {
    const auto [kind, mode] = GetParam();
    fs::create_directories(root());
    const fs::path file = root() / (kind == Kind::LockFile ? "build.lock" : ".quor-object-abi");
    writeFile(file, kind == Kind::LockFile ? "" : "2\n");
    ASSERT_EQ(::chmod(file.c_str(), mode), 0);
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), {{file, kind}}, true);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" + file.native() +
                  "' is writable by other users; remove their write permission (chmod go-w)");

    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(verifyCacheRoot(root(), {{file, kind}}, true), CacheAccess::Writable);
}

INSTANTIATE_TEST_SUITE_P(LockFileAndDataFile, CacheFileWritableByOthers,
                         ::testing::Combine(::testing::Values(Kind::LockFile, Kind::DataFile),
                                            ::testing::Values(mode_t(0664), mode_t(0666))),
                         [](const auto& info) {
                             const Kind kind = std::get<0>(info.param);
                             const mode_t mode = std::get<1>(info.param);
                             return std::string(kind == Kind::LockFile ? "LockFile" : "DataFile") +
                                    (mode == 0664 ? "WritableByItsGroup" : "WritableByAll");
                         });

// The ABI record the services keep in the library cache is held to that rule
// before the ABI check reads it.
TEST_F(CacheTrustTest, AbiRecordOfTheOwnLibraryCacheWritableByItsGroupIsRefused) {
    const fs::path lib = root() / QUOR_COMPILER_VERSION / "lib";
    writeFile(lib / ".quor-object-abi", std::to_string(Compiler::objectAbiVersion()) + "\n");
    writeFile(lib / "core" / "Int.qo", "kept\n");
    ASSERT_EQ(::chmod((lib / ".quor-object-abi").c_str(), 0664), 0);
    ScopedRuntime runtime({(directory_.path() / "stdlib").native(), root().native(), 1});
    EXPECT_EQ(refusal([] { Compiler::ensureObjectAbiCacheCurrent(); }),
              "Refusing to use Quor cache root '" + root().native() + "': '" +
                  (lib / ".quor-object-abi").native() +
                  "' is writable by other users; remove their write permission (chmod go-w)");
    EXPECT_EQ(readFile(lib / "core" / "Int.qo"), "kept\n");
}

// The set-aside area's objects go back into the library cache, and a new ABI
// empties it: the services vouch for it as for the library cache, so that a
// link there is refused before anything is cleared or read through it.
TEST_F(CacheTrustTest, LinkedSetAsideAreaIsRefusedByTheServicesAndNeverFollowed) {
    const fs::path branch = root() / QUOR_COMPILER_VERSION;
    fs::create_directories(branch / "lib");
    const fs::path outside = directory_.path() / "outside";
    writeFile(outside / "kept.qo", "kept\n");
    fs::create_directory_symlink(outside, branch / "set-aside");
    ScopedRuntime runtime({(directory_.path() / "stdlib").native(), root().native(), 1});
    EXPECT_EQ(refusal([] { Compiler::ensureObjectAbiCacheCurrent(); }),
              "Refusing to use Quor cache root '" + root().native() + "': '" +
                  (branch / "set-aside").native() + "' is a symbolic link; remove it");
    EXPECT_EQ(readFile(outside / "kept.qo"), "kept\n");
}

// One list says what is checked. The services, which fill the set-aside area,
// create it with the rest of the branch; a check made before them, with the
// bootstrap's state, creates that state but leaves the set-aside area to them,
// and still refuses one that others may write to.
TEST_F(CacheTrustTest, TheSetAsideAreaIsCheckedByBothListsAndCreatedOnlyByTheServices) {
    const fs::path branch = root() / QUOR_COMPILER_VERSION;
    const fs::path lib = branch / "lib";
    const fs::path setAside = branch / "set-aside";
    const fs::path state = root() / ".first-launch" / QUOR_COMPILER_VERSION;
    const compiler::FirstLaunchLayout firstLaunch{root() / ".first-launch", state, state / "lib",
                                                  state / ".stdlib-bootstrap-lib.lock",
                                                  state / "lib" / ".quor-stdlib-ready"};

    EXPECT_EQ(
        verifyCacheRoot(root(), compiler::cacheLayoutToVerify(branch, lib, firstLaunch), true),
        CacheAccess::Writable);
    EXPECT_TRUE(fs::is_directory(lib));
    EXPECT_TRUE(fs::is_directory(state / "lib"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(setAside)));

    EXPECT_EQ(verifyCacheRoot(root(), compiler::cacheLayoutToVerify(branch, lib), true),
              CacheAccess::Writable);
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(setAside)));

    ASSERT_EQ(::chmod(setAside.c_str(), 0777), 0);
    const std::string writable = "Refusing to use Quor cache root '" + root().native() + "': '" +
                                 setAside.native() +
                                 "' is writable by other users; remove their write permission "
                                 "(chmod go-w)";
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), compiler::cacheLayoutToVerify(branch, lib), false);
              }),
              writable);
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), compiler::cacheLayoutToVerify(branch, lib, firstLaunch),
                                  false);
              }),
              writable);
}

// Closed to writes, but another user's: its owner can still rename or replace
// what lies in it.
TEST_F(CacheTrustTest, DirectoryOnTheWayOwnedByAnotherUserIsRefused) {
    const fs::path theirs = directory_.path() / "theirs";
    fs::create_directories(theirs / "cache");
    ::chmod(theirs.c_str(), 0755);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    EXPECT_EQ(refusal([&] { verifyCacheRoot(theirs / "cache", {}, false); }),
              "Refusing to use Quor cache root '" + (theirs / "cache").native() + "': '" +
                  theirs.native() +
                  "' is a directory that belongs to uid 65534; choose a cache root that you own");
}

// A chain of links longer than the kernel itself would follow (40) is refused
// rather than walked; a loop of links is such a chain without end.
TEST_F(CacheTrustTest, PathThroughTooManyLinksIsRefused) {
    const fs::path real = directory_.path() / "real";
    fs::create_directories(real / "cache");
    fs::path next = real;
    for (int i = 41; i > 0; --i) {
        const fs::path link = directory_.path() / ("link" + std::to_string(i));
        fs::create_directory_symlink(next, link);
        next = link;
    }
    EXPECT_EQ(refusal([&] { verifyCacheRoot(next / "cache", {}, false); }),
              "Refusing to use Quor cache root '" + (next / "cache").native() + "': '" +
                  (directory_.path() / "link41").native() +
                  "' leads through too many symbolic links");
    // One link fewer is a path the kernel follows, and so does the check.
    EXPECT_EQ(verifyCacheRoot(directory_.path() / "link2" / "cache", {}, false),
              CacheAccess::Writable);
}

// The lock file is opened with O_CREAT; a FIFO there could block the opener,
// and a directory is no lock. Neither is ever opened.
TEST_F(CacheTrustTest, LockFileThatIsNotARegularFileIsRefused) {
    fs::create_directories(root());
    const fs::path lock = root() / "build.lock";
    ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), {{lock, Kind::LockFile}}, true);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" + lock.native() +
                  "' is not a regular file; remove it");
    fs::remove(lock);
    fs::create_directory(lock);
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), {{lock, Kind::LockFile}}, true);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" + lock.native() +
                  "' is not a regular file; remove it");
}

TEST_F(CacheTrustTest, CacheRootOfAnotherUserInASharedStickyDirectoryIsRefused) {
    const fs::path theirs = shared() / "cache";
    ASSERT_EXIT(reportAsNobody([&] { return outcomeOf(::mkdir(theirs.c_str(), 0755)); }),
                ::testing::ExitedWithCode(0), ::testing::Eq("ok\n"));
    EXPECT_EQ(refusal([&] { verifyCacheRoot(theirs, {}, true); }),
              "Refusing to use Quor cache root '" + theirs.native() + "': '" + theirs.native() +
                  "' is a directory that belongs to uid 65534; choose a cache root that you own");
}

TEST_F(CacheTrustTest, LinkOfAnotherUserOnTheWayIsRefusedBeforeItIsFollowed) {
    const fs::path link = shared() / "link";
    ASSERT_EXIT(reportAsNobody([&] { return outcomeOf(::symlink(root().c_str(), link.c_str())); }),
                ::testing::ExitedWithCode(0), ::testing::Eq("ok\n"));
    EXPECT_EQ(refusal([&] { verifyCacheRoot(link / "cache", {}, true); }),
              "Refusing to use Quor cache root '" + (link / "cache").native() + "': '" +
                  link.native() +
                  "' is a symbolic link that belongs to uid 65534; choose a cache root that you "
                  "own");
    EXPECT_FALSE(fs::exists(root()));
}

TEST_F(CacheTrustTest, OwnLinkOnTheWayIsFollowedAndItsTargetChecked) {
    fs::create_directory(root());
    fs::create_directory_symlink(root(), directory_.path() / "alias");
    EXPECT_EQ(verifyCacheRoot(directory_.path() / "alias", {}, false), CacheAccess::Writable);
    ::chmod(root().c_str(), 0775);
    EXPECT_EQ(refusal([&] { verifyCacheRoot(directory_.path() / "alias", {}, false); }),
              "Refusing to use Quor cache root '" + (directory_.path() / "alias").native() +
                  "': '" + root().native() +
                  "' is writable by other users; remove their write permission (chmod go-w)");
}

TEST_F(CacheTrustTest, LinkInsideTheLayoutIsRefusedAndNeverFollowed) {
    fs::create_directories(root());
    const fs::path outside = directory_.path() / "outside";
    fs::create_directory(outside);
    fs::create_directory_symlink(outside, root() / "0.1.6");
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(),
                                  {{root() / "0.1.6", Kind::Directory},
                                   {root() / "0.1.6" / "lib", Kind::Directory}},
                                  true);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" +
                  (root() / "0.1.6").native() + "' is a symbolic link; remove it");
    EXPECT_TRUE(fs::is_empty(outside));
}

TEST_F(CacheTrustTest, DanglingLinkAtTheLockFileIsRefusedAndItsTargetNeverCreated) {
    fs::create_directories(root());
    const fs::path target = directory_.path() / "created-through-the-link";
    fs::create_symlink(target, root() / "build.lock");
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), {{root() / "build.lock", Kind::LockFile}}, true);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" +
                  (root() / "build.lock").native() + "' is a symbolic link; remove it");
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
}

TEST_F(CacheTrustTest, FileOfAnotherUserInsideIsRefused) {
    fs::create_directories(root());
    writeFile(root() / "marker", "theirs");
    ::chown((root() / "marker").c_str(), 65534, 65534);
    EXPECT_EQ(refusal([&] {
                  verifyCacheRoot(root(), {{root() / "marker", Kind::DataFile}}, false);
              }),
              "Refusing to use Quor cache root '" + root().native() + "': '" +
                  (root() / "marker").native() +
                  "' is a file that belongs to uid 65534; choose a cache root that you own");
}

TEST_F(CacheTrustTest, CacheRootOwnedByRootIsReadOnlyForOthersAndNothingIsCreated) {
    fs::create_directories(root());
    EXPECT_EXIT(reportAsNobody([&] {
                    const auto access =
                        verifyCacheRoot(root(), {{root() / "0.1.6", Kind::Directory}}, true);
                    return std::string(access == CacheAccess::ReadOnly ? "read-only" : "writable") +
                           (fs::exists(root() / "0.1.6") ? ", layout created\n"
                                                         : ", nothing created\n");
                }),
                ::testing::ExitedWithCode(0), ::testing::Eq("read-only, nothing created\n"));
}

// A newer compiler that prunes this version while it is being built removes
// the library cache under the precompiler. The build must fail rather than
// let a readiness marker vouch for a library cache that is gone.
class RemovedDuringTheBuild : public CacheTrustTest {
protected:
    RemovedDuringTheBuild() {
        writeFile(library() / "core" / "Int.qr", "package core\n\npublic struct Int {\n}\n");
        writeFile(library() / "core" / "Text.qr", "package core\n\npublic struct Text {\n}\n");
        writeFile(library() / "Prelude.qr",
                  "public fn identity(x: Int) -> Int {\n    return x\n}\n");
        compiler::RuntimeConfiguration configuration;
        configuration.standardLibraryPath = library().native();
        configuration.cacheRoot = root().native();
        configuration.jobs = 1;
        runtime_.emplace(configuration);
    }
    fs::path library() const { return directory_.path() / "stdlib"; }
    fs::path lib() const { return root() / QUOR_COMPILER_VERSION / "lib"; }
    std::string replacedMessage() const {
        return "Quor library cache '" + lib().native() +
               "' was removed or replaced while it was being built; build it again";
    }

    std::optional<ScopedRuntime> runtime_;
};

TEST_F(RemovedDuringTheBuild, RemovalAfterTheLastUnitFailsTheBuildAndLeavesNoMarker) {
    EXPECT_EQ(runtimeErrorOf([&] {
                  StandardLibraryBootstrap::ensure(
                      [&](const compiler::StandardLibraryBootstrapProgress& p) {
                          if (p.stage == compiler::StandardLibraryBootstrapStage::Compiling &&
                              p.completed == p.total)
                              StandardLibraryBootstrap::removeOlderCacheVersions(root(), "0.2.0");
                      });
              }),
              replacedMessage());
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
}

TEST_F(RemovedDuringTheBuild, RemovalBeforeTheUnitsAreCompiledFailsTheBuild) {
    Compiler::ensureObjectAbiCacheCurrent();
    fs::remove_all(root() / QUOR_COMPILER_VERSION);
    EXPECT_EQ(runtimeErrorOf([&] {
                  Compiler::precompileSources({(library() / "core" / "Int.qr").native()}, nullptr,
                                              {});
              }),
              replacedMessage());
}

// Another process's clean (a newer compiler's pruning, then a start of this
// one) can leave a library cache of the same name, with a current ABI record,
// that is another directory: what the ABI check vouched for is gone. The new
// directory is made before the old one goes, so that it cannot be handed the
// old one's inode number.
TEST_F(RemovedDuringTheBuild, ACacheRemovedAndCreatedAgainBeforeThePrecompilerStartsIsRefused) {
    ASSERT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    Compiler::ensureObjectAbiCacheCurrent();
    const fs::path again = root() / QUOR_COMPILER_VERSION / "lib.again";
    writeFile(again / ".quor-object-abi", std::to_string(Compiler::objectAbiVersion()) + "\n");
    fs::remove_all(lib());
    fs::rename(again, lib());
    EXPECT_EQ(runtimeErrorOf([&] {
                  Compiler::precompileSources({(library() / "core" / "Int.qr").native()}, nullptr,
                                              {});
              }),
              replacedMessage());
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_FALSE(fs::exists(lib() / "core" / "Int.qo"));
}

// The same directory, but an older compiler's ABI check has recorded its own
// ABI in it (and so cleared it) since this build's check.
TEST_F(RemovedDuringTheBuild, AnAbiRecordRewrittenBeforeThePrecompilerStartsIsRefused) {
    Compiler::ensureObjectAbiCacheCurrent();
    writeFile(lib() / ".quor-object-abi", std::to_string(Compiler::objectAbiVersion() - 1) + "\n");
    EXPECT_EQ(runtimeErrorOf([&] {
                  Compiler::precompileSources({(library() / "core" / "Int.qr").native()}, nullptr,
                                              {});
              }),
              replacedMessage());
    EXPECT_FALSE(fs::exists(lib() / "core" / "Int.qo"));
}

TEST_F(RemovedDuringTheBuild, AnAbiRecordRewrittenAfterTheLastUnitFailsTheBuildAndLeavesNoMarker) {
    EXPECT_EQ(runtimeErrorOf([&] {
                  StandardLibraryBootstrap::ensure(
                      [&](const compiler::StandardLibraryBootstrapProgress& p) {
                          if (p.stage == compiler::StandardLibraryBootstrapStage::Compiling &&
                              p.completed == p.total)
                              writeFile(lib() / ".quor-object-abi",
                                        std::to_string(Compiler::objectAbiVersion() - 1) + "\n");
                      });
              }),
              replacedMessage());
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_FALSE(fs::exists(root() / ".first-launch" / QUOR_COMPILER_VERSION / "lib" /
                            ".quor-stdlib-ready"));
}

TEST_F(RemovedDuringTheBuild, UntouchedBuildStillSucceeds) {
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

} // namespace
} // namespace quor::test
