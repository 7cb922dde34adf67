// Test helpers; see ServicesTestSupport.h.

#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace quor::test {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "quor-services-XXXXXX").native();
    char* made = ::mkdtemp(pattern.data());
    if (made == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = made;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code error;
    fs::remove_all(path_, error); // a leftover temporary directory harms no later test
}

void writeFile(const fs::path& path, const std::string& text) {
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    ASSERT_FALSE(error) << error.message();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::map<std::string, std::string> snapshotTree(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            files[entry.path().lexically_relative(root).generic_string()] = readFile(entry.path());
        }
    }
    return files;
}

std::map<std::string, std::string> wholeTree(const fs::path& root) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = entry.path().lexically_relative(root).generic_string();
        const fs::file_status status = entry.symlink_status();
        const std::string mode = std::to_string(static_cast<unsigned>(status.permissions()));
        if (fs::is_symlink(status)) {
            entries[relative] = "link -> " + fs::read_symlink(entry.path()).native();
        } else if (fs::is_directory(status)) {
            entries[relative] = "dir " + mode;
        } else if (fs::is_regular_file(status)) {
            entries[relative] = "file " + mode + " " + readFile(entry.path());
        } else {
            entries[relative] = "other " + mode;
        }
    }
    return entries;
}

std::vector<std::string> findNames(const fs::path& root, const std::string& needle) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().filename().native().find(needle) != std::string::npos) {
            names.push_back(it->path().lexically_relative(root).generic_string());
        }
    }
    return names;
}

std::size_t threadCount() {
    // A sanitizer runtime starts a helper thread of its own when the process
    // creates its first thread; start and join one here so that the helper is
    // counted on both sides of a comparison.
    std::thread([] {}).join();
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

ScopedRuntime::ScopedRuntime(const compiler::RuntimeConfiguration& configuration) {
    compiler::Runtime::getInstance().configure(configuration);
}

ScopedRuntime::~ScopedRuntime() {
    compiler::Runtime::getInstance().configure({});
}

ScopedEnvironment::ScopedEnvironment(std::string name, const char* value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) {
        hadValue_ = true;
        oldValue_ = old;
    }
    if (value == nullptr) {
        ::unsetenv(name_.c_str());
    } else {
        ::setenv(name_.c_str(), value, 1);
    }
}

ScopedEnvironment::~ScopedEnvironment() {
    if (hadValue_) {
        ::setenv(name_.c_str(), oldValue_.c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
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

} // namespace quor::test
