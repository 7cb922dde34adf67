// quor-stdlib against a hostile neighbour: another user (uid 65534) prepares
// the scene in a shared sticky directory, and the tool, run as root, must
// neither follow what was planted nor trust what that user built. The other
// way round, a cache that root built is used read-only by everyone else. Also:
// `prune` keeps its hands off a version whose build is running, and a lock
// failure names its likely cause.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>

namespace quor::tooltest {
namespace {

constexpr uid_t nobody = testsupport::kNobody;

// The built tool run as `uid`, in an environment of `environment`, NO_COLOR=1
// and a plain PATH, and nothing else.
ToolRun runToolAs(uid_t uid, const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment) {
    ProgramOptions options;
    options.arguments.push_back(QUOR_STDLIB_TOOL_PATH);
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = environment;
    options.environment->push_back("NO_COLOR=1");
    options.environment->push_back("PATH=/usr/bin:/bin");
    options.inChild = [uid] {
        testsupport::becomeUser(uid);
        return 0;
    };
    return runProgram(options);
}

std::string refusal(const fs::path& root, const fs::path& offender, const std::string& problem) {
    return "quor-stdlib: error: Refusing to use Quor cache root '" + root.native() + "': '" +
           offender.native() + "' " + problem + "\n";
}

const std::string notOwned =
    "is a directory that belongs to uid 65534; choose a cache root that you own";

class ToolTrust : public ::testing::Test {
protected:
    ToolTrust() {
        ::chmod(sandbox_.path().c_str(), 0755);
        fs::create_directory(shared());
        ::chmod(shared().c_str(), 01777);
        fs::create_directories(victim() / "data");
        writeFile(victim() / "data" / "keep.txt", "keep");
        fs::create_directories(victim() / "opt" / "0.1.5");
        writeFile(victim() / "opt" / "0.1.5" / "keep.txt", "keep");
    }

    fs::path shared() const { return sandbox_.path() / "shared"; }
    fs::path victim() const { return sandbox_.path() / "victim"; }
    fs::path home() const { return sandbox_.path() / "home"; }
    std::vector<std::string> with(const fs::path& root, std::vector<std::string> words) const {
        std::vector<std::string> arguments{"--stdlib", sandbox_.library().native(), "--cache-root",
                                           root.native()};
        arguments.insert(arguments.end(), words.begin(), words.end());
        return arguments;
    }
    // Everything below the victim directory, names and contents.
    std::vector<std::string> victimTree() const {
        std::vector<std::string> entries;
        for (const auto& entry : fs::recursive_directory_iterator(victim()))
            entries.push_back(entry.path().native() +
                              (entry.is_regular_file() ? "=" + readFile(entry.path()) : ""));
        std::sort(entries.begin(), entries.end());
        return entries;
    }
    void plantAsNobody(const std::function<int()>& scene) {
        ASSERT_EXIT(testsupport::reportAsNobody(
                        [&] { return "scene set with status " + std::to_string(scene()) + "\n"; }),
                    ::testing::ExitedWithCode(0), ::testing::Eq("scene set with status 0\n"))
            << "the other user could not prepare the scene";
    }

    Sandbox sandbox_;
};

TEST_F(ToolTrust, LinkedLibraryCachePlantedByAnotherUserIsRefusedAndItsTargetKept) {
    const fs::path root = shared() / "cache";
    const auto before = victimTree();
    plantAsNobody([&] {
        fs::create_directories(root / QUOR_COMPILER_VERSION);
        fs::create_directory_symlink(victim() / "data", root / QUOR_COMPILER_VERSION / "lib");
        return 0;
    });
    const ToolRun run = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(root, root, notOwned));
    EXPECT_EQ(victimTree(), before);
}

TEST_F(ToolTrust, PruneOfARootOwnedByAnotherUserWithALinkedFirstLaunchIsRefused) {
    const fs::path root = shared() / "c4";
    const auto before = victimTree();
    plantAsNobody([&] {
        fs::create_directories(root / "0.1.5");
        fs::create_directory_symlink(victim() / "opt", root / ".first-launch");
        return 0;
    });
    const ToolRun run = runTool(with(root, {"prune"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(root, root, notOwned));
    EXPECT_EQ(victimTree(), before);
}

TEST_F(ToolTrust, PruneNeverDeletesThroughALinkedFirstLaunchEvenInAnOwnRoot) {
    const fs::path root = sandbox_.cacheRoot();
    fs::create_directories(root / "0.1.5");
    fs::create_directory_symlink(victim() / "opt", root / ".first-launch");
    const auto before = victimTree();
    const ToolRun run = runTool(with(root, {"prune"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(root, root / ".first-launch", "is a symbolic link; remove it"));
    EXPECT_EQ(victimTree(), before);
    EXPECT_TRUE(fs::is_directory(root / "0.1.5"));
}

TEST_F(ToolTrust, DanglingLockLinkIsRefusedAndItsTargetNeverCreated) {
    const fs::path root = sandbox_.cacheRoot();
    const fs::path target = victim() / "nologin";
    fs::create_directories(sandbox_.lockFile().parent_path());
    fs::create_symlink(target, sandbox_.lockFile());
    const ToolRun run = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(root, sandbox_.lockFile(), "is a symbolic link; remove it"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
    EXPECT_FALSE(fs::exists(sandbox_.marker()));
}

// A lock file or an ABI record of one's own cache that the group or others may
// write (0664 is what a umask of 002 leaves) is refused before a build trusts
// it, and nothing is built.
TEST_F(ToolTrust, LockFileOrAbiRecordWritableByOthersIsRefused) {
    const fs::path root = sandbox_.cacheRoot();
    const fs::path abiRecord = root / QUOR_COMPILER_VERSION / "lib" / ".quor-object-abi";
    for (const fs::path& file : {sandbox_.lockFile(), abiRecord}) {
        for (const mode_t mode : {mode_t(0664), mode_t(0666)}) {
            ASSERT_EQ(runTool(with(root, {"ensure", "-q"}), home()).status, 0);
            ASSERT_TRUE(fs::is_regular_file(file)) << file;
            fs::remove(sandbox_.marker()); // a build is due
            ASSERT_EQ(::chmod(file.c_str(), mode), 0);

            const ToolRun run = runTool(with(root, {"ensure"}), home());

            EXPECT_EQ(run.status, 1) << file << " " << mode;
            EXPECT_EQ(run.err, refusal(root, file,
                                       "is writable by other users; remove their write "
                                       "permission (chmod go-w)"));
            EXPECT_FALSE(fs::exists(sandbox_.marker())) << file << " " << mode;
            ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
        }
    }
}

// The set-aside area holds objects that a build moves back into the library
// cache, and `verify` and `status` read them. A link planted in its place, or
// an area that others may write to, is refused like the library cache itself,
// also by the commands that never reach the services: `verify`, `status`, and
// `ensure` on a cache that is ready.
TEST_F(ToolTrust, SetAsideAreaLinkedOrWritableByOthersIsRefused) {
    const fs::path root = sandbox_.cacheRoot();
    const fs::path setAside = root / QUOR_COMPILER_VERSION / "set-aside";
    ASSERT_EQ(runTool(with(root, {"ensure", "-q"}), home()).status, 0);
    ASSERT_TRUE(fs::is_directory(fs::symlink_status(setAside)));
    const auto before = victimTree();
    const auto expectRefused = [&](const std::string& problem) {
        for (const std::string command : {"ensure", "verify"}) {
            const ToolRun run = runTool(with(root, {command}), home());
            EXPECT_EQ(run.status, 1) << command;
            EXPECT_EQ(run.err, refusal(root, setAside, problem)) << command;
        }
        EXPECT_EQ(runTool(with(root, {"status", "--check"}), home()).status, 1);
        EXPECT_TRUE(fs::exists(sandbox_.marker()));
    };

    fs::remove(setAside);
    fs::create_directory_symlink(victim() / "data", setAside);
    expectRefused("is a symbolic link; remove it");
    EXPECT_EQ(victimTree(), before);

    fs::remove(setAside);
    fs::create_directory(setAside);
    ASSERT_EQ(::chmod(setAside.c_str(), 0777), 0);
    expectRefused("is writable by other users; remove their write permission (chmod go-w)");

    ASSERT_EQ(::chmod(setAside.c_str(), 0755), 0);
    const ToolRun ensure = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(ensure.status, 0) << ensure.err;
    EXPECT_EQ(ensure.out, "already up to date\n");
}

TEST_F(ToolTrust, CacheBuiltByAnotherUserIsNotTrusted) {
    const fs::path root = shared() / "theirs";
    const ToolRun built =
        runToolAs(nobody, with(root, {"ensure", "-q"}), {"HOME=" + shared().native()});
    ASSERT_EQ(built.status, 0) << built.err;
    plantAsNobody([&] {
        writeFile(root / QUOR_COMPILER_VERSION / "lib" / "Prelude.qo", "edited");
        return 0;
    });
    EXPECT_EQ(runTool(with(root, {"status", "--check"}), home()).status, 1);
    const ToolRun ensure = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(ensure.status, 1);
    EXPECT_EQ(ensure.err, refusal(root, root, notOwned));
}

TEST_F(ToolTrust, CacheRootWritableByOthersIsRefusedWithWhatToFix) {
    const fs::path root = sandbox_.cacheRoot();
    fs::create_directories(root);
    ::chmod(root.c_str(), 0777);
    const ToolRun run = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(root, root,
                               "is writable by other users; remove their write permission "
                               "(chmod go-w)"));
    EXPECT_FALSE(fs::exists(root / QUOR_COMPILER_VERSION));
}

TEST_F(ToolTrust, RootOwnedCacheIsUsedReadOnlyByOtherUsers) {
    const fs::path root = sandbox_.cacheRoot();
    ASSERT_EQ(runTool(with(root, {"ensure", "-q"}), home()).status, 0);
    const std::vector<std::string> environment{"HOME=" + shared().native()};

    const ToolRun check = runToolAs(nobody, with(root, {"status", "--check"}), environment);
    EXPECT_EQ(check.status, 0) << check.err;
    const ToolRun ensure = runToolAs(nobody, with(root, {"ensure"}), environment);
    EXPECT_EQ(ensure.status, 0) << ensure.err;
    EXPECT_EQ(ensure.out, "already up to date\n");
    const ToolRun prune = runToolAs(nobody, with(root, {"prune"}), environment);
    EXPECT_EQ(prune.status, 1);
    EXPECT_EQ(prune.err,
              "quor-stdlib: error: Quor cache root '" + root.native() +
                  "' belongs to root and is read-only for you; only root can prune it\n");

    fs::remove(sandbox_.marker());
    const ToolRun stale = runToolAs(nobody, with(root, {"ensure"}), environment);
    EXPECT_EQ(stale.status, 1);
    EXPECT_EQ(stale.err, "quor-stdlib: error: Quor cache root '" + root.native() +
                             "' belongs to root and is read-only for you, and it is not ready "
                             "for this compiler; ask an administrator to run 'quor-stdlib ensure "
                             "--cache-root " +
                             root.native() + "', or choose a cache root that you own\n");
    EXPECT_FALSE(fs::exists(sandbox_.marker()));
}

TEST_F(ToolTrust, GuessableDefaultCacheRootPlantedByAnotherUserIsRefused) {
    // A user with no home and no password entry falls back to
    // $TMPDIR/quor-cache-<uid>, a name anyone can take first.
    constexpr uid_t homeless = 42424;
    const fs::path guessed = shared() / ("quor-cache-" + std::to_string(homeless));
    const auto before = victimTree();
    plantAsNobody([&] {
        fs::create_directories(guessed / QUOR_COMPILER_VERSION);
        fs::create_directory_symlink(victim() / "data", guessed / QUOR_COMPILER_VERSION / "lib");
        return 0;
    });
    const ToolRun run = runToolAs(homeless, {"--stdlib", sandbox_.library().native(), "ensure"},
                                  {"TMPDIR=" + shared().native()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, refusal(guessed, guessed, notOwned));
    EXPECT_EQ(victimTree(), before);
}

TEST_F(ToolTrust, PruneRefusesAVersionWhoseBuildIsRunningAndNamesTheHolder) {
    const fs::path root = sandbox_.cacheRoot();
    fs::create_directories(root / "0.1.5" / "lib");
    writeFile(root / "0.1.5" / "lib" / "Prelude.qo", "object");
    const fs::path lock = root / ".first-launch" / "0.1.5" / ".stdlib-bootstrap-lib.lock";
    {
        LockHolderProcess holder(lock);
        const ToolRun run = runTool(with(root, {"prune"}), home());
        EXPECT_EQ(run.status, 1);
        const std::string expected =
            "quor-stdlib: error: Refusing to prune Quor cache '" + (root / "0.1.5").native() +
            "': version 0.1.5 is being built by process " + std::to_string(holder.pid());
        EXPECT_EQ(run.err.substr(0, expected.size()), expected) << run.err;
        EXPECT_NE(run.err.find("(it holds '" + lock.native() +
                               "'); run prune again when that build has finished\n"),
                  std::string::npos)
            << run.err;
        EXPECT_TRUE(fs::exists(root / "0.1.5" / "lib" / "Prelude.qo"));
        EXPECT_TRUE(fs::exists(lock));
        // A script tells a busy version from a broken one, and learns who holds it.
        const ToolRun json = runTool(with(root, {"--json", "prune"}), home());
        EXPECT_EQ(json.status, 1);
        const auto error = nlohmann::json::parse(json.out);
        EXPECT_EQ(error["kind"], "lock") << json.out;
        EXPECT_EQ(error["holder"]["pid"], holder.pid()) << json.out;
    }
    const ToolRun after = runTool(with(root, {"prune"}), home());
    EXPECT_EQ(after.status, 0) << after.err;
    EXPECT_FALSE(fs::exists(root / "0.1.5"));
    EXPECT_FALSE(fs::exists(root / ".first-launch" / "0.1.5"));
}

TEST_F(ToolTrust, LockFailureNamesTheLockFilesOwnerAsTheLikelyCause) {
    // The other user's own cache root, with a lock file that root left there.
    const fs::path root = shared() / "nobody-cache";
    const std::vector<std::string> environment{"HOME=" + shared().native()};
    plantAsNobody([&] {
        fs::create_directories(root / ".first-launch" / QUOR_COMPILER_VERSION);
        return 0;
    });
    const fs::path lock =
        root / ".first-launch" / QUOR_COMPILER_VERSION / ".stdlib-bootstrap-lib.lock";
    const int fd = ::open(lock.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    const ToolRun run = runToolAs(nobody, with(root, {"ensure"}), environment);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quor-stdlib: error: Unable to lock Quor standard-library cache '" +
                           lock.native() +
                           "'\nquor-stdlib: likely cause: the lock file belongs to uid 0; give "
                           "each user a cache root of their own\n");
}

TEST_F(ToolTrust, LockFailureNamesNoFreeInodesAsTheLikelyCause) {
    const fs::path mount = sandbox_.path() / "small";
    fs::create_directories(mount);
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, "size=4m,nr_inodes=64,mode=0755") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
    struct Unmount {
        fs::path path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{mount};
    const fs::path root = mount / "cache";
    const fs::path versionState = root / ".first-launch" / QUOR_COMPILER_VERSION;
    for (const fs::path& directory :
         {root, root / QUOR_COMPILER_VERSION, root / QUOR_COMPILER_VERSION / "lib",
          root / ".first-launch", versionState, versionState / "lib"})
        fs::create_directory(directory);
    for (int i = 0;; ++i) {
        const int fd = ::open((mount / ("fill" + std::to_string(i))).c_str(),
                              O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd < 0)
            break;
        ::close(fd);
    }
    const ToolRun run = runTool(with(root, {"ensure"}), home());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quor-stdlib: error: Unable to lock Quor standard-library cache '" +
                           (versionState / ".stdlib-bootstrap-lib.lock").native() +
                           "'\nquor-stdlib: likely cause: the file system holding '" +
                           versionState.native() + "' has no free inodes\n");
}

TEST_F(ToolTrust, LooseUmaskStillLeavesNothingWritableByOthers) {
    const fs::path root = sandbox_.cacheRoot();
    const mode_t previous = ::umask(0);
    const ToolRun run = runTool(with(root, {"ensure", "-q"}), home());
    ::umask(previous);
    ASSERT_EQ(run.status, 0) << run.err;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat info {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 022, 0u) << entry.path();
    }
    EXPECT_EQ(runTool(with(root, {"status", "--check"}), home()).status, 0);
}

// In a child: creates `deep`, below `library`, with a unit "Deep.qr" in it,
// and reports how that went. One step at a time, changing the working
// directory: the full path is too long for mkdir.
std::string makeUnitBelow(const fs::path& library, const fs::path& deep) {
    if (::chdir(library.c_str()) != 0)
        return "library: " + testsupport::outcomeOf(-1);
    for (const auto& element : deep.lexically_relative(library))
        if (::mkdir(element.c_str(), 0755) != 0 || ::chdir(element.c_str()) != 0)
            return "a folder on the way: " + testsupport::outcomeOf(-1);
    const int fd = ::open("Deep.qr", O_WRONLY | O_CREAT, 0644);
    const bool written = fd >= 0 && ::write(fd, "package deep\n", 13) == 13 && ::close(fd) == 0;
    return "Deep.qr: " + testsupport::outcomeOf(written ? 0 : -1);
}

// The bootstrap's walk passes over a unit whose path is too long to examine and
// a folder it may not read, in silence; `status` says what was passed over.
TEST_F(ToolTrust, StatusNamesAUnitWhosePathIsTooLongToReach) {
    fs::path deep = sandbox_.library();
    while (deep.native().size() < PATH_MAX)
        deep /= std::string(200, 'd');
    // In a child of its own: the way down changes its working directory.
    ASSERT_EXIT(testsupport::reportAs(0, [&] { return makeUnitBelow(sandbox_.library(), deep); }),
                ::testing::ExitedWithCode(0), ::testing::Eq("Deep.qr: ok\n"));
    const ToolRun text = runTool(sandbox_.arguments({"status"}), home());
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("  unreachable       1 entry of the library that the build passes "
                            "over:\n                      " +
                            (deep / "Deep.qr").native() + " (File name too long)\n"),
              std::string::npos)
        << text.out;
    const ToolRun json = runTool(sandbox_.arguments({"status", "--json"}), home());
    const auto document = nlohmann::json::parse(json.out);
    ASSERT_EQ(document["unreachable"].size(), 1u);
    EXPECT_EQ(document["unreachable"][0]["path"], (deep / "Deep.qr").native());
    EXPECT_EQ(document["unreachable"][0]["reason"], "File name too long");
}

TEST_F(ToolTrust, StatusNamesAFolderItMayNotRead) {
    const fs::path secret = sandbox_.library() / "secret";
    writeFile(secret / "Hidden.qr", "package secret\n\npublic class Hidden {\n}\n");
    ::chmod(secret.c_str(), 0700);
    const ToolRun run = runToolAs(nobody, with(shared() / "nobody-cache", {"status", "--json"}),
                                  {"HOME=" + shared().native()});
    ASSERT_EQ(run.status, 0) << run.err;
    const auto document = nlohmann::json::parse(run.out);
    ASSERT_EQ(document["unreachable"].size(), 1u) << run.out;
    EXPECT_EQ(document["unreachable"][0]["path"], secret.native());
    EXPECT_EQ(document["unreachable"][0]["reason"], "Permission denied");
    EXPECT_EQ(document["units"], Sandbox::compilableUnits);
}

} // namespace
} // namespace quor::tooltest
