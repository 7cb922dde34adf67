// What a caller of the compiler services learns about one build, and the one
// thing it may tell a build, without reaching into state the whole process
// shares: the build's summary (units compiled, reused, removed), the time the
// precompiler spent on the unit it is reporting, and a stop for the build's
// reads of the library. Two builds in one process (an IDE, a test) each run
// under a session of their own and never see each other's figures.
//
// A session is made current for the calling thread with BuildSession::Scope;
// the precompiler carries it to its worker threads, and SourceManager asks the
// current session whether reads are stopped. Without a session the services
// work as ever and keep no figures.
//
// Thread safety: summary() and the stop may be used from any thread;
// stopReads() is async-signal-safe. reportedUnitSeconds() is meant for the
// progress function, on the thread that called precompileSources().

#ifndef QUOR_COMPILER_BUILDSESSION_H
#define QUOR_COMPILER_BUILDSESSION_H

#include <atomic>
#include <cstddef>
#include <mutex>

namespace quor::compiler {

// What one precompileSources() run did: units compiled, units whose object was
// reused (kept, or moved back from the set-aside area), units whose object was
// adopted from another cache (Runtime::getAdoptionSource()), and entries
// removed from the library cache because they belonged to no unit.
struct PrecompileSummary {
    std::size_t compiled = 0;
    std::size_t reused = 0;
    std::size_t removed = 0;
    std::size_t adopted = 0;
};

class BuildSession {
public:
    BuildSession() = default;
    BuildSession(const BuildSession&) = delete;
    BuildSession& operator=(const BuildSession&) = delete;

    // What the last precompileSources() run under this session did, whether it
    // returned or threw; all zero before one ran.
    PrecompileSummary summary() const;

    // The time precompileSources() spent on the unit it is reporting: the
    // reports come in batches, so the time between them says little.
    // Measured in the worker that handled the unit: checking its object, and
    // for a unit it compiled, compiling and writing it (not the wait for
    // another worker's writes). With several workers these times overlap, so
    // their sum exceeds the build's. 0 outside a progress report.
    double reportedUnitSeconds() const noexcept;

    // Makes every later SourceManager::contents() call on a thread of this
    // session throw ReadsStopped instead of reading, until resumeReads(). The
    // bootstrap's walk of the library asks for every unit's text and catches
    // nothing, so this ends a walk of 45,000 units at the next file instead of
    // at its end. Async-signal-safe: a Ctrl-C handler may call it.
    void stopReads() noexcept;
    void resumeReads() noexcept;
    bool readsStopped() const noexcept;

    // The session current on the calling thread, or null.
    static BuildSession* current() noexcept;

    // Makes `session` current on the calling thread for the scope's life, and
    // the previous one current again after it.
    class Scope {
    public:
        explicit Scope(BuildSession* session) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        BuildSession* previous_;
    };

    // For the services: what a run did, and the unit being reported.
    void recordSummary(const PrecompileSummary& summary);
    void setReportedUnitSeconds(double seconds) noexcept;

private:
    mutable std::mutex mutex_;
    PrecompileSummary summary_;
    std::atomic<double> reportedSeconds_{0};
    std::atomic<bool> readsStopped_{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");
};

// Withdraws the readiness marker that vouches for the configured library cache
// (<cache root>/.first-launch/<version>/<library cache leaf>/.quor-stdlib-ready)
// and makes the removal durable. Missing, or a directory in its place, is no
// error. Throws CacheIoError when the marker exists and cannot be removed.
// Every build calls it before it changes the library cache; a caller that
// wants the next build to check every object (`quor-stdlib ensure --force`)
// calls it before StandardLibraryBootstrap::ensure().
void withdrawReadinessMarker();

} // namespace quor::compiler

#endif
