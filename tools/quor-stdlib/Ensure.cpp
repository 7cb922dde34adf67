// `quor-stdlib ensure`: runs the bootstrap on a worker thread while this thread
// shows its progress, watches the kernel's lock table for whoever holds the
// build lock, enforces --timeout and reacts to Ctrl-C.
//
// A cache that is ready already, which is what nearly every run finds, is
// answered on this thread before any of that is set up: the thread, the
// handlers and the view cost more than the readiness check itself.
//
// The bootstrap waits for the lock with a blocking flock() and no time-out. To
// end that wait, the watching thread sends SIGUSR1 to the worker; its handler
// is installed without SA_RESTART, so flock() fails with EINTR and the
// bootstrap throws its lock message. The signal is repeated every 100 ms until
// the worker is out, because one that lands just before flock() is entered
// would be lost. Ctrl-C sets a flag: during the lock wait it interrupts the
// wait the same way; during the build the progress callback throws, the
// precompiler stops its workers, and the bootstrap leaves without a marker.
// SIGTERM and SIGHUP do the same as Ctrl-C, with an exit status of their own.
// They are blocked in the worker (and so in the precompiler's threads, which
// inherit its mask), so they always reach this thread's handler. The handler
// resets itself: a second signal ends the process at once, and the kernel
// releases the lock with it.
//
// When no thread can be started (RLIMIT_NPROC, memory), this thread runs the
// bootstrap itself and draws each report from the callback. The wait for the
// lock is then ended by SIGALRM, from a timer armed for the --timeout deadline
// or by the stop signal's handler, repeated every 100 ms for the same reason
// as SIGUSR1 above.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "LockHolder.h"
#include "Progress.h"

#include "compiler/BuildSession.h"
#include "compiler/CacheLayers.h"
#include "compiler/ObjectCache.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <exception>
#include <iterator>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace quor::stdlibtool {

namespace {

using Clock = std::chrono::steady_clock;
using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapResult;
using compiler::StandardLibraryBootstrapStage;

// Written by the handler of SIGINT, SIGTERM and SIGHUP on the watching thread,
// read by both threads. interruptSignal keeps the first of those signals: it
// decides the message and the exit status.
std::atomic<bool> interruptRequested{false};
std::atomic<int> interruptSignal{0};
// True while the bootstrap runs on this thread and has not taken the lock:
// nobody else is there to end its wait, so the stop signal arms the timer.
std::atomic<bool> waitingInline{false};
// The session of the build this run makes, whose reads a stop signal ends.
std::atomic<compiler::BuildSession*> activeSession{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free, "used from a signal handler");
static_assert(std::atomic<int>::is_always_lock_free, "used from a signal handler");
static_assert(std::atomic<compiler::BuildSession*>::is_always_lock_free,
              "used from a signal handler");

// SIGALRM after `first`, then every 100 ms until it is disarmed with zero.
void setWakeTimer(std::chrono::microseconds first) {
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(first.count() / 1000000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(first.count() % 1000000);
    if (first.count() > 0)
        timer.it_interval.tv_usec = 100000;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

extern "C" void onInterrupt(int signal) {
    const int savedErrno = errno;
    int none = 0;
    interruptSignal.compare_exchange_strong(none, signal);
    interruptRequested.store(true);
    // The bootstrap's walk of the library sends no report until it is done;
    // its next read of a unit ends it instead.
    if (compiler::BuildSession* session = activeSession.load())
        session->stopReads();
    if (waitingInline.load())
        setWakeTimer(std::chrono::milliseconds(1));
    errno = savedErrno;
}

// Does nothing: its only purpose is to make a waiting flock() return EINTR.
extern "C" void onWake(int) {}

// The exit status and the words for the signal that stopped ensure. Ctrl-C is
// plain "interrupted", as people know it.
int interruptStatus(int signal) {
    return signal == SIGTERM ? ExitTerminated : signal == SIGHUP ? ExitHangup : ExitInterrupted;
}

std::string interruptedBy(int signal) {
    return signal == SIGTERM  ? "interrupted by SIGTERM"
           : signal == SIGHUP ? "interrupted by SIGHUP"
                              : "interrupted";
}

std::string_view signalName(int signal) {
    return signal == SIGTERM ? "SIGTERM" : signal == SIGHUP ? "SIGHUP" : "SIGINT";
}

// Thrown from the progress callback after Ctrl-C; never leaves this file.
struct BuildInterrupted {};

constexpr int stopSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int wakeSignals[] = {SIGUSR1, SIGALRM};

// Installs the handlers for the duration of one ensure run.
class SignalHandlers {
public:
    explicit SignalHandlers(compiler::BuildSession& session) {
        activeSession.store(&session);
        interruptRequested.store(false);
        interruptSignal.store(0);
        waitingInline.store(false);
        // No SA_RESTART anywhere: an interrupted flock() must fail.
        struct sigaction interrupt {};
        interrupt.sa_handler = onInterrupt;
        sigemptyset(&interrupt.sa_mask);
        interrupt.sa_flags = SA_RESETHAND;
        for (std::size_t i = 0; i < std::size(stopSignals); ++i)
            sigaction(stopSignals[i], &interrupt, &previousStop_[i]);
        struct sigaction wake {};
        wake.sa_handler = onWake;
        sigemptyset(&wake.sa_mask);
        wake.sa_flags = 0;
        for (std::size_t i = 0; i < std::size(wakeSignals); ++i)
            sigaction(wakeSignals[i], &wake, &previousWake_[i]);
    }
    ~SignalHandlers() {
        setWakeTimer(std::chrono::microseconds(0));
        for (std::size_t i = 0; i < std::size(stopSignals); ++i)
            sigaction(stopSignals[i], &previousStop_[i], nullptr);
        activeSession.store(nullptr);
        for (std::size_t i = 0; i < std::size(wakeSignals); ++i)
            sigaction(wakeSignals[i], &previousWake_[i], nullptr);
    }
    SignalHandlers(const SignalHandlers&) = delete;
    SignalHandlers& operator=(const SignalHandlers&) = delete;

private:
    struct sigaction previousStop_[std::size(stopSignals)]{};
    struct sigaction previousWake_[std::size(wakeSignals)]{};
};

// What the worker hands to the watching thread.
struct Exchange {
    std::mutex mutex;
    std::condition_variable changed;
    // Each report with its unit's time in the precompiler, which can only be
    // asked for while the report is being made.
    std::deque<std::pair<StandardLibraryBootstrapProgress, double>> reports;
    bool lockTaken = false; // a Preparing report came: the worker holds the lock
    bool done = false;
    StandardLibraryBootstrapResult result;
    std::exception_ptr failure;
    // The build's own figures and the stop of its reads; both threads that
    // may run the bootstrap make it current first.
    compiler::BuildSession session;
};

void runBootstrap(Exchange& exchange) {
    const compiler::BuildSession::Scope scope(&exchange.session);
    try {
        const auto result = StandardLibraryBootstrap::ensure(
            [&exchange](const StandardLibraryBootstrapProgress& progress) {
                // Once the marker is published the build is complete; stopping
                // then would only turn a success into an error.
                if (interruptRequested && progress.stage != StandardLibraryBootstrapStage::Finished)
                    throw BuildInterrupted{};
                const double unitSeconds = exchange.session.reportedUnitSeconds();
                std::lock_guard lock(exchange.mutex);
                exchange.reports.emplace_back(progress, unitSeconds);
                if (progress.stage == StandardLibraryBootstrapStage::Preparing)
                    exchange.lockTaken = true;
                exchange.changed.notify_all();
            });
        std::lock_guard lock(exchange.mutex);
        exchange.result = result;
    } catch (...) {
        std::lock_guard lock(exchange.mutex);
        exchange.failure = std::current_exception();
    }
    std::lock_guard lock(exchange.mutex);
    exchange.done = true;
    exchange.changed.notify_all();
}

// Starts the worker with the stop signals blocked, so that they land on this
// thread. Nothing when no thread can be had.
std::optional<std::thread> startWorker(Exchange& exchange) {
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    for (const int signal : stopSignals)
        sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    std::optional<std::thread> worker;
    try {
        worker.emplace(runBootstrap, std::ref(exchange));
    } catch (const std::system_error&) { // the caller builds on its own thread instead
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return worker;
}

// The bootstrap on this thread, for when no worker could be started. Nobody
// can watch the lock table during the wait, so the holder is named once before
// it, and once more when the time-out ends it.
void buildOnThisThread(Exchange& exchange, ProgressView& view, const CachePaths& paths,
                       std::optional<Clock::time_point> deadline, std::optional<LockHolder>& holder,
                       std::optional<Clock::time_point>& buildStarted, bool& gaveUp) {
    const compiler::BuildSession::Scope scope(&exchange.session);
    const pid_t self = getpid();
    bool required = true;
    try {
        required = StandardLibraryBootstrap::isRequired();
    } catch (const std::exception&) { // the bootstrap itself will say what is wrong
    }
    if (required)
        if (auto found = findLockHolder(paths.lockFile, self)) {
            holder = found;
            view.waitingFor(*found, paths.lockFile);
        }
    waitingInline.store(true);
    if (interruptRequested)
        setWakeTimer(std::chrono::milliseconds(1));
    else if (deadline)
        setWakeTimer(std::max(
            std::chrono::duration_cast<std::chrono::microseconds>(*deadline - Clock::now()),
            std::chrono::microseconds(1)));
    try {
        exchange.result =
            StandardLibraryBootstrap::ensure([&](const StandardLibraryBootstrapProgress& progress) {
                if (interruptRequested && progress.stage != StandardLibraryBootstrapStage::Finished)
                    throw BuildInterrupted{};
                if (progress.stage == StandardLibraryBootstrapStage::Preparing) {
                    // The lock is held: the timer bounded only the wait for it.
                    waitingInline.store(false);
                    setWakeTimer(std::chrono::microseconds(0));
                    exchange.lockTaken = true;
                    buildStarted = Clock::now();
                }
                view.report(progress, exchange.session.reportedUnitSeconds());
            });
    } catch (...) {
        exchange.failure = std::current_exception();
    }
    waitingInline.store(false);
    setWakeTimer(std::chrono::microseconds(0));
    if (exchange.failure && !exchange.lockTaken && deadline && Clock::now() >= *deadline) {
        gaveUp = true;
        if (auto found = findLockHolder(paths.lockFile, self))
            holder = found;
    }
}

ProgressStyle styleFor(const Invocation& invocation, const Console& console) {
    if (invocation.global.json)
        return ProgressStyle::Json;
    if (invocation.global.quiet)
        return ProgressStyle::Silent;
    return console.errIsTerminal() ? ProgressStyle::Terminal : ProgressStyle::Plain;
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// What ensure prints and returns once the bootstrap has succeeded: the result
// line (or JSON event) and the exit status. `holder` is whoever held the lock
// while this run waited; `buildStarted` when this run's build took the lock;
// `interrupted`, when given, is read after the report: a stop signal that
// came while the bootstrap ran or the result was printed.
int reportResult(const Invocation& invocation, Console& console,
                 const StandardLibraryBootstrapResult& result, double seconds,
                 const std::optional<LockHolder>& holder, Clock::time_point started,
                 std::optional<Clock::time_point> buildStarted,
                 const std::atomic<bool>* interrupted, const compiler::PrecompileSummary& summary,
                 compiler::CacheLayerKind layer) {
    if (invocation.global.json) {
        console.out() << jsonText(nlohmann::ordered_json{{"event", "result"},
                                                         {"bootstrapped", result.bootstrapped},
                                                         {"completed", result.completed},
                                                         {"total", result.total},
                                                         {"compiled", summary.compiled},
                                                         {"reused", summary.reused},
                                                         {"adopted", summary.adopted},
                                                         {"removed", summary.removed},
                                                         {"layer", compiler::cacheLayerName(layer)},
                                                         {"seconds", seconds}})
                      << std::endl;
    } else if (!invocation.global.quiet) {
        if (result.bootstrapped) {
            const auto finished = Clock::now();
            console.out() << "built " << result.total << (result.total == 1 ? " unit" : " units")
                          << " in "
                          << formatDuration(
                                 secondsBetween(buildStarted.value_or(started), finished));
            if (summary.reused != 0 || summary.adopted != 0 || summary.removed != 0)
                console.out() << " (compiled " << summary.compiled << ", reused " << summary.reused
                              << (summary.adopted != 0
                                      ? ", adopted " + std::to_string(summary.adopted) +
                                            " from the system cache"
                                      : std::string())
                              << (summary.removed != 0
                                      ? ", removed " + std::to_string(summary.removed) +
                                            (summary.removed == 1 ? " leftover" : " leftovers")
                                      : std::string())
                              << ")";
            if (holder)
                console.out() << " (after waiting "
                              << formatDuration(
                                     secondsBetween(started, buildStarted.value_or(started)))
                              << " for the build lock)";
            console.out() << std::endl;
        } else if (holder) {
            console.out() << "already up to date (built by " << visible(describe(*holder)) << ")"
                          << std::endl;
        } else if (layer == compiler::CacheLayerKind::System)
            console.out() << "already up to date (the system cache)" << std::endl;
        else
            console.out() << "already up to date" << std::endl;
    }
    if (interrupted != nullptr && interrupted->load()) {
        const int signal = interruptSignal.load();
        console.note(interruptedBy(signal) +
                     (result.bootstrapped ? " after the build had completed; the cache is ready"
                                          : "; the cache was already up to date"));
        return interruptStatus(signal);
    }
    // A reader that went away must not have cut the build short, and did not.
    return console.finish(ExitSuccess, result.bootstrapped ? "the build ran to its end"
                                                           : "the cache was already up to date");
}

// Whether the cache is ready as it stands, so that ensure can say so without
// the worker thread, the signal handlers and the progress view a build needs.
// A ready cache is the bootstrap's own answer: the layer choice asked its
// state class whether the marker vouches for this identity (`layers.ready`),
// and then isRequired() is false while the library is there. Any doubt (no
// library) leaves the answer to the bootstrap's ensure() on the usual path.
bool readyAsItStands(const compiler::CacheLayerChoice& layers, const CachePaths& paths) {
    struct stat library {};
    return layers.ready && ::stat(paths.library.c_str(), &library) == 0 && S_ISDIR(library.st_mode);
}

} // namespace

int runEnsure(const Invocation& invocation, Console& console) {
    CachePaths paths;
    compiler::CacheLayerChoice layers;
    try {
        configureRuntime(invocation, invocation.ensure.jobs);
        // A ready system cache serves as it stands: the layer choice vouched
        // for it, and nothing is created in the user's cache. --force builds
        // the user's own instead, adopting what of the system cache is sound.
        const auto started = Clock::now();
        layers = compiler::chooseCacheLayer();
        if (layers.inUse == compiler::CacheLayerKind::System && !invocation.ensure.force)
            return reportResult(invocation, console, StandardLibraryBootstrapResult{},
                                secondsBetween(started, Clock::now()), std::nullopt, started,
                                std::nullopt, nullptr, compiler::PrecompileSummary{}, layers.inUse);
        if (invocation.ensure.force)
            compiler::buildInUserCache(layers);
        paths = currentPaths();
        // The bootstrap creates, locks and clears by path: it runs only on a
        // cache root that nobody else can change. A read-only system-wide
        // cache is used as it stands, when it is ready.
        const bool readOnly = guardCache(paths, CacheUse::Build) == compiler::CacheAccess::ReadOnly;
        if (readOnly && invocation.ensure.force)
            throw ToolError(kind::untrusted, readOnlyCacheCannotBeRebuilt(paths));
        if (readOnly && StandardLibraryBootstrap::isRequired())
            throw ToolError(kind::untrusted, readOnlyCacheNotReady(paths));
        // Without a valid marker the bootstrap builds, and a build trusts no
        // object it has not checked. Withdrawing it without the build lock is
        // safe: at worst a build running now publishes its marker after this,
        // and that build checked every object itself.
        if (invocation.ensure.force)
            compiler::withdrawReadinessMarker();
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }

    // Every compiler start after the first lands here: nothing to build, so
    // nothing to watch or interrupt. ensure() on the worker would return at
    // once with {false, 0, 0}; the answer and its report are the same.
    if (!invocation.ensure.force) {
        const auto started = Clock::now();
        if (readyAsItStands(layers, paths))
            return reportResult(invocation, console, StandardLibraryBootstrapResult{},
                                secondsBetween(started, Clock::now()), std::nullopt, started,
                                std::nullopt, nullptr, compiler::PrecompileSummary{}, layers.inUse);
    }

    ProgressView view(console, styleFor(invocation, console));
    view.countUnitsReadWith([] { return compiler::SourceManager::instance().textCount(); });
    if (invocation.ensure.verbose)
        view.showUnitTimes(paths.library);
    Exchange exchange;
    SignalHandlers handlers(exchange.session);
    const auto started = Clock::now();
    std::optional<Clock::time_point> deadline;
    if (invocation.ensure.timeoutSeconds)
        deadline = started + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(*invocation.ensure.timeoutSeconds));
    std::optional<std::thread> worker = startWorker(exchange);
    const pid_t self = getpid();

    std::optional<LockHolder> holder;
    std::optional<Clock::time_point> buildStarted; // when the Preparing report arrived
    bool gaveUp = false;
    if (!worker)
        buildOnThisThread(exchange, view, paths, deadline, holder, buildStarted, gaveUp);
    auto nextLockCheck = started + std::chrono::milliseconds(100);
    auto nextWake = Clock::time_point::min();
    auto nextTick = started;
    while (worker) {
        std::deque<std::pair<StandardLibraryBootstrapProgress, double>> reports;
        bool done = false;
        bool lockTaken = false;
        {
            std::unique_lock lock(exchange.mutex);
            exchange.changed.wait_for(lock, std::chrono::milliseconds(50), [&exchange] {
                return exchange.done || !exchange.reports.empty();
            });
            reports.swap(exchange.reports);
            done = exchange.done;
            lockTaken = exchange.lockTaken;
        }
        for (const auto& [report, unitSeconds] : reports) {
            if (report.stage == StandardLibraryBootstrapStage::Preparing)
                buildStarted = Clock::now();
            view.report(report, unitSeconds);
        }
        if (done)
            break;
        const auto now = Clock::now();
        if (now >= nextTick) {
            view.tick();
            nextTick = now + std::chrono::milliseconds(250);
        }
        if (lockTaken)
            continue;
        // Still before the lock: the worker is checking readiness or waiting.
        if (now >= nextLockCheck) {
            if (auto found = findLockHolder(paths.lockFile, self)) {
                holder = found;
                view.waitingFor(*found, paths.lockFile);
            }
            nextLockCheck = now + std::chrono::milliseconds(100);
        }
        const bool timedOut = deadline && now >= *deadline;
        if ((interruptRequested || timedOut) && now >= nextWake) {
            if (timedOut && !holder)
                holder = findLockHolder(paths.lockFile, self); // a short timeout may beat the poll
            gaveUp = gaveUp || timedOut;
            pthread_kill(worker->native_handle(), SIGUSR1);
            nextWake = now + std::chrono::milliseconds(100);
        }
    }
    if (worker)
        worker->join();
    view.close();
    const double seconds = secondsBetween(started, Clock::now());

    if (exchange.failure) {
        bool interrupted = interruptRequested.load();
        std::string message;
        try {
            std::rethrow_exception(exchange.failure);
        } catch (const BuildInterrupted&) {
            interrupted = true;
        } catch (const std::exception& failure) {
            message = failure.what();
        } catch (...) {
            message = "unknown failure";
        }
        if (interrupted) {
            const int signal = interruptSignal.load();
            const int status = interruptStatus(signal);
            // Before the lock nothing was built, and the cache is as it was.
            if (!exchange.lockTaken && !holder)
                holder = findLockHolder(paths.lockFile, self);
            const std::string message =
                interruptedBy(signal) +
                (exchange.lockTaken
                     ? "; the standard-library cache was left without a readiness marker"
                 : holder ? " while waiting for the build lock; nothing was built"
                          : " before the build started; nothing was built");
            console.note(message);
            if (invocation.global.json)
                console.out() << jsonText(nlohmann::ordered_json{{"event", "interrupted"},
                                                                 {"kind", "interrupted"},
                                                                 {"signal", signalName(signal)},
                                                                 {"message", message},
                                                                 {"exitStatus", status}})
                              << std::endl;
            return status;
        }
        if (gaveUp) {
            // The bootstrap's own words for an ended wait are those of a lock
            // it may not take; what happened is that the time ran out.
            nlohmann::ordered_json extra = nlohmann::ordered_json::object();
            if (holder)
                extra["holder"] = {{"pid", holder->pid}, {"command", holder->command}};
            reportFailure(console, invocation.global.json, kind::timeout,
                          "gave up waiting for the build lock after " + formatDuration(seconds) +
                              (holder ? "; it is held by " + describe(*holder) : std::string()),
                          ExitTimedOut, extra);
            return ExitTimedOut;
        }
        const std::string_view kind = failureKind(exchange.failure);
        reportFailure(console, invocation.global.json, kind, message, ExitFailure);
        if (kind == kind::lock)
            if (const std::string cause = likelyLockFailureCause(paths.lockFile); !cause.empty())
                console.note("likely cause: " + cause);
        return ExitFailure;
    }

    view.reportSlowest();
    // Only a build of this run ran the precompiler under its session.
    return reportResult(invocation, console, exchange.result, seconds, holder, started,
                        buildStarted, &interruptRequested,
                        exchange.result.bootstrapped ? exchange.session.summary()
                                                     : compiler::PrecompileSummary{},
                        layers.inUse);
}

} // namespace quor::stdlibtool
