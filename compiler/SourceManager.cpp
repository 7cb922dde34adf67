// The source-content cache. Texts are keyed by the file's absolute, lexically
// normal path, so that "stdlib/./a.qr" and "/repo/stdlib/a.qr" share one read.
// A file being read by one thread is waited for by the others instead of being
// read twice; different files are read in parallel.

#include "compiler/SourceManager.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::compiler {

namespace {

std::string cacheKey(const std::filesystem::path& file) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(file, error);
    return (error ? file : absolute).lexically_normal().native();
}

// The whole regular file at `path`, or an empty handle. Whatever else stands
// at the path when it is opened (a FIFO swapped in after the library was
// walked, a device) gives the empty handle at once: the open does not wait for
// a writer, and nothing but a regular file is read. A file too large for the
// memory left is unreadable too, rather than an exception that names no unit.
std::shared_ptr<const std::string> readWholeFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return nullptr;
    }
    std::shared_ptr<std::string> text;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        try {
            text = std::make_shared<std::string>();
            // The size is a hint only: a file may change while it is read, and
            // the text is whatever the reads return up to end of file.
            text->resize(static_cast<std::size_t>(status.st_size) + 1);
            std::size_t used = 0;
            for (;;) {
                if (used == text->size()) {
                    text->resize(text->size() * 2);
                }
                ssize_t count = ::read(fd, text->data() + used, text->size() - used);
                if (count > 0) {
                    used += static_cast<std::size_t>(count);
                } else if (count == 0) {
                    break;
                } else if (errno != EINTR) {
                    text.reset();
                    break;
                }
            }
            if (text) {
                text->resize(used);
            }
        } catch (const std::bad_alloc&) {
            text.reset();
        } catch (const std::length_error&) {
            text.reset();
        }
    }
    ::close(fd); // read-only descriptor: nothing to lose on a failing close
    return text;
}

} // namespace

SourceManager& SourceManager::instance() {
    static SourceManager manager;
    return manager;
}

SourceManager::SourceManager() = default;

std::shared_ptr<const std::string> SourceManager::contents(const std::filesystem::path& file) {
    std::string key = cacheKey(file);
    std::unique_lock lock(mutex_);
    for (;;) {
        auto found = texts_.find(key);
        if (found != texts_.end()) {
            return found->second;
        }
        if (reading_.insert(key).second) {
            break;
        }
        readDone_.wait(lock);
    }
    lock.unlock();

    std::shared_ptr<const std::string> text;
    try {
        text = readWholeFile(key);
    } catch (...) {
        lock.lock();
        reading_.erase(key);
        readDone_.notify_all();
        throw;
    }

    lock.lock();
    reading_.erase(key);
    if (text) {
        texts_.emplace(key, text);
    }
    readDone_.notify_all();
    return text;
}

void SourceManager::clear() {
    std::lock_guard lock(mutex_);
    texts_.clear();
}

} // namespace quor::compiler
