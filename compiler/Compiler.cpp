// The batch precompiler and the library cache's object-ABI record.
//
// precompileSources() checks every unit against the library root first, then
// runs the front end (compiler/UnitCompiler.h) on a pool of worker threads.
// Workers publish each object by writing a temporary file beside it and
// renaming it into place; the calling thread hands out progress reports as
// workers finish, and a single syncfs() at the end makes the whole batch
// durable, which is far cheaper than one fsync per object.

#include "compiler/Compiler.h"

#include "compiler/CacheTrust.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/Tokenizer.h"
#include "compiler/UnitCompiler.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <signal.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

// Raise it whenever docs/object-format.md changes: a cache written for another
// value is cleared by ensureObjectAbiCacheCurrent().
constexpr int objectAbi = 1;

// The file in the library cache that names the ABI its objects were written for.
constexpr const char* abiRecordName = ".quor-object-abi";

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

// A name for a temporary file that no other thread or process of this machine
// picks at the same time.
std::string temporarySuffix() {
    static std::atomic<unsigned long> counter{0};
    return ".tmp." + std::to_string(::getpid()) + "." + std::to_string(++counter);
}

// Writes `data` to `path` through a temporary sibling and a rename. Returns 0,
// or the errno of the step that failed, in which case no temporary file remains.
int writeFileAtomically(const fs::path& path, std::string_view data) {
    fs::path temporary = path.parent_path() / ("." + path.filename().native() + temporarySuffix());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return errno;
    }
    int error = 0;
    std::size_t written = 0;
    while (written < data.size()) {
        ssize_t count = ::write(fd, data.data() + written, data.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str()); // best effort: the error being reported is the first one
    }
    return error;
}

// The record is one short word; anything past this many bytes cannot be part of
// a record this compiler wrote.
constexpr std::size_t abiRecordReadLimit = 4096;

// The first white-space-delimited word of the ABI record, or "" when there is
// no record. Only a regular file reached without a symbolic link is a record:
// a FIFO or a device put in its place must neither block nor be read without
// end, and reads as no record, which makes the cache be cleared and recorded
// anew.
std::string readAbiRecord(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return {};
    }
    std::string text;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        char buffer[abiRecordReadLimit];
        std::size_t used = 0;
        while (used < sizeof buffer) {
            const ssize_t count = ::read(fd, buffer + used, sizeof buffer - used);
            if (count > 0) {
                used += static_cast<std::size_t>(count);
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }
        text.assign(buffer, used);
    }
    ::close(fd); // read-only descriptor: nothing to lose on a failing close
    // White space as the C locale knows it, so that a record with a CR or a
    // blank around the number still reads.
    constexpr std::string_view space = " \t\n\v\f\r";
    const std::size_t begin = text.find_first_not_of(space);
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t end = text.find_first_of(space, begin);
    if (end == std::string::npos && text.size() == abiRecordReadLimit) {
        return {}; // the word may go on past the limit: not a record of ours
    }
    return text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

// One unit of a batch: the path as the caller named it, the path below the
// library root that the object records, and where the object goes.
struct Unit {
    std::string source;
    std::string unitPath;
    fs::path object;
};

std::vector<Unit> planUnits(const std::vector<std::string>& sources) {
    const Runtime& runtime = Runtime::getInstance();
    std::error_code error;
    fs::path root = fs::absolute(runtime.getStandardLibraryPath(), error).lexically_normal();
    if (error) {
        root = fs::path(runtime.getStandardLibraryPath()).lexically_normal();
    }
    fs::path lib = runtime.getLibCachePath();
    std::vector<Unit> units;
    units.reserve(sources.size());
    for (const std::string& source : sources) {
        fs::path absolute = fs::absolute(source, error).lexically_normal();
        if (error) {
            absolute = fs::path(source).lexically_normal();
        }
        fs::path relative = absolute.lexically_relative(root);
        if (relative.empty() || *relative.begin() == ".." || *relative.begin() == "." ||
            !absolute.has_filename()) {
            throw std::runtime_error(source + ":1:1: the unit lies outside the standard library '" +
                                     root.native() + "'");
        }
        if (relative.extension() != ".qr") {
            throw std::runtime_error(source +
                                     ":1:1: not a Quor source unit (its name must end in .qr)");
        }
        fs::path object = lib / relative;
        object.replace_extension(".qo");
        units.push_back({source, relative.generic_string(), object});
    }
    return units;
}

// Compiles one unit and publishes its object. Every failure is thrown as a
// std::runtime_error whose message starts with "path:line:column: ".
void compileOne(const Unit& unit) {
    std::shared_ptr<const std::string> text = SourceManager::instance().contents(unit.source);
    if (!text) {
        throw std::runtime_error(unit.source + ":1:1: unable to read the unit");
    }
    std::string object;
    try {
        object = compileUnit(*text, unit.unitPath, objectAbi);
    } catch (const SourceError& error) {
        throw std::runtime_error(unit.source + ":" + std::to_string(error.line()) + ":" +
                                 std::to_string(error.column()) + ": " + error.what());
    }
    if (int error = writeFileAtomically(unit.object, object); error != 0) {
        throw std::runtime_error(unit.source + ":1:1: unable to write its object '" +
                                 unit.object.native() + "': " + systemMessage(error));
    }
}

// What a worker tells the calling thread: unit `index` is done, or failed with
// `failure`.
struct Event {
    std::size_t index = 0;
    bool failed = false;
    std::string failure;
};

// The state the workers share with the calling thread.
struct Batch {
    const std::vector<Unit>& units;
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Event> events;
    std::size_t running = 0; // workers that have not exited; guarded by mutex

    explicit Batch(const std::vector<Unit>& batchUnits) : units(batchUnits) {}

    void post(Event event) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(event));
        changed.notify_one();
    }

    // Compiles the next unit nobody has taken and posts what became of it.
    // False when the batch is stopped or every unit is taken.
    bool runNext() {
        if (stop.load()) {
            return false;
        }
        std::size_t index = next.fetch_add(1);
        if (index >= units.size()) {
            return false;
        }
        Event event;
        event.index = index;
        try {
            compileOne(units[index]);
        } catch (const std::exception& error) {
            event.failed = true;
            event.failure = error.what();
        } catch (...) {
            event.failed = true;
            event.failure = units[index].source + ":1:1: unknown failure";
        }
        if (event.failed) {
            stop.store(true);
        }
        post(std::move(event));
        return true;
    }

    void work() {
        while (runNext()) {
        }
        std::lock_guard lock(mutex);
        --running;
        changed.notify_one();
    }
};

// The most worker threads one batch starts, whatever --jobs or QUOR_JOBS ask
// for. A unit costs a short stretch of processor time and a few file-system
// calls, so a few hundred threads keep every processor and any disk this
// compiler meets busy; each thread past that only costs a stack and a kernel
// task, and a mistyped "-j 100000" would otherwise try to start that many.
// README.md and docs/object-format.md give the same number.
constexpr std::size_t maxWorkerThreads = 256;

// Owns the worker threads: however the calling thread leaves, the workers are
// told to stop and are joined before the shared state goes away.
class WorkerPool {
public:
    // Starts up to `count` workers. A thread that cannot be started (the user's
    // process limit or the memory ran out) is no error: the batch goes on with
    // the workers already running, and with none at all the calling thread
    // compiles the units itself. So the constructor never throws, and never
    // leaves a started thread unowned.
    WorkerPool(Batch& batch, std::size_t count) : batch_(batch) {
        try {
            threads_.reserve(count);
        } catch (...) {
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            std::lock_guard lock(batch.mutex);
            ++batch.running;
            try {
                // Reserved above, so only the thread's own start can throw, and
                // then the vector is left as it was.
                threads_.emplace_back([&batch] { batch.work(); });
            } catch (...) {
                --batch.running;
                break;
            }
        }
    }
    std::size_t size() const { return threads_.size(); }
    ~WorkerPool() {
        batch_.stop.store(true);
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

private:
    Batch& batch_;
    std::vector<std::thread> threads_;
};

void syncLibraryCache(const std::string& lib) {
    int fd = ::open(lib.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("Unable to sync Quor library cache '" + lib +
                                 "': " + systemMessage(errno));
    }
    int error = ::syncfs(fd) == 0 ? 0 : errno;
    ::close(fd); // read-only directory descriptor: nothing to lose on close
    if (error != 0) {
        throw std::runtime_error("Unable to sync Quor library cache '" + lib +
                                 "': " + systemMessage(error));
    }
}

// The process id in a temporary object's name (".<name>.tmp.<pid>.<n>"), or 0
// when the name is not one of ours.
pid_t temporaryWriter(const std::string& name) {
    const std::size_t marker = name.rfind(".tmp.");
    if (name.empty() || name[0] != '.' || marker == std::string::npos) {
        return 0;
    }
    const std::size_t start = marker + 5;
    const std::size_t end = name.find('.', start);
    if (end == std::string::npos || end == start) {
        return 0;
    }
    pid_t pid = 0;
    for (std::size_t i = start; i < end; ++i) {
        if (name[i] < '0' || name[i] > '9' || pid > 99999999) {
            return 0;
        }
        pid = pid * 10 + (name[i] - '0');
    }
    return pid;
}

// A build that was killed leaves its temporary objects behind; they are never
// taken for objects, but they take space. Only those whose writing process is
// gone are removed, so a precompile running in another process keeps its own.
// Best effort: a temporary that cannot be removed costs space, not correctness.
void removeAbandonedTemporaries(const fs::path& lib) {
    std::error_code error;
    fs::recursive_directory_iterator entries(lib, fs::directory_options::skip_permission_denied,
                                             error);
    for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        std::error_code statusError;
        if (!entries->is_regular_file(statusError) || entries->is_symlink(statusError)) {
            continue;
        }
        const pid_t writer = temporaryWriter(entries->path().filename().native());
        if (writer > 0 && ::kill(writer, 0) != 0 && errno == ESRCH) {
            std::error_code ignored;
            fs::remove(entries->path(), ignored); // best effort, see above
        }
    }
}

// Vouches for the cache root before the library cache is changed, and creates
// the cache branch and the library cache when they are missing. Only a cache
// the running user owns is written to: one owned by root is left to root.
void verifyLibraryCache() {
    const Runtime& runtime = Runtime::getInstance();
    const fs::path branch = runtime.getCacheBranchPath();
    const fs::path lib = runtime.getLibCachePath();
    fs::path root = branch.parent_path();
    if (root.empty()) {
        root = ".";
    }
    using Kind = CacheLayoutEntry::Kind;
    if (verifyCacheRoot(root,
                        {{branch, Kind::Directory},
                         {lib, Kind::Directory},
                         {lib / abiRecordName, Kind::DataFile}},
                        true) == CacheAccess::ReadOnly) {
        throw UntrustedCacheError("Quor cache root '" + root.native() +
                                  "' belongs to root and is read-only for you; ask an "
                                  "administrator to build it there, or choose a cache root that "
                                  "you own");
    }
}

// Withdraws the readiness marker that vouches for the library cache, before the
// cache is changed. Every identity that shares a cache root shares its library
// cache and its marker (the bootstrap keeps it at <cache root>/.first-launch/
// <version>/<library cache leaf>/.quor-stdlib-ready); a build for another
// library that changed the objects and then failed would otherwise leave the
// marker of the last good build vouching for objects it never saw. The removal
// is made durable before anything else changes, so a crash cannot bring the
// marker back over changed objects.
void withdrawReadinessMarker() {
    const Runtime& runtime = Runtime::getInstance();
    const fs::path state = fs::path(runtime.getCacheBranchPath()).parent_path() / ".first-launch" /
                           QUOR_COMPILER_VERSION / fs::path(runtime.getLibCachePath()).filename();
    const fs::path marker = state / ".quor-stdlib-ready";
    if (::unlink(marker.c_str()) != 0) {
        // Nothing there, or a directory, which vouches for nothing either.
        if (errno == ENOENT || errno == ENOTDIR || errno == EISDIR) {
            return;
        }
        throw std::runtime_error("Unable to withdraw Quor readiness marker '" + marker.native() +
                                 "': " + systemMessage(errno));
    }
    const int fd = ::open(state.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int error = fd < 0 ? errno : ::fsync(fd) == 0 ? 0 : errno;
    if (fd >= 0) {
        ::close(fd); // read-only directory descriptor: nothing to lose on close
    }
    if (error != 0) {
        throw std::runtime_error("Unable to withdraw Quor readiness marker '" + marker.native() +
                                 "': " + systemMessage(error));
    }
}

// Which directory the library cache is, as the kernel knows it. A library cache
// that was removed (by a newer compiler's pruning, say) and made again is
// another directory, even under the same name. A freed inode number is soon
// handed out again, so the birth time counts too where the file system keeps one.
struct DirectoryIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t bornSeconds = 0;
    std::uint32_t bornNanoseconds = 0;
    bool exists = false;
    bool operator==(const DirectoryIdentity&) const = default;
};

DirectoryIdentity identityOf(const fs::path& directory) {
    struct statx info {};
    if (::statx(AT_FDCWD, directory.c_str(), AT_SYMLINK_NOFOLLOW,
                STATX_TYPE | STATX_INO | STATX_BTIME, &info) != 0 ||
        !S_ISDIR(info.stx_mode)) {
        return {};
    }
    DirectoryIdentity identity;
    identity.device = (std::uint64_t(info.stx_dev_major) << 32) | info.stx_dev_minor;
    identity.inode = info.stx_ino;
    if ((info.stx_mask & STATX_BTIME) != 0) {
        identity.bornSeconds = info.stx_btime.tv_sec;
        identity.bornNanoseconds = info.stx_btime.tv_nsec;
    }
    identity.exists = true;
    return identity;
}

// The library cache that ensureObjectAbiCacheCurrent() last made current, so
// that precompileSources() can tell whether it is still the same directory.
struct PreparedLibraryCache {
    std::mutex mutex;
    fs::path path;
    DirectoryIdentity identity;
};

PreparedLibraryCache& preparedLibraryCache() {
    static PreparedLibraryCache prepared;
    return prepared;
}

std::runtime_error libraryCacheReplaced(const fs::path& lib) {
    return std::runtime_error("Quor library cache '" + lib.native() +
                              "' was removed or replaced while it was being built; build it again");
}

// Creates the folders of one object below the library cache, one level at a
// time, with mode 0755 whatever the umask, never through a symbolic link: the
// library cache is vouched for, and what is made inside it must stay so.
void createObjectDirectory(const fs::path& lib, const fs::path& directory) {
    fs::path current = lib;
    for (const fs::path& element : directory.lexically_relative(lib)) {
        if (element == ".") {
            continue;
        }
        current /= element;
        if (::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST) {
            throw std::runtime_error("Unable to create Quor library cache directory '" +
                                     current.native() + "': " + systemMessage(errno));
        }
        struct stat info {};
        if (::lstat(current.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            throw std::runtime_error("Unable to create Quor library cache directory '" +
                                     current.native() + "': " + systemMessage(ENOTDIR));
        }
    }
}

} // namespace

int Compiler::objectAbiVersion() {
    return objectAbi;
}

void Compiler::ensureObjectAbiCacheCurrent() {
    const fs::path lib = Runtime::getInstance().getLibCachePath();
    std::error_code error;
    verifyLibraryCache();
    withdrawReadinessMarker();
    {
        PreparedLibraryCache& prepared = preparedLibraryCache();
        std::lock_guard lock(prepared.mutex);
        prepared.path = lib;
        prepared.identity = identityOf(lib);
    }
    const fs::path record = lib / abiRecordName;
    const std::string current = std::to_string(objectAbi);
    if (readAbiRecord(record) == current) {
        removeAbandonedTemporaries(lib);
        return;
    }

    // Everything in the library cache was written by the precompiler for the
    // recorded ABI (or for none, when the record is missing), so all of it goes.
    // remove_all() deletes a symbolic link itself, never what it points to.
    fs::directory_iterator entries(lib, error);
    if (error) {
        throw std::runtime_error("Unable to inspect Quor library cache '" + lib.native() +
                                 "': " + error.message());
    }
    for (; entries != fs::directory_iterator(); entries.increment(error)) {
        if (entries->path().filename() == abiRecordName) {
            continue;
        }
        fs::remove_all(entries->path(), error);
        if (error) {
            throw std::runtime_error("Unable to remove stale Quor object '" +
                                     entries->path().native() + "': " + error.message());
        }
    }
    if (error) {
        throw std::runtime_error("Unable to inspect Quor library cache '" + lib.native() +
                                 "': " + error.message());
    }

    if (int failure = writeFileAtomically(record, current + "\n"); failure != 0) {
        throw std::runtime_error("Unable to record Quor object ABI '" + record.native() +
                                 "': " + systemMessage(failure));
    }
}

void Compiler::precompileSources(
    const std::vector<std::string>& sources, std::shared_ptr<Context> context,
    const std::function<void(const CompilationProgress&)>& onProgress) {
    // The front end keeps no state across units yet, so the context is unused.
    (void)context;
    if (sources.empty()) {
        return;
    }
    const std::vector<Unit> units = planUnits(sources);
    const std::string& lib = Runtime::getInstance().getLibCachePath();

    // The library cache must still be the one that was made current, and stay
    // so until every object is durable; otherwise a readiness marker written
    // after this call would vouch for objects that are no longer there. Only
    // the build that the last ABI check prepared is judged against it, and that
    // check has just vouched for the cache and withdrawn its marker; the record
    // is used up here, so a later, unrelated call does both itself.
    bool preparedHere = false;
    DirectoryIdentity preparedIdentity;
    {
        PreparedLibraryCache& prepared = preparedLibraryCache();
        std::lock_guard lock(prepared.mutex);
        preparedHere = prepared.path == fs::path(lib) && prepared.identity.exists;
        preparedIdentity = prepared.identity;
        prepared.path.clear();
        prepared.identity = {};
    }
    if (!preparedHere) {
        verifyLibraryCache();
        withdrawReadinessMarker();
    }
    const DirectoryIdentity identity = identityOf(lib);
    if (preparedHere &&
        (!(preparedIdentity == identity) ||
         readAbiRecord(fs::path(lib) / abiRecordName) != std::to_string(objectAbi))) {
        throw libraryCacheReplaced(lib);
    }
    const std::string recordAtStart = readAbiRecord(fs::path(lib) / abiRecordName);

    std::set<fs::path> directories;
    for (const Unit& unit : units) {
        directories.insert(unit.object.parent_path());
    }
    for (const fs::path& directory : directories) {
        createObjectDirectory(lib, directory);
    }

    Batch batch(units);
    const std::size_t workers = std::min<std::size_t>(
        {Runtime::getInstance().getJobCount(), units.size(), maxWorkerThreads});
    {
        WorkerPool pool(batch, std::max<std::size_t>(workers, 1));
        std::size_t completed = 0;
        while (completed < units.size()) {
            if (pool.size() == 0) {
                // No thread could be started: this one compiles the next unit,
                // and reports it below like a worker's.
                batch.runNext();
            }
            std::unique_lock lock(batch.mutex);
            batch.changed.wait(lock, [&] { return !batch.events.empty() || batch.running == 0; });
            if (batch.events.empty()) {
                // Every worker exited without reporting the rest: cannot happen
                // unless a worker was stopped, which only a failure does.
                break;
            }
            Event event = std::move(batch.events.front());
            batch.events.pop_front();
            lock.unlock();
            if (event.failed) {
                batch.stop.store(true);
                throw std::runtime_error(event.failure);
            }
            ++completed;
            if (onProgress) {
                CompilationProgress progress;
                progress.completed = completed;
                progress.total = units.size();
                progress.sourcePath = units[event.index].source;
                onProgress(progress);
            }
        }
        if (completed < units.size()) {
            throw std::runtime_error("Quor precompiler workers stopped before finishing");
        }
    }
    if (!(identityOf(lib) == identity)) {
        throw libraryCacheReplaced(lib);
    }
    syncLibraryCache(lib);
    if (!(identityOf(lib) == identity) ||
        readAbiRecord(fs::path(lib) / abiRecordName) != recordAtStart) {
        throw libraryCacheReplaced(lib);
    }
}

} // namespace quor::compiler
