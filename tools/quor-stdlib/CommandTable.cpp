// The table of subcommands, the typo suggestion for an unknown subcommand or
// option, the help texts shared by --help and `help`, and the Runtime
// configuration every subcommand starts with.

#include "Commands.h"
#include "Console.h"

#include "compiler/Runtime.h"

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace quor::stdlibtool {

namespace {

constexpr std::array<Command, 7> table = {{
    {"status", "Show the cache's identity, paths and readiness, and why it is not ready",
     runStatus},
    {"ensure", "Build the standard-library cache now unless it is up to date", runEnsure},
    {"verify", "Check every object the readiness marker vouches for against its unit", runVerify},
    {"prune", "Remove the caches that older compiler versions left behind", runPrune},
    {"clean", "Remove this compiler version's cache, so that the next build starts afresh",
     runClean},
    {"fingerprint", "Compute a library's fingerprint, and with --write record it beside its units",
     runFingerprint},
    {"help", "List the subcommands, or explain one: help [SUBCOMMAND]", runHelp},
}};

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
           "  QUOR_JOBS         precompiler worker threads, at most 256; default: one per\n"
           "                    hardware thread\n"
           "  NO_COLOR          when set and not empty, --color auto prints no colour\n";
}

} // namespace quor::stdlibtool
