// The subcommands of quor-stdlib as plain functions, and the command table that
// names them. Each row of the table also declares the options its command
// accepts (their spellings, the kind of value they take, their help text and
// the Invocation field they set), and the global options are declared once
// beside it. Both command-line parsers (QuickCommandLine.h and CommandLine.h)
// read these declarations, and the help, the manual page and the completions
// are rendered from the full parser's help, so an option is written down once.
// main() only turns the command line into an Invocation and calls the handler
// that the table names, so tests can run a subcommand in-process with their
// own streams.

#ifndef QUOR_TOOLS_QUOR_STDLIB_COMMANDS_H
#define QUOR_TOOLS_QUOR_STDLIB_COMMANDS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

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

    bool operator==(const GlobalOptions&) const = default;
};

struct StatusOptions {
    bool check = false; // --check: the exit status says whether a build is needed

    bool operator==(const StatusOptions&) const = default;
};

struct EnsureOptions {
    std::optional<double> timeoutSeconds; // --timeout: bound on the wait for the build lock
    unsigned jobs = 0;                    // --jobs; 0 leaves it to QUOR_JOBS and the default
    bool force = false;                   // --force: build even when the marker is valid
    bool verbose = false; // --verbose: each unit with its time, and the slowest at the end

    bool operator==(const EnsureOptions&) const = default;
};

struct PruneOptions {
    bool dryRun = false; // --dry-run: list, remove nothing

    bool operator==(const PruneOptions&) const = default;
};

struct CleanOptions {
    bool dryRun = false; // --dry-run: say what would go, remove nothing

    bool operator==(const CleanOptions&) const = default;
};

struct FingerprintOptions {
    std::string directory; // the library to fingerprint; empty: the one in use
    bool write = false;    // --write: record it in <directory>/.quor-stdlib-fingerprint

    bool operator==(const FingerprintOptions&) const = default;
};

struct KeyOptions {
    std::string action;      // generate, sign or verify
    std::string subject;     // generate: the key's name; sign, verify: the file signed
    std::string directory;   // --dir: where generate writes the key files; empty: here
    std::string secretKey;   // --key: the secret key file sign uses
    std::string trustedKeys; // --keys: the trusted-key list verify reads

    bool operator==(const KeyOptions&) const = default;
};

struct PackOptions {
    std::string output; // --output: the pack file; empty: <fingerprint>.qpack here

    bool operator==(const PackOptions&) const = default;
};

struct HelpOptions {
    std::string subcommand; // the subcommand to explain; empty: list them all

    bool operator==(const HelpOptions&) const = default;
};

// Everything one run of the tool was asked to do.
struct Invocation {
    GlobalOptions global;
    StatusOptions status;
    EnsureOptions ensure;
    PruneOptions prune;
    CleanOptions clean;
    FingerprintOptions fingerprint;
    KeyOptions key;
    PackOptions pack;
    HelpOptions help;
    std::string helpText; // what `help` prints; the full parser renders it

    // Two parsers must make the same Invocation of one command line; their
    // tests compare whole invocations.
    bool operator==(const Invocation&) const = default;
};

// The kinds of value an option takes. Each names the Invocation field the
// option sets; the kind decides how both parsers check and convert the value,
// what the help calls it, and so what the completions offer for it.
struct FlagValue {
    bool& (*field)(Invocation&); // no value: set when the option is given
};
struct DirectoryValue {
    std::string& (*field)(Invocation&); // DIR: taken as it is; completed as a folder
};
struct FileValue {
    std::string& (*field)(Invocation&); // FILE: taken as it is; completed as a file
};
struct SecondsValue {
    std::optional<double>& (*field)(Invocation&); // SECONDS: a number, at least 0
};
struct WorkerCountValue {
    unsigned& (*field)(Invocation&); // N: a whole number of threads, at least 1
};
struct ColorValue {
    ColorMode& (*field)(Invocation&); // WHEN: auto, always or never
};
using OptionValue =
    std::variant<FlagValue, DirectoryValue, FileValue, SecondsValue, WorkerCountValue, ColorValue>;

// One option as its command declares it.
struct CommandOption {
    std::string_view shortName; // "-j", or "" when it has none
    std::string_view longName;  // "--jobs"
    std::string_view help;      // one line, shown by --help and the manual page
    OptionValue value;
};

// A word after the subcommand that is not an option, in the order given.
struct CommandArgument {
    std::string_view name;     // as the help shows it
    std::string_view typeName; // "DIR" when it names a folder; "" leaves the parser's own
    std::string_view help;
    std::string& (*field)(Invocation&);
};

using CommandHandler = int (*)(const Invocation&, Console&);

struct Command {
    std::string_view name;
    std::string_view summary; // one line, shown by `help`
    CommandHandler handler;
    std::span<const CommandOption> options = {};     // its own, in the order its help lists them
    std::span<const CommandArgument> arguments = {}; // in the order they are given
    // Whether the quick command line may read it: the commands a compiler's
    // build or an IDE runs on every start, where the full parser would cost
    // more than the work it leads to.
    bool quick = false;
};

// The subcommands, in the order `help` lists them.
std::span<const Command> commands();

// The options every subcommand accepts, before or after its name, in the
// order --help lists them.
std::span<const CommandOption> globalOptions();

// What the help writes after an option that takes a value ("DIR", "N"); ""
// for a flag.
std::string_view valueTypeName(const OptionValue& value);

// The values an option accepts when they are a fixed set, as the help shows
// them ("{auto,always,never}"), where the completions read them; "" otherwise.
std::string_view valueChoices(const OptionValue& value);

// What an option's value must be, in the words of its error messages ("a
// whole number of worker threads, at least 1"); "" for a flag.
std::string_view expectedValue(const OptionValue& value);

// "expected <expectedValue>, got '<text>'" when `text` is not a value of this
// kind, "" when it is. The one check of a value, whichever parser read it.
std::string valueProblem(const OptionValue& value, std::string_view text);

// Sets the option's field from `text`, which valueProblem() accepted (a
// flag's field is set to true and `text` is not looked at). The one
// conversion of a value, whichever parser read it.
void storeValue(const OptionValue& value, Invocation& invocation, std::string_view text);

// What is wrong with a command line that both parsers read without fault, for
// reasons no single option has: --verbose with --quiet, or a QUOR_JOBS that
// `ensure` would use but is not a worker count. "" when nothing is.
std::string invocationProblem(const Command& command, const Invocation& invocation);

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
int runKey(const Invocation& invocation, Console& console);
int runPack(const Invocation& invocation, Console& console);
int runHelp(const Invocation& invocation, Console& console);

// Sets the Runtime's library path, cache root and jobs from the invocation,
// above the environment. Called by every handler that touches the cache.
void configureRuntime(const Invocation& invocation, unsigned jobs = 0);

// The text after "Exit status:" and "Environment:" in --help.
std::string_view exitStatusHelp();
std::string_view environmentHelp();

} // namespace quor::stdlibtool

#endif
