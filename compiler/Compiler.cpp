// The batch precompiler and the library cache's object-ABI record.
//
// precompileSources() checks every unit against the library root first, sweeps
// from the library cache whatever belongs to no unit of the batch, then brings
// each unit's object up to date on a pool of worker threads: a sound object is
// kept, one set aside by an earlier build is moved back, and only the rest is
// compiled (compiler/ObjectCache.h). The calling thread hands out progress
// reports in batches as workers finish, and a single syncfs() at the end makes
// the whole batch durable, which is far cheaper than one fsync per object.

#include "compiler/Compiler.h"
#include "compiler/ServiceError.h"

#include "compiler/CacheLayout.h"
#include "compiler/CacheTrust.h"
#include "compiler/ObjectCache.h"
#include "compiler/ObjectFormat.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

// What a worker tells the calling thread: unit `index` is done, after
// `seconds` of the worker's time, or failed with `failure`, which the calling
// thread throws again as it was thrown, type and all.
struct Event {
    std::size_t index = 0;
    bool failed = false;
    std::exception_ptr failure;
    double seconds = 0;
};

using WorkClock = std::chrono::steady_clock;

double secondsSince(WorkClock::time_point start) {
    return std::chrono::duration<double>(WorkClock::now() - start).count();
}

// Finished units are handed to the calling thread in batches: a worker queues
// each one under the mutex, which costs nothing while nobody else holds it,
// and wakes the calling thread only when a batch is full, a unit failed or the
// worker leaves. The calling thread also looks on its own every
// reportInterval, so a slow build still reports every unit within that time.
// Waking it once per unit cost more than the units themselves on a large
// library, and made two workers slower than one.
constexpr std::size_t reportBatch = 64;

// The most units a worker takes at a time (see Batch::runChunk). Small
// batches are handed out one unit at a time, so that every worker gets work.
constexpr std::size_t maxChunk = 16;
constexpr std::chrono::milliseconds reportInterval{40};

// The state the workers share with the calling thread.
struct Batch {
    const std::vector<PlannedObject>& units;
    const fs::path& setAside;
    int adoptionSource = -1; // the open library cache objects may be adopted from
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> compiled{0};
    std::atomic<std::size_t> reused{0};
    std::atomic<std::size_t> adopted{0};
    std::atomic<std::uint64_t> objectBytes{0};
    std::mutex writing; // held by the worker that writes its objects
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events; // guarded by mutex
    std::size_t running = 0;   // workers that have not exited; guarded by mutex

    Batch(const std::vector<PlannedObject>& batchUnits, const fs::path& setAsideArea)
        : units(batchUnits), setAside(setAsideArea) {}

    // Takes the next units nobody has taken, brings each up to date, and
    // appends one event per unit it handled to `done`: the units whose objects
    // are in place, and the failure that stopped it, if any. False when the
    // batch is stopped or every unit is taken.
    //
    // The objects it compiled are written together at the end, one worker at a
    // time. On ext4, threads that create files at once race for the same free
    // inodes and retry, which cost two workers more kernel time than one
    // worker's whole build; writing a handful of objects in one go keeps the
    // hand-over of the write lock rare, so one worker compiles while the other
    // writes.
    bool runChunk(std::vector<Event>& done, std::size_t chunk) {
        if (stop.load()) {
            return false;
        }
        const std::size_t first = next.fetch_add(chunk);
        if (first >= units.size()) {
            return false;
        }
        const std::size_t last = std::min(first + chunk, units.size());
        struct CompiledObject {
            std::size_t index;
            std::string object;
            double seconds; // judging and compiling; the write is added
        };
        std::vector<CompiledObject> compiledObjects;
        std::optional<Event> failure;
        const auto fail = [&](std::size_t index, std::exception_ptr thrown) {
            if (!failure) {
                failure = Event{index, true, std::move(thrown)};
            }
            stop.store(true);
        };
        for (std::size_t index = first; index < last && !stop.load(); ++index) {
            try {
                const auto started = WorkClock::now();
                ObjectUpdate update =
                    updateObject(units[index], setAside, objectformat::abiVersion, adoptionSource);
                objectBytes.fetch_add(update.bytes);
                if (update.outcome == ObjectOutcome::Compiled) {
                    compiledObjects.push_back(
                        {index, std::move(update.object), secondsSince(started)});
                } else {
                    (update.outcome == ObjectOutcome::Adopted ? adopted : reused).fetch_add(1);
                    done.push_back(Event{index, false, {}, secondsSince(started)});
                }
            } catch (const std::exception&) {
                fail(index, std::current_exception());
            } catch (...) {
                fail(index, std::make_exception_ptr(ServiceInternalError(units[index].source +
                                                                         ":1:1: unknown failure")));
            }
        }
        if (!compiledObjects.empty()) {
            std::lock_guard lock(writing);
            for (const auto& [index, object, seconds] : compiledObjects) {
                try {
                    const auto started = WorkClock::now();
                    writeObject(units[index], object);
                    compiled.fetch_add(1);
                    done.push_back(Event{index, false, {}, seconds + secondsSince(started)});
                } catch (const std::exception&) {
                    fail(index, std::current_exception());
                    break;
                }
            }
        }
        if (failure) {
            done.push_back(std::move(*failure));
        }
        return true;
    }

    void work(std::size_t chunk) {
        std::vector<Event> done;
        while (runChunk(done, chunk)) {
            std::lock_guard lock(mutex);
            const bool wasShort = events.size() < reportBatch;
            const bool failed = !done.empty() && done.back().failed;
            std::move(done.begin(), done.end(), std::back_inserter(events));
            done.clear();
            if ((wasShort && events.size() >= reportBatch) || failed) {
                changed.notify_one();
            }
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
    // Starts up to `count` workers, each taking `chunk` units at a time. A
    // thread that cannot be started (the user's
    // process limit or the memory ran out) is no error: the batch goes on with
    // the workers already running, and with none at all the calling thread
    // compiles the units itself. So the constructor never throws, and never
    // leaves a started thread unowned.
    WorkerPool(Batch& batch, std::size_t count, std::size_t chunk) : batch_(batch) {
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
                // The caller's session goes with the work: a stop of its
                // reads stops the workers' reads too.
                threads_.emplace_back([&batch, chunk, session = BuildSession::current()] {
                    const BuildSession::Scope scope(session);
                    batch.work(chunk);
                });
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
        throw CacheIoError("Unable to sync Quor library cache '" + lib +
                           "': " + systemMessage(errno));
    }
    int error = ::syncfs(fd) == 0 ? 0 : errno;
    ::close(fd); // read-only directory descriptor: nothing to lose on close
    if (error != 0) {
        throw CacheIoError("Unable to sync Quor library cache '" + lib +
                           "': " + systemMessage(error));
    }
}

// Vouches for the cache root and the paths of the cache branch that the trust
// check covers (cacheLayoutToVerify()) before the library cache is changed,
// and creates the directories among them that are missing. Only a cache the
// running user owns is written to: one owned by root is left to root.
void verifyLibraryCache() {
    const Runtime& runtime = Runtime::getInstance();
    const fs::path branch = runtime.getCacheBranchPath();
    const fs::path lib = runtime.getLibCachePath();
    fs::path root = branch.parent_path();
    if (root.empty()) {
        root = ".";
    }
    if (verifyCacheRoot(root, cacheLayoutToVerify(branch, lib), true) == CacheAccess::ReadOnly) {
        throw UntrustedCacheError("Quor cache root '" + root.native() +
                                  "' belongs to root and is read-only for you; ask an "
                                  "administrator to build it there, or choose a cache root that "
                                  "you own");
    }
}

// The library cache a build may adopt objects from (Runtime::setAdoptionSource()),
// open as a folder, or -1: none was named, it is the library cache being built,
// or its cache root can no longer be vouched for. Only read, never written:
// the trust check here creates nothing. A source that cannot be used costs
// the build its help, never its result.
int openAdoptionSource(const fs::path& lib) {
    const fs::path source = Runtime::getInstance().getAdoptionSource();
    if (source.empty() || source.lexically_normal() == lib.lexically_normal()) {
        return -1;
    }
    const fs::path branch = source.parent_path();
    fs::path root = branch.parent_path();
    if (root.empty()) {
        root = ".";
    }
    try {
        verifyCacheRoot(root, cacheLayoutToVerify(branch, source), false);
    } catch (const std::exception&) {
        return -1;
    }
    return ::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
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

CacheIoError libraryCacheReplaced(const fs::path& lib) {
    return CacheIoError("Quor library cache '" + lib.native() +
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
            throw CacheIoError("Unable to create Quor library cache directory '" +
                               current.native() + "': " + systemMessage(errno));
        }
        struct stat info {};
        if (::lstat(current.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            throw CacheIoError("Unable to create Quor library cache directory '" +
                               current.native() + "': " + systemMessage(ENOTDIR));
        }
    }
}

// Removes every entry of `directory` but the one named `keep`. remove_all()
// deletes a symbolic link itself, never what it points to. A missing
// directory has nothing to remove.
void clearDirectory(const fs::path& directory, std::string_view keep) {
    std::error_code error;
    fs::directory_iterator entries(directory, error);
    if (error == std::errc::no_such_file_or_directory) {
        return;
    }
    if (error) {
        throw CacheIoError("Unable to inspect Quor library cache '" + directory.native() +
                           "': " + error.message());
    }
    for (; entries != fs::directory_iterator(); entries.increment(error)) {
        if (!keep.empty() && entries->path().filename() == keep) {
            continue;
        }
        fs::remove_all(entries->path(), error);
        if (error) {
            throw CacheIoError("Unable to remove stale Quor object '" + entries->path().native() +
                               "': " + error.message());
        }
    }
    if (error) {
        throw CacheIoError("Unable to inspect Quor library cache '" + directory.native() +
                           "': " + error.message());
    }
}

} // namespace

int Compiler::objectAbiVersion() {
    return objectformat::abiVersion;
}

void Compiler::ensureObjectAbiCacheCurrent() {
    const fs::path lib = Runtime::getInstance().getLibCachePath();
    verifyLibraryCache();
    withdrawReadinessMarker();
    // A build follows: its walk of the library asks for every unit's text, so
    // reading them starts now, beside it. Should this check fail, no build
    // follows and the read-ahead stops with it.
    SourceManager& sources = SourceManager::instance();
    sources.readAhead(Runtime::getInstance().getStandardLibraryPath());
    struct StopReadAheadOnFailure {
        SourceManager& sources;
        int exceptions = std::uncaught_exceptions();
        ~StopReadAheadOnFailure() {
            if (std::uncaught_exceptions() > exceptions) {
                sources.stopReadAhead();
            }
        }
    } stopOnFailure{sources};
    {
        PreparedLibraryCache& prepared = preparedLibraryCache();
        std::lock_guard lock(prepared.mutex);
        prepared.path = lib;
        prepared.identity = identityOf(lib);
    }
    const fs::path record = layout::abiRecordPath(lib.native());
    const std::string current = std::to_string(objectformat::abiVersion);
    if (readAbiRecord(record) == current) {
        return; // the precompiler sweeps what else is there
    }

    // Everything in the library cache and the set-aside area was written by the
    // precompiler for the recorded ABI (or for none, when the record is
    // missing), so all of it goes.
    clearDirectory(lib, layout::abiRecordFileName);
    clearDirectory(setAsideDirectory(), "");
    if (int failure = writeFileAtomically(record, current + "\n"); failure != 0) {
        throw CacheIoError("Unable to record Quor object ABI '" + record.native() +
                           "': " + systemMessage(failure));
    }
}

void Compiler::precompileSources(
    const std::vector<std::string>& sources,
    std::shared_ptr<Context>
        context, // NOLINT(performance-unnecessary-value-param): the contract's signature
    const std::function<void(const CompilationProgress&)>& onProgress) {
    // The front end keeps no state across units yet, so the context is unused.
    (void)context;
    // The walk that named `sources` has read them all; a read-ahead started for
    // it has nothing left to do, and no thread of it outlives the build.
    SourceManager::instance().stopReadAhead();
    const std::vector<PlannedObject> units = planObjects(sources);
    const std::string& lib = Runtime::getInstance().getLibCachePath();
    const fs::path abiRecord = layout::abiRecordPath(lib);
    const fs::path setAside = setAsideDirectory();

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
    if (preparedHere && (!(preparedIdentity == identity) ||
                         readAbiRecord(abiRecord) != std::to_string(objectformat::abiVersion))) {
        throw libraryCacheReplaced(lib);
    }
    const std::string recordAtStart = readAbiRecord(abiRecord);

    // The batch is the whole library: whatever in the cache belongs to none of
    // its units goes first, so that the cache ends up as a clean build of this
    // batch would leave it.
    // The caller's session, if it keeps one, learns what this run did.
    BuildSession* const session = BuildSession::current();
    PrecompileSummary summary;
    summary.removed = sweepLibraryCache(lib, units, setAside, layout::abiRecordFileName);
    if (session != nullptr) {
        session->recordSummary(summary);
    }

    std::set<fs::path> directories;
    for (const PlannedObject& unit : units) {
        directories.insert(unit.object.parent_path());
    }
    for (const fs::path& directory : directories) {
        createObjectDirectory(lib, directory);
    }

    Batch batch(units, setAside);
    struct CloseOnExit {
        int fd;
        ~CloseOnExit() {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    } adoptionSource{openAdoptionSource(lib)};
    batch.adoptionSource = adoptionSource.fd;
    const auto recordSummary = [&] {
        summary.compiled = batch.compiled.load();
        summary.reused = batch.reused.load();
        summary.adopted = batch.adopted.load();
        if (session != nullptr) {
            session->recordSummary(summary);
        }
    };
    const std::size_t workers = std::min<std::size_t>(
        {Runtime::getInstance().getJobCount(), units.size(), maxWorkerThreads});
    try {
        const std::size_t chunk = std::clamp<std::size_t>(
            units.size() / (std::max<std::size_t>(workers, 1) * 8), 1, maxChunk);
        WorkerPool pool(batch, workers, chunk);
        std::size_t completed = 0;
        std::vector<Event> handed;
        while (completed < units.size()) {
            handed.clear();
            if (pool.size() == 0) {
                // No thread could be started: this one brings the next unit up
                // to date itself, and reports it below like a worker's.
                batch.runChunk(handed, 1);
            } else {
                std::unique_lock lock(batch.mutex);
                batch.changed.wait_for(lock, reportInterval, [&] {
                    return batch.events.size() >= reportBatch || batch.running == 0 ||
                           (!batch.events.empty() && batch.events.back().failed);
                });
                handed.swap(batch.events);
            }
            if (handed.empty() && (pool.size() == 0 || batch.running == 0)) {
                // Every worker left without reporting the rest: only a failure
                // stops them, and its event came first.
                break;
            }
            for (Event& event : handed) {
                if (event.failed) {
                    batch.stop.store(true);
                    std::rethrow_exception(event.failure);
                }
                ++completed;
                if (onProgress) {
                    CompilationProgress progress;
                    progress.completed = completed;
                    progress.total = units.size();
                    progress.sourcePath = units[event.index].source;
                    if (session != nullptr) {
                        session->setReportedUnitSeconds(event.seconds);
                    }
                    onProgress(progress);
                    if (session != nullptr) {
                        session->setReportedUnitSeconds(0);
                    }
                }
            }
        }
        if (completed < units.size()) {
            throw ServiceInternalError("Quor precompiler workers stopped before finishing");
        }
    } catch (...) {
        recordSummary();
        throw;
    }
    recordSummary();

    // The set-aside area may hold as much as the library itself: enough to go
    // back to the previous library, or to undo a change, without compiling.
    constexpr std::uint64_t setAsideFloor = std::uint64_t(16) << 20;
    trimSetAside(setAside, std::max(batch.objectBytes.load(), setAsideFloor));

    if (!(identityOf(lib) == identity)) {
        throw libraryCacheReplaced(lib);
    }
    syncLibraryCache(lib);
    if (!(identityOf(lib) == identity) || readAbiRecord(abiRecord) != recordAtStart) {
        throw libraryCacheReplaced(lib);
    }
}

} // namespace quor::compiler
