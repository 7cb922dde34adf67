// The subcommands of quor-stdlib as plain functions. main() only turns the
// command line into an Invocation and calls the handler that the command table
// names, so tests can run a subcommand in-process with their own streams.

#ifndef QUOR_TOOLS_QUOR_STDLIB_COMMANDS_H
#define QUOR_TOOLS_QUOR_STDLIB_COMMANDS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quor::stdlibtool {

class Console;

// Exit statuses, the same for every subcommand. `help` prints them.
enum ExitStatus : int {
    ExitSuccess = 0,        // done; for `status --check`: the cache is ready
    ExitFailure = 1,        // the operation failed,
                            // `status --check` found that a build is needed, or
                            // `verify` found the cache not ready or not sound
    ExitUsage = 2,          // the command line could not be understood
    ExitTimedOut = 124,     // `ensure --timeout` gave up waiting for the build lock
                            // (the status timeout(1) uses)
    ExitHangup = 129,       // SIGHUP (128 + 1): the terminal went away; stopped like Ctrl-C
    ExitInterrupted = 130,  // interrupted by SIGINT (Ctrl-C); no marker was written
    ExitOutputClosed = 141, // the operation succeeded, but standard output was closed
                            // (128 + SIGPIPE, the status a shell would have shown)
    ExitTerminated = 143,   // SIGTERM (128 + 15); stopped like Ctrl-C
};

enum class ColorMode { Auto, Always, Never };

// Options every subcommand accepts.
struct GlobalOptions {
    std::string standardLibraryPath; // --stdlib; empty: environment, then default
    std::string cacheRoot;           // --cache-root; empty: environment, then default
    bool json = false;               // --json
    bool quiet = false;              // --quiet
    ColorMode color = ColorMode::Auto;
};

struct StatusOptions {
    bool check = false; // --check: the exit status says whether a build is needed
};

struct EnsureOptions {
    std::optional<double> timeoutSeconds; // --timeout: bound on the wait for the build lock
    unsigned jobs = 0;                    // --jobs; 0 leaves it to QUOR_JOBS and the default
    bool force = false;                   // --force: build even when the marker is valid
    bool verbose = false; // --verbose: each unit with its time, and the slowest at the end
};

struct PruneOptions {
    bool dryRun = false; // --dry-run: list, remove nothing
};

struct CleanOptions {
    bool dryRun = false; // --dry-run: say what would go, remove nothing
};

struct FingerprintOptions {
    std::string directory; // the library to fingerprint; empty: the one in use
    bool write = false;    // --write: record it in <directory>/.quor-stdlib-fingerprint
};

// Everything one run of the tool was asked to do.
struct Invocation {
    GlobalOptions global;
    StatusOptions status;
    EnsureOptions ensure;
    PruneOptions prune;
    CleanOptions clean;
    FingerprintOptions fingerprint;
    std::string helpText; // what `help` prints; the parser renders it
};

using CommandHandler = int (*)(const Invocation&, Console&);

struct Command {
    std::string_view name;
    std::string_view summary; // one line, shown by `help`
    CommandHandler handler;
};

// The subcommands, in the order `help` lists them.
std::span<const Command> commands();

// The command named `name`, or nullptr.
const Command* findCommand(std::string_view name);

// The candidate that `word` most plausibly misspells: the first one that
// starts with `word`, else the closest by edit distance (a swap of two
// neighbouring letters counts as one edit) when at most max(2, length / 3)
// edits away; nullopt when none is that close. Subcommands and options are
// suggested by this one rule.
std::optional<std::string_view> closestName(std::string_view word,
                                            std::span<const std::string_view> candidates);

// The command whose name closestName() picks for `name`, or nullptr.
const Command* closestCommand(std::string_view name);

// Handlers. Each returns one of the ExitStatus values and reports failures on
// the console instead of throwing. They configure the process-wide Runtime from
// the invocation first, so they must not run concurrently with each other.
int runStatus(const Invocation& invocation, Console& console);
int runEnsure(const Invocation& invocation, Console& console);
int runPrune(const Invocation& invocation, Console& console);
int runVerify(const Invocation& invocation, Console& console);
int runClean(const Invocation& invocation, Console& console);
int runFingerprint(const Invocation& invocation, Console& console);
int runHelp(const Invocation& invocation, Console& console);

// Sets the Runtime's library path, cache root and jobs from the invocation,
// above the environment. Called by every handler that touches the cache.
void configureRuntime(const Invocation& invocation, unsigned jobs = 0);

// The text after "Exit status:" and "Environment:" in --help.
std::string_view exitStatusHelp();
std::string_view environmentHelp();

} // namespace quor::stdlibtool

#endif
