// The source-content cache. Texts are keyed by the file's absolute, lexically
// normal path, so that "stdlib/./a.qr" and "/repo/stdlib/a.qr" share one read.
// A file being read by one thread is waited for by the others instead of being
// read twice; different files are read in parallel.

#include "compiler/SourceManager.h"

#include "compiler/BuildSession.h"
#include "compiler/CacheLayout.h"
#include "compiler/PathText.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quor::compiler {

namespace {

std::string cacheKey(const std::filesystem::path& file) {
    // The paths a build asks for are absolute and normal already; building a
    // normalised copy of each would cost more than the look-up itself.
    if (isAbsoluteAndNormal(file.native())) {
        return file.native();
    }
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
            // One byte more than the size is asked for, so that a read
            // returning less shows the end of the file without a second call.
            text->resize(static_cast<std::size_t>(status.st_size) + 1);
            std::size_t used = 0;
            for (;;) {
                if (used == text->size()) {
                    text->resize(text->size() * 2);
                }
                const std::size_t wanted = text->size() - used;
                ssize_t count = ::read(fd, text->data() + used, wanted);
                if (count > 0) {
                    used += static_cast<std::size_t>(count);
                    if (static_cast<std::size_t>(count) < wanted) {
                        break; // a regular file reads short only at its end
                    }
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

std::size_t SourceManager::textCount() {
    std::lock_guard lock(mutex_);
    return texts_.size();
}

std::shared_ptr<const std::string> SourceManager::contents(const std::filesystem::path& file) {
    if (const BuildSession* session = BuildSession::current();
        session != nullptr && session->readsStopped()) {
        throw ReadsStopped();
    }
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

void SourceManager::readAhead(const std::filesystem::path& root) {
    stopReadAhead();
    std::lock_guard lock(readAheadMutex_);
    auto state = std::make_shared<ReadAheadState>();
    state->running = true;
    try {
        std::thread([this, root, state] {
            // The walk that follows reads from the first file on; this thread
            // reads from the last one back, so the two meet once, near the
            // middle, instead of one waiting on the other at every file.
            namespace fs = std::filesystem;
            std::vector<fs::path> files;
            std::error_code error;
            fs::recursive_directory_iterator entries(
                root, fs::directory_options::skip_permission_denied, error);
            for (; !error && entries != fs::recursive_directory_iterator() &&
                   !state->stop.load(std::memory_order_relaxed);
                 entries.increment(error)) {
                std::error_code typeError;
                const fs::file_status status = entries->symlink_status(typeError);
                if (fs::is_regular_file(status) &&
                    entries->path().extension() == layout::sourceExtension) {
                    files.push_back(entries->path());
                }
            }
            for (auto file = files.rbegin();
                 file != files.rend() && !state->stop.load(std::memory_order_relaxed); ++file) {
                const std::string key = cacheKey(*file);
                {
                    std::lock_guard guard(mutex_);
                    if (texts_.count(key) != 0 || reading_.count(key) != 0) {
                        break; // the walk got here first: the rest is its own
                    }
                }
                try {
                    contents(*file);
                } catch (...) {
                    break; // stopped, or out of memory: the walk reads for itself
                }
            }
            // From here on this thread touches only the shared state.
            std::lock_guard guard(state->mutex);
            state->running = false;
            state->done.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        // No thread to be had (the process limit, memory): the requests read
        // each file themselves, as they would without a read-ahead.
        return;
    }
    readAhead_ = std::move(state);
}

void SourceManager::stopReadAhead() {
    std::lock_guard lock(readAheadMutex_);
    if (!readAhead_) {
        return;
    }
    readAhead_->stop.store(true);
    std::unique_lock wait(readAhead_->mutex);
    readAhead_->done.wait(wait, [this] { return !readAhead_->running; });
    wait.unlock();
    readAhead_.reset();
}

SourceManager::~SourceManager() {
    stopReadAhead();
}

} // namespace quor::compiler
