// What `status`, `prune` and `clean` show that no rule of the bootstrap
// decides: sizes on disk. Everything else the tool explains, it asks of the
// bootstrap (compiler/BootstrapExplanation.h).

#include "CacheProbe.h"

#include <algorithm>
#include <condition_variable>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace quor::stdlibtool {

namespace fs = std::filesystem;

namespace {

void addUnreachable(const std::vector<compiler::explain::PassedOver>& passedOver,
                    std::vector<UnreachableEntry>* unreachable) {
    if (unreachable == nullptr)
        return;
    for (const auto& entry : passedOver)
        if (isUnreachable(entry))
            unreachable->push_back({entry.path, entry.reason});
}

} // namespace

bool isUnreachable(const compiler::explain::PassedOver& entry) {
    using Why = compiler::explain::PassedOver::Why;
    return entry.why == Why::Unexaminable || entry.why == Why::ClosedFolder;
}

std::vector<std::string> libraryUnitFiles(const fs::path& root,
                                          std::vector<UnreachableEntry>* unreachable) {
    std::vector<compiler::explain::PassedOver> passedOver;
    std::vector<std::string> units = compiler::explain::libraryUnitFiles(root, &passedOver);
    addUnreachable(passedOver, unreachable);
    return units;
}

std::vector<std::string> compilableUnits(const fs::path& root,
                                         std::vector<UnreachableEntry>* unreachable) {
    compiler::explain::UnitChoice choice = compiler::explain::chooseUnits(root);
    addUnreachable(choice.passedOver, unreachable);
    return std::move(choice.units);
}

namespace {

// The size walk below a directory, shared by a few threads. One stat per entry
// is the whole cost of a du, all of it system time; on a machine whose cores
// are busy, a single thread waits for its turn far longer than it runs, so the
// walk takes as many turns at once as there are cores (up to four). Each
// thread walks depth first, by descriptor; a thread that finds another idle
// hands it the next subfolder it meets, opened, so that at most a few
// descriptors wait in the queue. When no thread can be started, the calling
// thread walks alone.
class SizeWalk {
public:
    // Adds what lies below the directory open as `directory` to `size`, and
    // closes it. A directory that cannot be listed, or an entry that cannot
    // be examined, adds nothing; the walk goes on with the rest.
    static void run(int directory, TreeSize& size) {
        SizeWalk walk;
        walk.queue_.push_back(directory);
        const unsigned cores = std::thread::hardware_concurrency();
        const unsigned helpers = std::clamp(cores, 1u, 4u) - 1;
        std::vector<std::thread> threads;
        for (unsigned index = 0; index < helpers; ++index) {
            try {
                threads.emplace_back([&walk] { walk.work(); });
            } catch (const std::system_error&) {
                break; // no thread to be had: fewer walkers
            }
        }
        {
            const std::lock_guard lock(walk.mutex_);
            walk.workers_ = static_cast<unsigned>(threads.size()) + 1;
            walk.ready_ = true;
        }
        walk.wake_.notify_all();
        walk.work();
        for (auto& thread : threads)
            thread.join();
        size.bytes += walk.total_.bytes;
        size.files += walk.total_.files;
    }

private:
    // Takes folders from the queue until every walker is idle and the queue
    // is empty.
    void work() {
        TreeSize mine;
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return ready_; });
        while (true) {
            if (!queue_.empty()) {
                const int directory = queue_.back();
                queue_.pop_back();
                lock.unlock();
                walk(directory, mine);
                lock.lock();
                continue;
            }
            if (++idle_ == workers_) {
                finished_ = true;
                wake_.notify_all();
            }
            idleHint_.store(idle_, std::memory_order_relaxed);
            wake_.wait(lock, [this] { return finished_ || !queue_.empty(); });
            if (finished_)
                break;
            idleHint_.store(--idle_, std::memory_order_relaxed);
        }
        total_.bytes += mine.bytes;
        total_.files += mine.files;
    }

    void walk(int directory, TreeSize& size) {
        DIR* listing = ::fdopendir(directory);
        if (listing == nullptr) {
            ::close(directory); // opened read-only to list it: closing loses nothing
            return;
        }
        const int fd = ::dirfd(listing);
        while (const dirent* entry = ::readdir(listing)) {
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            struct stat info {};
            if (::fstatat(fd, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            size.bytes += static_cast<std::uint64_t>(info.st_blocks) * 512;
            if (!S_ISDIR(info.st_mode)) {
                ++size.files;
                continue;
            }
            // O_NOFOLLOW: a directory swapped for a link since the stat is
            // not entered.
            const int child = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child < 0)
                continue;
            if (idleHint_.load(std::memory_order_relaxed) > 0 && handOver(child))
                continue;
            walk(child, size);
        }
        ::closedir(listing);
    }

    // Queues `directory` for an idle walker; false when the queue is full
    // enough already.
    bool handOver(int directory) {
        const std::lock_guard lock(mutex_);
        if (queue_.size() >= workers_)
            return false;
        queue_.push_back(directory);
        wake_.notify_one();
        return true;
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<int> queue_; // open folders nobody walks yet
    unsigned workers_ = 1;
    unsigned idle_ = 0;
    std::atomic<unsigned> idleHint_{0}; // idle_, read without the lock
    bool ready_ = false;                // workers_ is set
    bool finished_ = false;
    TreeSize total_;
};

} // namespace

TreeSize treeSize(const fs::path& path) {
    TreeSize size;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return size;
    size.bytes = static_cast<std::uint64_t>(info.st_blocks) * 512;
    if (!S_ISDIR(info.st_mode))
        return size;
    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory >= 0)
        SizeWalk::run(directory, size);
    return size;
}

VersionSize versionSize(const fs::path& cacheRoot, const std::string& version) {
    const auto directories = compiler::explain::versionDirectories(cacheRoot, version);
    const TreeSize cache = treeSize(directories.cache);
    return {cache.bytes + treeSize(directories.firstLaunchState).bytes, cache.files};
}

std::uint64_t versionBytes(const fs::path& cacheRoot, const std::string& version) {
    return versionSize(cacheRoot, version).bytes;
}

} // namespace quor::stdlibtool
