// quorc: the front door of a Quor compiler, cut down to what every compiler
// that embeds the bootstrap does when it starts. It takes its settings from the
// command line, makes the standard library ready (building it on the first
// start of this compiler version, with a progress line), and only then carries
// on with the sources it was given. docs/embedding.md walks through it.
//
//   quorc [--stdlib DIR] [--cache-root DIR] [--system-cache DIR | --no-system-cache]
//         [--jobs N] [FILE...]

#include <quor/compiler/CacheLayers.h>
#include <quor/compiler/CacheTrust.h>
#include <quor/compiler/Runtime.h>
#include <quor/compiler/SourceManager.h>
#include <quor/compiler/StandardLibraryBootstrap.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using quor::compiler::Runtime;
using quor::compiler::RuntimeConfiguration;
using quor::compiler::StandardLibraryBootstrap;
using quor::compiler::StandardLibraryBootstrapProgress;
using quor::compiler::StandardLibraryBootstrapResult;
using quor::compiler::StandardLibraryBootstrapStage;

struct Options {
    RuntimeConfiguration runtime; // untouched fields leave the environment and defaults in charge
    std::vector<std::string> sources;
};

std::optional<Options> parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == "--stdlib" && hasValue) {
            options.runtime.standardLibraryPath = argv[++i];
        } else if (argument == "--cache-root" && hasValue) {
            options.runtime.cacheRoot = argv[++i];
        } else if (argument == "--system-cache" && hasValue) {
            options.runtime.systemCacheRoot = argv[++i];
        } else if (argument == "--no-system-cache") {
            // An empty root turns the system layer off: only the user's cache
            // is used, and nothing is adopted from the system's.
            options.runtime.systemCacheRoot = std::string();
        } else if (argument == "--jobs" && hasValue) {
            options.runtime.jobs = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        } else if (argument.starts_with("-")) {
            return std::nullopt;
        } else {
            options.sources.push_back(argument);
        }
    }
    return options;
}

// Says once, on standard error, that this process is waiting for another one
// to finish building the library. ensure() blocks on the build lock without a
// word, so a watcher thread speaks up when no report has come after half a
// second; the first report means the lock is ours and silences it for good.
class WaitingNotice {
public:
    WaitingNotice();
    ~WaitingNotice();
    WaitingNotice(const WaitingNotice&) = delete;
    WaitingNotice& operator=(const WaitingNotice&) = delete;

    // Called from the progress callback: the build lock is held.
    void lockTaken();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool over_ = false;
    std::thread watcher_;
};

WaitingNotice::WaitingNotice() {
    watcher_ = std::thread([this] {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::milliseconds(500), [this] { return over_; })) {
            std::cerr << "quorc: waiting for another process that is building the standard "
                         "library for this compiler version\n";
        }
    });
}

WaitingNotice::~WaitingNotice() {
    lockTaken();
    watcher_.join();
}

void WaitingNotice::lockTaken() {
    std::lock_guard lock(mutex_);
    over_ = true;
    changed_.notify_all();
}

// The progress callback. It runs on the thread that called ensure(), while the
// build lock is held, so it only formats a line: one redrawn in place on a
// terminal, elsewhere a line at every tenth of the units.
class ProgressLine {
public:
    // `notice` may be null: nobody to tell that the lock is ours.
    ProgressLine(WaitingNotice* notice, bool terminal) : notice_(notice), terminal_(terminal) {}

    void operator()(const StandardLibraryBootstrapProgress& progress);

private:
    WaitingNotice* notice_;
    bool terminal_;
    std::size_t shownTenths_ = 0;
};

void ProgressLine::operator()(const StandardLibraryBootstrapProgress& progress) {
    if (notice_ != nullptr) {
        notice_->lockTaken();
    }
    switch (progress.stage) {
    case StandardLibraryBootstrapStage::Preparing:
        std::cerr << "quorc: building the standard library\n";
        break;
    case StandardLibraryBootstrapStage::Compiling: {
        const std::size_t tenths =
            progress.total == 0 ? 10 : progress.completed * 10 / progress.total;
        if (terminal_) {
            std::cerr << "\rquorc: compiled " << progress.completed << '/' << progress.total << ' '
                      << progress.displayName << "\x1b[K" << std::flush;
        } else if (tenths > shownTenths_ || progress.completed == progress.total) {
            shownTenths_ = tenths;
            std::cerr << "quorc: compiled " << progress.completed << '/' << progress.total << ' '
                      << progress.displayName << '\n';
        }
        break;
    }
    case StandardLibraryBootstrapStage::Finished:
        if (terminal_) {
            std::cerr << '\n';
        }
        break;
    }
}

// Makes the standard library ready, or explains why it cannot be; false then.
bool prepareStandardLibrary() {
    try {
        // isRequired() answers without taking the lock or creating anything;
        // here it only decides whether to tell the user why this start is slow.
        const bool firstStart = StandardLibraryBootstrap::isRequired();
        if (firstStart) {
            std::cerr << "quorc: first start of this compiler version: preparing the "
                         "standard library, once\n";
        }
        std::optional<WaitingNotice> notice;
        if (firstStart) {
            notice.emplace();
        }
        ProgressLine progress(notice ? &*notice : nullptr, isatty(STDERR_FILENO) == 1);
        // ensure() runs on every start: on a ready cache it costs two small
        // reads, and unlike isRequired() it fails when there is no library.
        const StandardLibraryBootstrapResult result = StandardLibraryBootstrap::ensure(
            [&progress](const StandardLibraryBootstrapProgress& report) { progress(report); });
        if (result.bootstrapped) {
            std::cerr << "quorc: standard library ready: " << result.total << " units compiled\n";
        }
        return true;
    } catch (const quor::compiler::UntrustedCacheError& error) {
        std::cerr << "quorc: error: " << error.what()
                  << "\nquorc: choose a cache root you own with --cache-root or QUOR_CACHE_DIR\n";
    } catch (const std::exception& error) {
        std::cerr << "quorc: error: " << error.what() << '\n';
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = parseOptions(argc, argv);
    if (!options) {
        std::cerr << "usage: quorc [--stdlib DIR] [--cache-root DIR] [--system-cache DIR | "
                     "--no-system-cache] [--jobs N] [FILE...]\n";
        return 2;
    }
    // Before anything else reads the runtime, and before any other thread runs.
    Runtime::getInstance().configure(options->runtime);
    // Then the cache that serves this start: the user's when it is ready, else
    // the system cache when that one is, else the user's again, to be built.
    // Before the bootstrap is asked anything, since it answers for the cache
    // the runtime points at.
    const quor::compiler::CacheLayerChoice layer = quor::compiler::chooseCacheLayer();

    if (!prepareStandardLibrary()) {
        return 1;
    }

    // From here on a real compiler parses, checks and compiles the sources
    // against the precompiled library; this one only reads them.
    const Runtime& runtime = Runtime::getInstance();
    std::cout << "quorc: standard library " << runtime.getStandardLibraryPath()
              << "\nquorc: precompiled in " << runtime.getLibCachePath() << " ("
              << quor::compiler::cacheLayerName(layer.inUse) << " cache)\n";
    for (const std::string& source : options->sources) {
        const auto text = quor::compiler::SourceManager::instance().contents(source);
        if (!text) {
            std::cerr << "quorc: error: cannot read " << source << '\n';
            return 1;
        }
        std::cout << "quorc: " << source << ": " << text->size() << " bytes read\n";
    }
    return 0;
}
