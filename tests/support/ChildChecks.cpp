// Checks in a child process; see ChildChecks.h.

#include "tests/support/ChildChecks.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>

namespace quor::testsupport {

namespace {

[[noreturn]] void failSetup(const std::string& what, int error, int status) {
    writeAll(STDERR_FILENO, what + ": " + std::strerror(error) + "\n");
    ::_exit(status);
}

} // namespace

void writeAll(int fd, std::string_view text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return; // nobody listens any more; the exit status still tells
        }
        written += static_cast<std::size_t>(count);
    }
}

void becomeUser(uid_t uid) {
    const gid_t group = static_cast<gid_t>(uid);
    if (::setgroups(1, &group) != 0 || ::setgid(group) != 0 || ::setuid(uid) != 0) {
        failSetup("cannot become uid " + std::to_string(uid), errno, kCannotChangeUser);
    }
}

bool becomeNobody(rlim_t processes, std::string& report) {
    becomeUser(kNobody);
    const rlimit limit{processes, processes};
    if (::setrlimit(RLIMIT_NPROC, &limit) != 0) {
        report += std::string("cannot set RLIMIT_NPROC: ") + std::strerror(errno) + "\n";
        return false;
    }
    return true;
}

void giveToNobody(const std::string& path) {
    namespace fs = std::filesystem;
    if (::lchown(path.c_str(), kNobody, kNobody) != 0) {
        throw std::runtime_error("lchown failed for " + path + ": " + std::strerror(errno));
    }
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (::lchown(entry.path().c_str(), kNobody, kNobody) != 0) {
            throw std::runtime_error("lchown failed for " + entry.path().native() + ": " +
                                     std::strerror(errno));
        }
    }
}

void exhaustDescriptors() {
    const rlimit limit{256, 256};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        failSetup("cannot lower RLIMIT_NOFILE", errno, kCannotExhaustDescriptors);
    }
    while (::open("/dev/null", O_RDONLY) >= 0) {
    }
    if (errno != EMFILE) {
        failSetup("descriptors ran out for another reason", errno, kCannotExhaustDescriptors);
    }
}

void reportAndExit(const std::function<std::string()>& body) {
    std::string report;
    int status = 0;
    try {
        report = body();
    } catch (const std::exception& error) {
        report = std::string("uncaught exception: ") + error.what() + "\n";
        status = 1;
    } catch (...) {
        report = "uncaught exception of another type\n";
        status = 1;
    }
    writeAll(STDERR_FILENO, report);
    ::_exit(status);
}

void reportAs(uid_t uid, const std::function<std::string()>& body) {
    becomeUser(uid);
    reportAndExit(body);
}

void reportAsNobody(const std::function<std::string()>& body) {
    reportAs(kNobody, body);
}

std::string outcomeOf(int result) {
    return result == 0 ? std::string("ok\n")
                       : std::string("failed: ") + std::strerror(errno) + "\n";
}

std::string literalPattern(std::string_view text) {
    std::string pattern;
    for (char c : text) {
        if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern;
}

} // namespace quor::testsupport
