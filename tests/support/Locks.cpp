// Lock holders and probes; see Locks.h.

#include "tests/support/Locks.h"

#include "tests/support/Files.h"
#include "tests/support/Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quor::testsupport {

namespace fs = std::filesystem;

LockHolderProcess::LockHolderProcess(const fs::path& file, const std::string& commandName) {
    fs::create_directories(file.parent_path());
    // Prepared before the fork, so that the child only calls execv().
    std::string nameText = commandName;
    std::string seconds = "120";
    char* const argv[] = {nameText.data(), seconds.data(), nullptr};
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        ::close(ready[0]);
        // Not close-on-exec: a named holder keeps the lock across the exec.
        const int fd = ::open(file.c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0) {
            ::_exit(1);
        }
        const char byte = 'L';
        if (::write(ready[1], &byte, 1) != 1) {
            ::_exit(1);
        }
        if (!commandName.empty()) {
            ::execv("/bin/sleep", argv);
            ::_exit(127);
        }
        for (;;) {
            ::pause();
        }
    }
    ::close(ready[1]);
    char byte = 0;
    ssize_t got = 0;
    while ((got = ::read(ready[0], &byte, 1)) < 0 && errno == EINTR) {
    }
    ::close(ready[0]);
    if (got != 1) {
        release();
        throw std::runtime_error("the lock holder could not take the lock");
    }
    // Until the exec has happened, the command line is still this test's.
    const fs::path commandLine = "/proc/" + std::to_string(pid_) + "/cmdline";
    if (!commandName.empty() &&
        !waitUntil([&] { return readFile(commandLine).starts_with(commandName); },
                   std::chrono::seconds(10))) {
        release();
        throw std::runtime_error("the named lock holder did not start");
    }
}

LockHolderProcess::~LockHolderProcess() {
    release();
}

void LockHolderProcess::release() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

LockState probeLock(const fs::path& file) {
    const int status = runInChild([&] {
        const int fd = ::open(file.c_str(), O_RDWR);
        if (fd < 0) {
            return 2;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return 0;
        }
        return errno == EWOULDBLOCK ? 1 : 3;
    });
    switch (status) {
    case 0:
        return LockState::Free;
    case 1:
        return LockState::Held;
    case 2:
        return LockState::Missing;
    default:
        throw std::runtime_error("cannot probe the lock on " + file.native() + ": status " +
                                 std::to_string(status));
    }
}

bool lockHeldElsewhere(const fs::path& file) {
    return probeLock(file) == LockState::Held;
}

bool waitForBlockedFlock(const fs::path& file) {
    return waitUntil(
        [&] {
            struct stat info {};
            if (::stat(file.c_str(), &info) != 0) {
                return false;
            }
            const std::string inodeSuffix = ":" + std::to_string(info.st_ino);
            std::ifstream locks("/proc/locks");
            std::string line;
            while (std::getline(locks, line)) {
                if (line.find("->") == std::string::npos ||
                    line.find("FLOCK") == std::string::npos) {
                    continue;
                }
                std::istringstream fields(line);
                std::string field;
                while (fields >> field) {
                    if (field.size() > inodeSuffix.size() &&
                        field.compare(field.size() - inodeSuffix.size(), inodeSuffix.size(),
                                      inodeSuffix) == 0) {
                        return true;
                    }
                }
            }
            return false;
        },
        std::chrono::seconds(20));
}

} // namespace quor::testsupport
