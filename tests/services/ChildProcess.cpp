// Test helpers; see ChildProcess.h.

#include "tests/services/ChildProcess.h"

#include "ChildChecks.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace quor::test {

std::ostream& operator<<(std::ostream& stream, const ChildResult& result) {
    return stream << "child status " << result.status
                  << (result.killed ? " (killed at the deadline)" : "") << ", peak "
                  << result.peakKiB << " KiB, report:\n"
                  << result.output;
}

ChildResult runInChild(const std::function<int(std::string& report)>& body,
                       std::chrono::milliseconds deadline) {
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const auto stopAt = std::chrono::steady_clock::now() + deadline;
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        ::close(channel[0]);
        std::string report;
        int code = 70;
        try {
            code = body(report);
        } catch (const std::exception& error) {
            report += std::string("uncaught exception: ") + error.what() + "\n";
        } catch (...) {
            report += "uncaught exception of another type\n";
        }
        testsupport::writeAll(channel[1], report);
        ::_exit(code); // no test-framework or static destructors in the child
    }
    ::close(channel[1]);

    ChildResult result;
    int fd = channel[0];
    while (fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            stopAt - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            ::kill(pid, SIGKILL);
            result.killed = true;
            break;
        }
        pollfd polled{fd, POLLIN, 0};
        if (::poll(&polled, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            break;
        }
        if (polled.revents == 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            result.output.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            ::close(fd);
            fd = -1;
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    result.peakKiB = usage.ru_maxrss;
    if (WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.status = 128 + WTERMSIG(status);
    }
    return result;
}

bool becomeNobody(rlim_t processes, std::string& report) {
    testsupport::becomeUser(testsupport::kNobody);
    const rlimit limit{processes, processes};
    if (::setrlimit(RLIMIT_NPROC, &limit) != 0) {
        report += std::string("cannot set RLIMIT_NPROC: ") + std::strerror(errno) + "\n";
        return false;
    }
    return true;
}

void giveToNobody(const std::string& path) {
    namespace fs = std::filesystem;
    if (::lchown(path.c_str(), testsupport::kNobody, testsupport::kNobody) != 0) {
        throw std::runtime_error("lchown failed for " + path);
    }
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (::lchown(entry.path().c_str(), testsupport::kNobody, testsupport::kNobody) != 0) {
            throw std::runtime_error("lchown failed for " + entry.path().native());
        }
    }
}

} // namespace quor::test
