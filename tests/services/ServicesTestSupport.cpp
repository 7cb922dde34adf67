// Helpers of the service tests alone; see ServicesTestSupport.h.

#include "tests/services/ServicesTestSupport.h"

#include "compiler/Sha256.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace quor::test {

namespace {

// PF_EXITING in the kernel's task flags: the task has begun to exit.
constexpr unsigned long taskExiting = 0x4;

// Whether the task whose /proc directory is `directory` is running. A task
// that vanished between the listing and the read has exited.
bool isLive(const std::string& directory) {
    const int fd = ::open((directory + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[1024];
    const ssize_t count = ::read(fd, buffer, sizeof buffer - 1);
    ::close(fd); // read-only: nothing to lose
    if (count <= 0) {
        return false;
    }
    // "tid (name) state ppid pgrp session tty tpgid flags ...": the name may
    // hold spaces and parentheses, so the fields are counted after the last ')'.
    const std::string line(buffer, static_cast<std::size_t>(count));
    const std::size_t nameEnd = line.rfind(')');
    std::istringstream fields(nameEnd == std::string::npos ? std::string()
                                                           : line.substr(nameEnd + 1));
    std::string skipped;
    for (int field = 3; field < 9 && fields >> skipped; ++field) {
    }
    unsigned long flags = 0;
    if (!(fields >> flags)) {
        throw std::runtime_error("unexpected " + directory + "/stat: " + line);
    }
    return (flags & taskExiting) == 0;
}

} // namespace

bool taskIsLive(pid_t tid) {
    return isLive("/proc/self/task/" + std::to_string(tid));
}

std::size_t liveTaskCount() {
    // pthread_join() returns as soon as the kernel has cleared the exiting
    // thread's id, which it does while that thread gives up its memory; the
    // thread leaves /proc/self/task only later in its exit. So a thread that
    // was joined can still be listed for a moment, and a count taken right
    // after a join was now and then one too high. Every exiting thread has
    // PF_EXITING set before that point (the kernel sets it first thing on
    // exit), so such a thread is not counted. A thread that has not been told
    // to end, or is still finishing its work, has no such flag and counts.
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        if (isLive(entry.path().native())) {
            ++count;
        }
    }
    return count;
}

std::size_t threadCount() {
    // A sanitizer runtime starts a helper thread of its own when the process
    // creates its first thread; start and join one here so that the helper is
    // counted on both sides of a comparison.
    std::thread([] {}).join();
    return liveTaskCount();
}

ScopedRuntime::ScopedRuntime(const compiler::RuntimeConfiguration& configuration) {
    compiler::Runtime::getInstance().configure(configuration);
}

ScopedRuntime::~ScopedRuntime() {
    compiler::Runtime::getInstance().configure({});
}

OpenCounter::OpenCounter(const fs::path& root) {
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        throw std::runtime_error("inotify_init1 failed");
    }
    auto watch = [this, &root](const fs::path& directory) {
        int wd = ::inotify_add_watch(fd_, directory.c_str(), IN_OPEN);
        if (wd < 0) {
            throw std::runtime_error("inotify_add_watch failed");
        }
        std::string relative = directory.lexically_relative(root).generic_string();
        directories_[wd] = relative == "." ? std::string() : relative + "/";
    };
    watch(root);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_directory() && !entry.is_symlink()) {
            watch(entry.path());
        }
    }
}

OpenCounter::~OpenCounter() {
    if (fd_ >= 0) {
        ::close(fd_); // closing also drops every watch
    }
}

std::map<std::string, int> OpenCounter::collect() {
    std::map<std::string, int> opens;
    alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (;;) {
        ssize_t count = ::read(fd_, buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        for (char* at = buffer; at < buffer + count;) {
            auto* event = reinterpret_cast<inotify_event*>(at);
            if ((event->mask & IN_OPEN) != 0 && event->len > 0 && (event->mask & IN_ISDIR) == 0) {
                ++opens[directories_[event->wd] + event->name];
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    return opens;
}

OpenGate::OpenGate(const fs::path& directory) {
    // Each event names the thread that opens, not only its process, so that a
    // test can tell the workers apart.
    fd_ = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_REPORT_TID, O_RDONLY | O_LARGEFILE);
    if (fd_ < 0) {
        why_ = std::string("fanotify_init: ") + std::strerror(errno);
        return;
    }
    if (::fanotify_mark(fd_, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_EVENT_ON_CHILD, AT_FDCWD,
                        directory.c_str()) != 0) {
        why_ = std::string("fanotify_mark: ") + std::strerror(errno);
        ::close(fd_);
        fd_ = -1;
    }
}

OpenGate::~OpenGate() {
    for (HeldOpen& held : received_) {
        allow(held);
    }
    if (fd_ >= 0) {
        ::close(fd_); // the kernel allows whatever is still pending
    }
}

bool OpenGate::receive(std::chrono::milliseconds limit) {
    pollfd polled{fd_, POLLIN, 0};
    if (::poll(&polled, 1, static_cast<int>(limit.count())) <= 0) {
        return false;
    }
    alignas(fanotify_event_metadata) char buffer[4096];
    const ssize_t count = ::read(fd_, buffer, sizeof buffer);
    if (count <= 0) {
        return false;
    }
    auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
    ssize_t left = count;
    for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
        if (event->fd >= 0) {
            HeldOpen held;
            held.fd = event->fd;
            held.tid = event->pid;
            char path[PATH_MAX];
            const std::string link = "/proc/self/fd/" + std::to_string(event->fd);
            const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
            if (length > 0) {
                held.path.assign(path, static_cast<std::size_t>(length));
            }
            received_.push_back(std::move(held));
        }
    }
    return true;
}

std::optional<OpenGate::HeldOpen> OpenGate::next(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (received_.empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        receive(left);
    }
    HeldOpen held = std::move(received_.front());
    received_.pop_front();
    return held;
}

void OpenGate::allow(HeldOpen& held) {
    if (held.fd < 0) {
        return;
    }
    fanotify_response response{};
    response.fd = held.fd;
    response.response = FAN_ALLOW;
    [[maybe_unused]] const ssize_t written = ::write(fd_, &response, sizeof response);
    ::close(held.fd);
    held.fd = -1;
}

std::size_t OpenGate::run(std::size_t target, std::chrono::milliseconds quiet,
                          const std::function<void()>& whileHeld,
                          const std::atomic<bool>& finished) {
    std::vector<HeldOpen> pending;
    while (pending.size() < target) {
        std::optional<HeldOpen> held = next(quiet);
        if (held) {
            pending.push_back(std::move(*held));
        } else if (!pending.empty() || finished.load()) {
            break;
        }
    }
    const std::size_t count = pending.size();
    whileHeld();
    for (HeldOpen& held : pending) {
        allow(held);
    }
    while (!finished.load()) {
        if (std::optional<HeldOpen> held = next(std::chrono::milliseconds(50))) {
            allow(*held);
        }
    }
    return count;
}

std::string unitText(const std::string& path, const std::string& extra) {
    const fs::path unit(path);
    std::string package = unit.parent_path().generic_string();
    std::replace(package.begin(), package.end(), '/', '.');
    return (package.empty() ? "" : "package " + package + "\n") + "public struct " +
           unit.stem().native() + " { }\n" + "public fn make" + unit.stem().native() +
           "() -> Int { return 1 }\n" + extra;
}

void materialiseLibrary(const fs::path& root, const Library& library) {
    fs::remove_all(root);
    std::string all;
    for (const auto& [path, text] : library) {
        writeFile(root / path, text);
        all += path + '\0' + text + '\0';
    }
    writeFile(root / ".quor-stdlib-fingerprint", compiler::Sha256::hex(all) + "\n");
    fs::permissions(root, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
}

} // namespace quor::test
