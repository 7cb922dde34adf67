// The table of subcommands with the options each declares, the global
// options, the one check and conversion of every kind of option value, the
// typo suggestion for an unknown subcommand or option, the help texts shared
// by --help and `help`, and the Runtime configuration every subcommand starts
// with.

#include "Commands.h"
#include "Console.h"

#include "compiler/PackSignature.h"
#include "compiler/Runtime.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <vector>

namespace quor::stdlibtool {

namespace {

// Overloaded lambdas for std::visit over an OptionValue.
template <class... Handlers> struct Overloaded : Handlers... { using Handlers::operator()...; };
template <class... Handlers> Overloaded(Handlers...) -> Overloaded<Handlers...>;

constexpr std::array<CommandOption, 5> globalOptionTable = {{
    {"", "--stdlib", "Standard-library root (overrides QUOR_STDLIB_PATH)",
     DirectoryValue{[](Invocation& i) -> std::string& { return i.global.standardLibraryPath; }}},
    {"", "--cache-root",
     "Cache root holding one directory per compiler version (overrides QUOR_CACHE_DIR)",
     DirectoryValue{[](Invocation& i) -> std::string& { return i.global.cacheRoot; }}},
    {"", "--json", "Machine-readable output",
     FlagValue{[](Invocation& i) -> bool& { return i.global.json; }}},
    {"-q", "--quiet", "Print only errors",
     FlagValue{[](Invocation& i) -> bool& { return i.global.quiet; }}},
    {"", "--color", "Colour: auto (terminals, unless NO_COLOR), always, never",
     ColorValue{[](Invocation& i) -> ColorMode& { return i.global.color; }}},
}};

constexpr std::array<CommandOption, 1> statusOptions = {{
    {"", "--check", "Exit 0 when the cache is ready, 1 when a build is needed",
     FlagValue{[](Invocation& i) -> bool& { return i.status.check; }}},
}};

constexpr std::array<CommandOption, 4> ensureOptions = {{
    {"", "--timeout", "Give up waiting for another process's build lock after SECONDS",
     SecondsValue{[](Invocation& i) -> std::optional<double>& { return i.ensure.timeoutSeconds; }}},
    {"-j", "--jobs", "Precompiler worker threads (overrides QUOR_JOBS)",
     WorkerCountValue{[](Invocation& i) -> unsigned& { return i.ensure.jobs; }}},
    {"-f", "--force",
     "Build even when the cache is ready: withdraw the readiness marker, then check every "
     "object and compile those that are not sound",
     FlagValue{[](Invocation& i) -> bool& { return i.ensure.force; }}},
    {"-v", "--verbose",
     "Show each unit with its time on standard error, and the slowest units at the end",
     FlagValue{[](Invocation& i) -> bool& { return i.ensure.verbose; }}},
}};

constexpr std::array<CommandOption, 1> pruneOptions = {{
    {"-n", "--dry-run", "List what would be removed, remove nothing",
     FlagValue{[](Invocation& i) -> bool& { return i.prune.dryRun; }}},
}};

constexpr std::array<CommandOption, 1> cleanOptions = {{
    {"-n", "--dry-run", "Say what would be removed, remove nothing",
     FlagValue{[](Invocation& i) -> bool& { return i.clean.dryRun; }}},
}};

constexpr std::array<CommandOption, 1> fingerprintOptions = {{
    {"-w", "--write",
     "Record the fingerprint in DIR/.quor-stdlib-fingerprint, which the bootstrap reads first",
     FlagValue{[](Invocation& i) -> bool& { return i.fingerprint.write; }}},
}};

constexpr std::array<CommandArgument, 1> fingerprintArguments = {{
    {"directory", "DIR", "The library root; by default the standard library in use",
     [](Invocation& i) -> std::string& { return i.fingerprint.directory; }},
}};

constexpr std::array<CommandOption, 3> keyOptions = {{
    {"", "--dir", "generate: the folder to write NAME.secret and NAME.public in; by default here",
     DirectoryValue{[](Invocation& i) -> std::string& { return i.key.directory; }}},
    {"", "--key", "sign: the secret key file to sign with",
     FileValue{[](Invocation& i) -> std::string& { return i.key.secretKey; }}},
    {"", "--keys", "verify: the list of trusted public keys (the .public files put together)",
     FileValue{[](Invocation& i) -> std::string& { return i.key.trustedKeys; }}},
}};

constexpr std::array<CommandArgument, 2> keyArguments = {{
    {"action", "", "generate, sign or verify",
     [](Invocation& i) -> std::string& { return i.key.action; }},
    {"subject", "NAME|FILE",
     "generate: the new key's name; sign: the file to sign (FILE.sig is written); verify: the "
     "file whose FILE.sig is checked",
     [](Invocation& i) -> std::string& { return i.key.subject; }},
}};

constexpr std::array<CommandOption, 1> packOptions = {{
    {"-o", "--output", "Write the pack to FILE instead of <fingerprint>.qpack in this folder",
     FileValue{[](Invocation& i) -> std::string& { return i.pack.output; }}},
}};

constexpr std::array<CommandArgument, 1> helpArguments = {{
    {"subcommand", "", "The subcommand to explain",
     [](Invocation& i) -> std::string& { return i.help.subcommand; }},
}};

constexpr std::array<Command, 9> table = {{
    {.name = "status",
     .summary = "Show the cache's identity, paths and readiness, and why it is not ready",
     .handler = runStatus,
     .options = statusOptions,
     .quick = true},
    {.name = "ensure",
     .summary = "Build the standard-library cache now unless it is up to date",
     .handler = runEnsure,
     .options = ensureOptions,
     .quick = true},
    {.name = "verify",
     .summary = "Check every object the readiness marker vouches for against its unit",
     .handler = runVerify},
    {.name = "prune",
     .summary = "Remove the caches that older compiler versions left behind",
     .handler = runPrune,
     .options = pruneOptions},
    {.name = "clean",
     .summary = "Remove this compiler version's cache, so that the next build starts afresh",
     .handler = runClean,
     .options = cleanOptions},
    {.name = "fingerprint",
     .summary = "Compute a library's fingerprint, and with --write record it beside its units",
     .handler = runFingerprint,
     .options = fingerprintOptions,
     .arguments = fingerprintArguments},
    {.name = "key",
     .summary =
         "Make a pack-signing key pair, sign a file, check its signature: key generate|sign|verify",
     .handler = runKey,
     .options = keyOptions,
     .arguments = keyArguments},
    {.name = "pack",
     .summary = "Write the ready library cache in use as one pack file, for other machines",
     .handler = runPack,
     .options = packOptions},
    {.name = "help",
     .summary = "List the subcommands, or explain one: help [SUBCOMMAND]",
     .handler = runHelp,
     .arguments = helpArguments},
}};

constexpr std::string_view expectedSeconds = "a number of seconds, at least 0";
constexpr std::string_view expectedJobs = "a whole number of worker threads, at least 1";
constexpr std::string_view expectedColor = "auto, always or never";
constexpr std::string_view expectedDirectory = "a directory";
constexpr std::string_view expectedFile = "a file name";

std::string badValue(std::string_view expected, std::string_view text) {
    return "expected " + std::string(expected) + ", got '" + std::string(text) + "'";
}

// A number of seconds as std::stod reads it, whole, from 0 up to (not
// including) a billion; nullopt otherwise.
std::optional<double> seconds(std::string_view text) {
    try {
        const std::string whole(text);
        std::size_t used = 0;
        const double value = std::stod(whole, &used);
        if (used == whole.size() && value >= 0.0 && value < 1e9)
            return value;
    } catch (const std::exception&) { // not a number
    }
    return std::nullopt;
}

// A worker count: one to six decimal digits, not all zeros. Read in decimal,
// so that a leading zero does not make it octal.
std::optional<unsigned> workerCount(std::string_view text) {
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != text.npos)
        return std::nullopt;
    unsigned value = 0;
    for (const char digit : text)
        value = value * 10 + static_cast<unsigned>(digit - '0');
    return value > 0 ? std::optional<unsigned>(value) : std::nullopt;
}

std::optional<ColorMode> colorMode(std::string_view text) {
    if (text == "auto")
        return ColorMode::Auto;
    if (text == "always")
        return ColorMode::Always;
    if (text == "never")
        return ColorMode::Never;
    return std::nullopt;
}

// What is wrong with the words and options given to `key`: each action takes
// its subject and only its own option, and sign and verify need theirs.
std::string keyProblem(const KeyOptions& key) {
    const bool generate = key.action == "generate";
    const bool signing = key.action == "sign";
    const bool verifying = key.action == "verify";
    if (key.action.empty())
        return "'key' needs an action: generate, sign or verify";
    if (!generate && !signing && !verifying)
        return "unknown action '" + key.action + "' for 'key'; expected generate, sign or verify";
    if (key.subject.empty())
        return generate ? "'key generate' needs the new key's name"
                        : "'key " + key.action + "' needs the file";
    if (generate)
        if (const std::string problem = compiler::signature::keyNameProblem(key.subject);
            !problem.empty())
            return "invalid key name '" + key.subject + "': " + problem;
    if (!key.directory.empty() && !generate)
        return "--dir is for 'key generate' only";
    if (!key.secretKey.empty() && !signing)
        return "--key is for 'key sign' only";
    if (!key.trustedKeys.empty() && !verifying)
        return "--keys is for 'key verify' only";
    if (signing && key.secretKey.empty())
        return "'key sign' needs --key NAME.secret";
    if (verifying && key.trustedKeys.empty())
        return "'key verify' needs --keys TRUSTED";
    return {};
}

// Edit distance counting a swap of two neighbouring letters as one edit, so
// that "stauts" is one step from "status".
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i)
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

} // namespace

std::span<const Command> commands() {
    return table;
}

std::span<const CommandOption> globalOptions() {
    return globalOptionTable;
}

std::string_view valueTypeName(const OptionValue& value) {
    return std::visit(Overloaded{[](const FlagValue&) { return std::string_view(); },
                                 [](const DirectoryValue&) { return std::string_view("DIR"); },
                                 [](const FileValue&) { return std::string_view("FILE"); },
                                 [](const SecondsValue&) { return std::string_view("SECONDS"); },
                                 [](const WorkerCountValue&) { return std::string_view("N"); },
                                 [](const ColorValue&) { return std::string_view("WHEN"); }},
                      value);
}

std::string_view valueChoices(const OptionValue& value) {
    return std::holds_alternative<ColorValue>(value) ? "{auto,always,never}" : "";
}

std::string_view expectedValue(const OptionValue& value) {
    return std::visit(Overloaded{[](const FlagValue&) { return std::string_view(); },
                                 [](const DirectoryValue&) { return expectedDirectory; },
                                 [](const FileValue&) { return expectedFile; },
                                 [](const SecondsValue&) { return expectedSeconds; },
                                 [](const WorkerCountValue&) { return expectedJobs; },
                                 [](const ColorValue&) { return expectedColor; }},
                      value);
}

std::string valueProblem(const OptionValue& value, std::string_view text) {
    const bool accepted = std::visit(
        Overloaded{[](const FlagValue&) { return true; },
                   [](const DirectoryValue&) { return true; },
                   [&](const FileValue&) { return !text.empty(); },
                   [&](const SecondsValue&) { return seconds(text).has_value(); },
                   [&](const WorkerCountValue&) { return workerCount(text).has_value(); },
                   [&](const ColorValue&) { return colorMode(text).has_value(); }},
        value);
    return accepted ? std::string() : badValue(expectedValue(value), text);
}

void storeValue(const OptionValue& value, Invocation& invocation, std::string_view text) {
    std::visit(
        Overloaded{[&](const FlagValue& flag) { flag.field(invocation) = true; },
                   [&](const DirectoryValue& directory) {
                       directory.field(invocation) = std::string(text);
                   },
                   [&](const FileValue& file) { file.field(invocation) = std::string(text); },
                   [&](const SecondsValue& limit) { limit.field(invocation) = seconds(text); },
                   [&](const WorkerCountValue& jobs) {
                       jobs.field(invocation) = workerCount(text).value_or(0);
                   },
                   [&](const ColorValue& color) {
                       color.field(invocation) = colorMode(text).value_or(ColorMode::Auto);
                   }},
        value);
}

std::string invocationProblem(const Command& command, const Invocation& invocation) {
    if (invocation.global.quiet && invocation.ensure.verbose)
        return "--verbose and --quiet cannot be used together";
    if (command.name == "key")
        return keyProblem(invocation.key);
    // QUOR_JOBS is read by the runtime, which takes anything it cannot use for
    // "unset". When it would be used, that is by `ensure` without --jobs, a
    // value that is not a worker count is refused as --jobs refuses it. Empty
    // is unset.
    if (command.name != "ensure" || invocation.ensure.jobs != 0)
        return {};
    const char* jobs = std::getenv("QUOR_JOBS");
    if (jobs == nullptr || jobs[0] == '\0' || workerCount(jobs))
        return {};
    return "QUOR_JOBS: " + badValue(expectedJobs, jobs);
}

const Command* findCommand(std::string_view name) {
    for (const auto& command : table)
        if (command.name == name)
            return &command;
    return nullptr;
}

std::optional<std::string_view> closestName(std::string_view word,
                                            std::span<const std::string_view> candidates) {
    if (word.empty() || candidates.empty())
        return std::nullopt;
    std::optional<std::string_view> best;
    std::size_t bestDistance = 0;
    for (const std::string_view candidate : candidates) {
        // A prefix ("pr", "ens", "dry") is what people type when they half remember.
        if (candidate.starts_with(word))
            return candidate;
        const std::size_t distance = editDistance(word, candidate);
        if (!best || distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    const std::size_t allowed = std::max<std::size_t>(2, best->size() / 3);
    return bestDistance <= allowed ? best : std::nullopt;
}

const Command* closestCommand(std::string_view name) {
    std::array<std::string_view, table.size()> names;
    for (std::size_t i = 0; i < table.size(); ++i)
        names[i] = table[i].name;
    const auto closest = closestName(name, names);
    return closest ? findCommand(*closest) : nullptr;
}

int runHelp(const Invocation& invocation, Console& console) {
    console.out() << invocation.helpText;
    if (!invocation.helpText.empty() && invocation.helpText.back() != '\n')
        console.out() << '\n';
    console.out().flush();
    return ExitSuccess;
}

void configureRuntime(const Invocation& invocation, unsigned jobs) {
    compiler::RuntimeConfiguration configuration;
    configuration.standardLibraryPath = invocation.global.standardLibraryPath;
    configuration.cacheRoot = invocation.global.cacheRoot;
    configuration.jobs = jobs;
    compiler::Runtime::getInstance().configure(configuration);
}

std::string_view exitStatusHelp() {
    return "Exit status:\n"
           "  0    success; for `status --check`: the cache is ready\n"
           "  1    the operation failed (the reason follows \"quor-stdlib: error:\"),\n"
           "       `status --check` found that a build is needed, or `verify`\n"
           "       found the cache not ready or an object that is not sound\n"
           "  2    usage error: unknown subcommand or option, missing or bad value,\n"
           "       or a QUOR_JOBS that `ensure` would use but is not a worker count\n"
           "  124  `ensure --timeout` gave up waiting for another process's build lock\n"
           "  129  `ensure` stopped by SIGHUP (the terminal went away), as for 130\n"
           "  130  interrupted (Ctrl-C); a build cut short leaves no readiness marker\n"
           "  141  done, but standard output was closed before everything was written\n"
           "       (one line on standard error says so); a failure keeps its own status\n"
           "  143  `ensure` stopped by SIGTERM, as for 130\n";
}

std::string_view environmentHelp() {
    return "Environment (the options above take precedence):\n"
           "  QUOR_STDLIB_PATH  standard-library root; default: share/quor/stdlib beside\n"
           "                    the installed program, or the source tree's stdlib/\n"
           "  QUOR_CACHE_DIR    cache root; default: $XDG_CACHE_HOME/quor, else ~/.cache/quor\n"
           "  QUOR_SYSTEM_CACHE_DIR\n"
           "                    the system cache: root's ready cache of the installed\n"
           "                    library, used when yours is not ready; default:\n"
           "                    share/quor/stdlib-cache beside the installed program;\n"
           "                    empty: none\n"
           "  QUOR_JOBS         precompiler worker threads, at most 256; default: one per\n"
           "                    hardware thread\n"
           "  NO_COLOR          when set and not empty, --color auto prints no colour\n";
}

} // namespace quor::stdlibtool
