// The build lock between processes and threads: waiting for another builder,
// building once, surviving a killed holder, the lock file's mode and
// descriptor flags, and the ways of failing to take the lock.

#include "tests/bootstrap/BootstrapFixture.h"

#include "tests/support/ChildChecks.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>

namespace quor::testing {
namespace {

using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapResult;
using compiler::StandardLibraryBootstrapStage;

class BootstrapLock : public BootstrapTest {
protected:
    void SetUp() override {
        BootstrapTest::SetUp();
        writeUnit("core.qr", "type Core\n");
    }

    // In a child: creates and takes the lock the way another compiler process does.
    int takeLockAsOtherProcess() const {
        fs::create_directories(lockDir());
        const int fd = open(lockFile().c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0 || flock(fd, LOCK_EX) != 0) {
            _exit(20);
        }
        return fd;
    }
};

void expectNothingDone(const StandardLibraryBootstrapResult& result) {
    EXPECT_FALSE(result.bootstrapped);
    EXPECT_EQ(result.completed, 0u);
    EXPECT_EQ(result.total, 0u);
}

TEST_F(BootstrapLock, CacheBecomingReadyWhileWaitingReturnsWithoutReport) {
    Pipe locked;
    const pid_t child = startChild([&] {
        const int fd = takeLockAsOtherProcess();
        locked.send();
        if (!waitForBlockedFlock(lockFile())) {
            return 2;
        }
        expectedState().markReady();
        close(fd);
        return 0;
    });
    ASSERT_TRUE(locked.receive());
    ASSERT_FALSE(expectedState().isReady());
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_EQ(waitForChild(child), 0);
    expectNothingDone(result);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_TRUE(fs::is_directory(lockDir()));
    EXPECT_TRUE(fs::is_regular_file(lockFile()));
    const auto log = serviceLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Compiler::ensureObjectAbiCacheCurrent"), 0);
    // The state was computed a second time under the lock.
    EXPECT_EQ(std::count(log.begin(), log.end(), "Runtime::getCacheBranchPath"), 2);
}

TEST_F(BootstrapLock, OtherProcessFailingItsBuildLetsThisOneBuild) {
    Pipe locked;
    const pid_t child = startChild([&] {
        const int fd = takeLockAsOtherProcess();
        locked.send();
        if (!waitForBlockedFlock(lockFile())) {
            return 2;
        }
        close(fd); // gives up without publishing a marker
        return 0;
    });
    ASSERT_TRUE(locked.receive());
    const auto result = StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_TRUE(expectedState().isReady());
}

TEST_F(BootstrapLock, TwoThreadsCallingEnsureAtOnceCompileOnce) {
    setPrecompileHook([&](const std::vector<std::string>&) {
        logCall(waitForBlockedFlock(lockFile()) ? "other caller waits" : "nobody waits");
    });
    std::array<StandardLibraryBootstrapResult, 2> results{};
    std::array<std::string, 2> errors;
    auto run = [&](std::size_t i) {
        try {
            results[i] = StandardLibraryBootstrap::ensure({});
        } catch (const std::exception& error) {
            errors[i] = error.what();
        }
    };
    std::thread first(run, 0);
    std::thread second(run, 1);
    first.join();
    second.join();
    EXPECT_EQ(errors[0], "");
    EXPECT_EQ(errors[1], "");
    EXPECT_EQ(precompileCallCount(), 1u);
    EXPECT_NE(results[0].bootstrapped, results[1].bootstrapped);
    const auto& waiter = results[0].bootstrapped ? results[1] : results[0];
    expectNothingDone(waiter);
    const auto log = callLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), "other caller waits"), 1);
    EXPECT_TRUE(expectedState().isReady());
}

TEST_F(BootstrapLock, KilledHolderDoesNotLeaveLockHeld) {
    Pipe building;
    const pid_t child = startChild([&] {
        setPrecompileHook([&](const std::vector<std::string>&) {
            building.send();
            for (;;) {
                pause();
            }
        });
        StandardLibraryBootstrap::ensure({});
        return 3;
    });
    ASSERT_TRUE(building.receive());
    EXPECT_TRUE(lockHeldElsewhere(lockFile()));
    kill(child, SIGKILL);
    EXPECT_EQ(waitForChild(child), 128 + SIGKILL);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    const auto result = StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_TRUE(expectedState().isReady());
}

TEST_F(BootstrapLock, LockFileIsCreatedWithModeSixHundred) {
    const mode_t previous = umask(0);
    std::string error = runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); });
    umask(previous);
    EXPECT_EQ(error, "<no exception>");
    struct stat info {};
    ASSERT_EQ(stat(lockFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_TRUE(S_ISREG(info.st_mode));
}

TEST_F(BootstrapLock, ExistingLockFileIsReusedNotTruncated) {
    fs::create_directories(lockDir());
    writeFile(lockFile(), "left by someone");
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(readFile(lockFile()), "left by someone");
}

TEST_F(BootstrapLock, LockDescriptorIsReadWriteWithoutCloseOnExec) {
    ProgressRecorder recorder;
    recorder.extra = [&](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage != StandardLibraryBootstrapStage::Preparing) {
            return;
        }
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error) != lockFile()) {
                continue;
            }
            const int fd = std::stoi(entry.path().filename().native());
            const int descriptorFlags = fcntl(fd, F_GETFD);
            const int statusFlags = fcntl(fd, F_GETFL);
            logCall(std::string("lock descriptor") +
                    ((descriptorFlags & FD_CLOEXEC) != 0 ? " close-on-exec" : "") +
                    ((statusFlags & O_ACCMODE) == O_RDWR ? " read-write" : " not read-write"));
        }
    };
    StandardLibraryBootstrap::ensure(recorder.callback());
    const auto log = callLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), "lock descriptor read-write"), 1);
}

TEST_F(BootstrapLock, LockFileOwnedByOtherUserCannotBeOpened) {
    fs::permissions(root, fs::perms(0755));
    fs::create_directories(lockDir());
    for (fs::path dir = lockDir(); dir != root; dir = dir.parent_path()) {
        fs::permissions(dir, fs::perms(0777));
    }
    const int fd = open(lockFile().c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    fs::permissions(lockFile(), fs::perms(0600));
    const std::string expected =
        "Unable to lock Quor standard-library cache '" + s(lockFile()) + "'";
    EXPECT_EXIT(testsupport::reportAsNobody([&] {
                    ProgressRecorder recorder;
                    const std::string message = runtimeErrorOf(
                        [&] { StandardLibraryBootstrap::ensure(recorder.callback()); });
                    return "error: " + message +
                           "\nreports: " + std::to_string(recorder.reports.size()) +
                           "\nprecompile calls: " + std::to_string(precompileCallCount()) + "\n";
                }),
                ::testing::ExitedWithCode(0),
                ::testing::Eq("error: " + expected + "\nreports: 0\nprecompile calls: 0\n"));
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

void ignoreSignal(int) {}

TEST_F(BootstrapLock, InterruptedLockWaitFailsAndClosesDescriptor) {
    Pipe locked;
    Pipe release;
    const pid_t child = startChild([&] {
        takeLockAsOtherProcess();
        alarm(30); // a unit that retried the wait must not hang the suite
        locked.send();
        release.receive();
        return 0;
    });
    ASSERT_TRUE(locked.receive());

    struct sigaction interrupt {};
    interrupt.sa_handler = ignoreSignal;
    sigemptyset(&interrupt.sa_mask);
    interrupt.sa_flags = 0; // no SA_RESTART: the blocked flock returns EINTR
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &previous), 0);

    const std::size_t descriptors = openDescriptorCount();
    const pthread_t waiter = pthread_self();
    bool signalled = false;
    std::thread interrupter([&] {
        signalled = waitForBlockedFlock(lockFile());
        if (signalled) {
            pthread_kill(waiter, SIGUSR1);
        }
    });
    ProgressRecorder recorder;
    const std::string message =
        runtimeErrorOf([&] { StandardLibraryBootstrap::ensure(recorder.callback()); });
    interrupter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    release.send();
    EXPECT_EQ(waitForChild(child), 0);

    EXPECT_TRUE(signalled);
    EXPECT_EQ(message, "Unable to lock Quor standard-library cache '" + s(lockFile()) + "'");
    EXPECT_EQ(openDescriptorCount(), descriptors);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(precompileCallCount(), 0u);
}

} // namespace
} // namespace quor::testing
