// `quor-stdlib ensure`: runs the bootstrap on a worker thread while this thread
// shows its progress, watches the kernel's lock table for whoever holds the
// build lock, enforces --timeout and reacts to Ctrl-C.
//
// The bootstrap waits for the lock with a blocking flock() and no time-out. To
// end that wait, the watching thread sends SIGUSR1 to the worker; its handler
// is installed without SA_RESTART, so flock() fails with EINTR and the
// bootstrap throws its lock message. The signal is repeated every 100 ms until
// the worker is out, because one that lands just before flock() is entered
// would be lost. Ctrl-C sets a flag: during the lock wait it interrupts the
// wait the same way; during the build the progress callback throws, the
// precompiler stops its workers, and the bootstrap leaves without a marker.
// SIGINT is blocked in the worker (and so in the precompiler's threads, which
// inherit its mask), so it always reaches this thread's handler. The handler
// resets itself: a second Ctrl-C ends the process at once, and the kernel
// releases the lock with it.

#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "LockHolder.h"
#include "Progress.h"

#include "compiler/StandardLibraryBootstrap.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

using Clock = std::chrono::steady_clock;
using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapResult;
using compiler::StandardLibraryBootstrapStage;

// Written by the SIGINT handler on the watching thread, read by both threads.
std::atomic<bool> interruptRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "used from a signal handler");

extern "C" void onInterrupt(int) {
    interruptRequested.store(true);
}

// Does nothing: its only purpose is to make the worker's flock() return EINTR.
extern "C" void onWake(int) {}

// Thrown from the progress callback after Ctrl-C; never leaves this file.
struct BuildInterrupted {};

// Installs the two handlers for the duration of one ensure run.
class SignalHandlers {
public:
    SignalHandlers() {
        interruptRequested.store(false);
        struct sigaction interrupt {};
        interrupt.sa_handler = onInterrupt;
        sigemptyset(&interrupt.sa_mask);
        interrupt.sa_flags = SA_RESETHAND;
        sigaction(SIGINT, &interrupt, &previousInterrupt_);
        struct sigaction wake {};
        wake.sa_handler = onWake;
        sigemptyset(&wake.sa_mask);
        wake.sa_flags = 0; // no SA_RESTART: the interrupted flock() must fail
        sigaction(SIGUSR1, &wake, &previousWake_);
    }
    ~SignalHandlers() {
        sigaction(SIGINT, &previousInterrupt_, nullptr);
        sigaction(SIGUSR1, &previousWake_, nullptr);
    }
    SignalHandlers(const SignalHandlers&) = delete;
    SignalHandlers& operator=(const SignalHandlers&) = delete;

private:
    struct sigaction previousInterrupt_ {};
    struct sigaction previousWake_ {};
};

// What the worker hands to the watching thread.
struct Exchange {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<StandardLibraryBootstrapProgress> reports;
    bool lockTaken = false; // a Preparing report came: the worker holds the lock
    bool done = false;
    StandardLibraryBootstrapResult result;
    std::exception_ptr failure;
};

void runBootstrap(Exchange& exchange) {
    try {
        const auto result = StandardLibraryBootstrap::ensure(
            [&exchange](const StandardLibraryBootstrapProgress& progress) {
                // Once the marker is published the build is complete; stopping
                // then would only turn a success into an error.
                if (interruptRequested && progress.stage != StandardLibraryBootstrapStage::Finished)
                    throw BuildInterrupted{};
                std::lock_guard lock(exchange.mutex);
                exchange.reports.push_back(progress);
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

// Starts the worker with SIGINT blocked, so that Ctrl-C lands on this thread.
std::thread startWorker(Exchange& exchange) {
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    std::thread worker(runBootstrap, std::ref(exchange));
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return worker;
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

void printError(const Invocation& invocation, Console& console, const std::string& message,
                int status, const std::optional<LockHolder>& gaveUpOn = std::nullopt) {
    console.error(message);
    if (!invocation.global.json)
        return;
    nlohmann::ordered_json event = {
        {"event", "error"}, {"message", message}, {"exitStatus", status}};
    if (gaveUpOn)
        event["holder"] = {{"pid", gaveUpOn->pid}, {"command", gaveUpOn->command}};
    console.out() << jsonText(event) << std::endl;
}

} // namespace

int runEnsure(const Invocation& invocation, Console& console) {
    CachePaths paths;
    try {
        configureRuntime(invocation, invocation.ensure.jobs);
        paths = currentPaths();
    } catch (const std::exception& failure) {
        printError(invocation, console, failure.what(), ExitFailure);
        return ExitFailure;
    }

    ProgressView view(console, styleFor(invocation, console));
    SignalHandlers handlers;
    Exchange exchange;
    const auto started = Clock::now();
    std::optional<Clock::time_point> deadline;
    if (invocation.ensure.timeoutSeconds)
        deadline = started + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(*invocation.ensure.timeoutSeconds));
    std::thread worker = startWorker(exchange);
    const pid_t self = getpid();

    std::optional<LockHolder> holder;
    std::optional<Clock::time_point> buildStarted; // when the Preparing report arrived
    bool gaveUp = false;
    auto nextLockCheck = started + std::chrono::milliseconds(100);
    auto nextWake = Clock::time_point::min();
    auto nextTick = started;
    while (true) {
        std::deque<StandardLibraryBootstrapProgress> reports;
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
        for (const auto& report : reports) {
            if (report.stage == StandardLibraryBootstrapStage::Preparing)
                buildStarted = Clock::now();
            view.report(report);
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
            pthread_kill(worker.native_handle(), SIGUSR1);
            nextWake = now + std::chrono::milliseconds(100);
        }
    }
    worker.join();
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
            console.note("interrupted; the standard-library cache was left without a readiness "
                         "marker");
            if (invocation.global.json)
                console.out() << jsonText(
                                     nlohmann::ordered_json{{"event", "interrupted"},
                                                            {"exitStatus", int(ExitInterrupted)}})
                              << std::endl;
            return ExitInterrupted;
        }
        printError(invocation, console, message, ExitFailure,
                   gaveUp ? holder : std::optional<LockHolder>());
        if (gaveUp)
            console.note("gave up waiting for the build lock after " + formatDuration(seconds) +
                         (holder ? "; it is held by " + describe(*holder) : std::string()));
        return ExitFailure;
    }

    const auto& result = exchange.result;
    if (invocation.global.json) {
        console.out() << jsonText(nlohmann::ordered_json{{"event", "result"},
                                                         {"bootstrapped", result.bootstrapped},
                                                         {"completed", result.completed},
                                                         {"total", result.total},
                                                         {"seconds", seconds}})
                      << std::endl;
    } else if (!invocation.global.quiet) {
        if (result.bootstrapped) {
            const auto finished = Clock::now();
            console.out() << "built " << result.total << (result.total == 1 ? " unit" : " units")
                          << " in "
                          << formatDuration(
                                 secondsBetween(buildStarted.value_or(started), finished));
            if (holder)
                console.out() << " (after waiting "
                              << formatDuration(
                                     secondsBetween(started, buildStarted.value_or(started)))
                              << " for the build lock)";
            console.out() << std::endl;
        } else if (holder) {
            console.out() << "already up to date (built by " << describe(*holder) << ")"
                          << std::endl;
        } else
            console.out() << "already up to date" << std::endl;
    }
    if (interruptRequested) {
        console.note("interrupted after the build had completed; the cache is ready");
        return ExitInterrupted;
    }
    return ExitSuccess;
}

} // namespace quor::stdlibtool
