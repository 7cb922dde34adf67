// quor-stdlib: examine, prepare and prune the Quor standard-library cache.
// This file only turns the command line into an Invocation and calls the
// subcommand's handler from the command table; the work is in the handlers.

#include "Commands.h"
#include "Console.h"
#include "JsonText.h"
#include "QuickCommandLine.h"

#include "compiler/Compiler.h"
#include "quor/Config.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

using namespace quor::stdlibtool;

namespace {

// Whoever started us may have closed descriptor 0, 1 or 2 (`>&- 2>&-`). The
// next open() would then hand that number to a file of the build, and what is
// written to "standard error" would land in the lock file or an object. So
// each closed one gets /dev/null before anything else is opened; without
// /dev/null (a bare chroot), a descriptor of "/" that cannot be written keeps
// the number taken.
void occupyStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        int opened = open("/dev/null", (fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) | O_NOCTTY);
        if (opened < 0)
            opened = open("/", O_PATH | O_DIRECTORY);
        if (opened < 0)
            _exit(ExitFailure); // nowhere safe to write, and nothing done yet
        if (opened != fd) {
            dup2(opened, fd);
            close(opened);
        }
    }
}

// Does nothing. A write to a closed pipe then fails with EPIPE, which the
// handlers notice and report once their work is done, instead of SIGPIPE
// ending the process in the middle of a build. A handler rather than SIG_IGN,
// so that any program started from here gets the default disposition back.
extern "C" void onBrokenPipe(int) {}

void survivePipeClosing() {
    struct sigaction action {};
    action.sa_handler = onBrokenPipe;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

// Whether --json is among the arguments, for the answers given before (or
// instead of) parsing them: a usage error and --version.
bool jsonAsked = false;

int usageError(const std::string& message) {
    std::cerr << "quor-stdlib: error: " << visible(message) << "\n"
              << "Run 'quor-stdlib help' to list the subcommands and options." << std::endl;
    if (jsonAsked)
        std::cout << jsonText(nlohmann::ordered_json{{"event", "error"},
                                                     {"kind", "usage"},
                                                     {"message", message},
                                                     {"exitStatus", int(ExitUsage)}})
                  << std::endl;
    return ExitUsage;
}

std::string unknownSubcommand(const std::string& name) {
    std::string message = "unknown subcommand '" + name + "'";
    if (const Command* closest = closestCommand(name))
        message += "; did you mean '" + std::string(closest->name) + "'?";
    return message;
}

// The long options (without their dashes) that `selected`, or the top level
// when nothing is selected, accepts at that place: its own and the global ones.
std::vector<std::string> longOptions(const CLI::App& app, const CLI::App* selected) {
    std::vector<std::string> names;
    for (const CLI::App* level : {selected, &app})
        if (level != nullptr)
            for (const CLI::Option* option : level->get_options())
                for (const std::string& name : option->get_lnames())
                    names.push_back(name);
    return names;
}

// An option nobody declared, with the declared one it most plausibly
// misspells. A single letter ("-v") has too many neighbours to guess from, so
// only a long word gets a suggestion; it is matched without its dashes and
// without a "=value" part, against long names, so "--dry" finds "--dry-run".
std::string unknownOption(const std::string& word, const CLI::App& app, const CLI::App* selected) {
    std::string message = "unknown option '" + word + "'";
    if (selected != nullptr)
        message += " for '" + selected->get_name() + "'";
    std::string_view core = word;
    core.remove_prefix(std::min(core.find_first_not_of('-'), core.size()));
    core = core.substr(0, core.find('='));
    if (core.size() < 2)
        return message;
    const std::vector<std::string> names = longOptions(app, selected);
    const std::vector<std::string_view> candidates(names.begin(), names.end());
    if (const auto closest = closestName(core, candidates))
        message += "; did you mean '--" + std::string(*closest) + "'?";
    return message;
}

// What each option with a value expects, in the words of its error messages:
// "<option>: expected <this>, got '<value>'", or "got nothing" when the value
// is missing. Keyed by the name the parser reports the option under.
std::map<std::string, std::string, std::less<>> expectedValues;

constexpr std::string_view expectedSeconds = "a number of seconds, at least 0";
constexpr std::string_view expectedJobs = "a whole number of worker threads, at least 1";
constexpr std::string_view expectedColor = "auto, always or never";
constexpr std::string_view expectedDirectory = "a directory";

std::string badValue(std::string_view expected, const std::string& text) {
    return "expected " + std::string(expected) + ", got '" + text + "'";
}

// The parser's complaints in the form every other usage error has. Its own
// texts ("--jobs: 1 required N missing") name a mechanism, not what to type.
std::string parseErrorMessage(const CLI::ParseError& error) {
    std::string text = error.what();
    if (error.get_name() == "ArgumentMismatch") {
        const std::string option = text.substr(0, text.find(':'));
        if (const auto expected = expectedValues.find(option); expected != expectedValues.end())
            return option + ": expected " + expected->second + ", got nothing";
    }
    // A ValidationError already reads "<option>: expected ..., got '...'"
    // (the validators below); anything else is kept whole rather than lost.
    return text;
}

// CLI11's own validators print the whole range of a double; these say what is expected.
CLI::Validator secondsValidator() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            try {
                std::size_t used = 0;
                const double value = std::stod(text, &used);
                if (used == text.size() && value >= 0.0 && value < 1e9)
                    return {};
            } catch (const std::exception&) { // not a number: reported below
            }
            return badValue(expectedSeconds, text);
        },
        "");
}

CLI::Validator colorValidator() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            return text == "auto" || text == "always" || text == "never"
                       ? std::string()
                       : badValue(expectedColor, text);
        },
        "{auto,always,never}"); // shown in --help, and read from there by the completion
}

// What is wrong with `text` as a number of worker threads, or "" when nothing is.
std::string jobsProblem(const std::string& text) {
    if (!text.empty() && text.size() <= 6 &&
        text.find_first_not_of("0123456789") == std::string::npos && std::stoul(text) > 0)
        return {};
    return badValue(expectedJobs, text);
}

CLI::Validator jobsValidator() {
    return CLI::Validator([](std::string& text) { return jobsProblem(text); }, "");
}

// QUOR_JOBS is read by the runtime, which takes anything it cannot use for
// "unset". When it would be used, that is by `ensure` without --jobs, a value
// that is not a worker count is refused as --jobs refuses it. Empty is unset.
std::string jobsEnvironmentProblem(const Command& command, const Invocation& invocation) {
    if (command.name != "ensure" || invocation.ensure.jobs != 0)
        return {};
    const char* value = std::getenv("QUOR_JOBS");
    if (value == nullptr || value[0] == '\0')
        return {};
    const std::string problem = jobsProblem(value);
    return problem.empty() ? problem : "QUOR_JOBS: " + problem;
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors(); // first: nothing may be opened before it
    survivePipeClosing();
    // `ensure` and `status --check` run on every compiler start; when their
    // command line is a plain one, the command table is not built at all.
    if (const auto quick =
            parseQuickCommandLine({static_cast<const char* const*>(argv) + 1,
                                   static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)})) {
        Console console = Console::forProcess(quick->invocation.global.color);
        return quick->command->handler(quick->invocation, console);
    }
    Invocation invocation;
    std::string color = "auto";
    bool versionAsked = false;
    for (int i = 1; i < argc; ++i) {
        jsonAsked = jsonAsked || std::string_view(argv[i]) == "--json";
        versionAsked = versionAsked || std::string_view(argv[i]) == "--version";
    }
    if (jsonAsked && versionAsked) {
        std::cout << jsonText(nlohmann::ordered_json{
                         {"version", QUOR_COMPILER_VERSION},
                         {"objectAbi", quor::compiler::Compiler::objectAbiVersion()}})
                  << std::endl;
        return ExitSuccess;
    }
    std::string helpTopic;

    CLI::App app("Examines, prepares and prunes the precompiled Quor standard library.",
                 "quor-stdlib");
    app.fallthrough(); // global options may follow the subcommand
    app.add_option("--stdlib", invocation.global.standardLibraryPath,
                   "Standard-library root (overrides QUOR_STDLIB_PATH)")
        ->type_name("DIR")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--cache-root", invocation.global.cacheRoot,
                   "Cache root holding one directory per compiler version (overrides "
                   "QUOR_CACHE_DIR)")
        ->type_name("DIR")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_flag("--json", invocation.global.json, "Machine-readable output");
    app.add_flag("-q,--quiet", invocation.global.quiet, "Print only errors");
    app.add_option("--color", color, "Colour: auto (terminals, unless NO_COLOR), always, never")
        ->check(colorValidator())
        ->type_name("WHEN")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    expectedValues = {{"--stdlib", std::string(expectedDirectory)},
                      {"--cache-root", std::string(expectedDirectory)},
                      {"--color", std::string(expectedColor)},
                      {"--timeout", std::string(expectedSeconds)},
                      {"--jobs", std::string(expectedJobs)}};
    app.set_version_flag("--version",
                         "quor-stdlib " + std::string(QUOR_COMPILER_VERSION) + " (object ABI " +
                             std::to_string(quor::compiler::Compiler::objectAbiVersion()) + ")",
                         "Print the compiler version and object ABI, then exit");

    std::map<std::string_view, CLI::App*> subcommands;
    for (const Command& command : commands())
        subcommands[command.name] =
            app.add_subcommand(std::string(command.name), std::string(command.summary));
    subcommands["status"]->add_flag("--check", invocation.status.check,
                                    "Exit 0 when the cache is ready, 1 when a build is needed");
    subcommands["ensure"]
        ->add_option("--timeout", invocation.ensure.timeoutSeconds,
                     "Give up waiting for another process's build lock after SECONDS")
        ->check(secondsValidator())
        ->type_name("SECONDS")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    subcommands["ensure"]
        ->add_option("-j,--jobs", invocation.ensure.jobs,
                     "Precompiler worker threads (overrides QUOR_JOBS)")
        ->check(jobsValidator())
        ->type_name("N")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    subcommands["ensure"]->add_flag(
        "-f,--force", invocation.ensure.force,
        "Build even when the cache is ready: withdraw the readiness marker, then check every "
        "object and compile those that are not sound");
    subcommands["ensure"]->add_flag(
        "-v,--verbose", invocation.ensure.verbose,
        "Show each unit with its time on standard error, and the slowest units at the end");
    subcommands["prune"]->add_flag("-n,--dry-run", invocation.prune.dryRun,
                                   "List what would be removed, remove nothing");
    subcommands["clean"]->add_flag("-n,--dry-run", invocation.clean.dryRun,
                                   "Say what would be removed, remove nothing");
    subcommands["fingerprint"]
        ->add_option("directory", invocation.fingerprint.directory,
                     "The library root; by default the standard library in use")
        ->type_name("DIR");
    subcommands["fingerprint"]->add_flag(
        "-w,--write", invocation.fingerprint.write,
        "Record the fingerprint in DIR/.quor-stdlib-fingerprint, which the bootstrap reads first");
    subcommands["help"]->add_option("subcommand", helpTopic, "The subcommand to explain");
    for (auto& [name, subcommand] : subcommands)
        subcommand->footer("The global options (--stdlib, --cache-root, --json, --quiet, --color) "
                           "apply too;\n'quor-stdlib --help' lists them with the exit statuses.");
    app.require_subcommand(0, 1);
    app.footer(std::string(exitStatusHelp()) + "\n" + std::string(environmentHelp()));
    // Set last, so that the subcommands do not inherit it: an unknown word is
    // then left over on the top level, where it can be named as a typo.
    app.allow_extras();

    // Rendered before parsing: afterwards CLI11 renders the selected subcommand's help.
    const std::string overview = app.help();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // --help and --version
        return usageError(parseErrorMessage(error));
    }

    const auto remaining = app.remaining();
    const auto selected = app.get_subcommands();
    if (selected.empty()) {
        if (!remaining.empty() && !remaining.front().starts_with("-"))
            return usageError(unknownSubcommand(remaining.front()));
        if (!remaining.empty())
            return usageError(unknownOption(remaining.front(), app, nullptr));
        std::cerr << overview;
        return usageError("no subcommand given");
    }
    if (!remaining.empty()) {
        const std::string& word = remaining.front();
        const std::string& name = selected.front()->get_name();
        if (!word.starts_with("-") || word == "-")
            return usageError("unexpected argument '" + word + "' for '" + name + "'");
        // The subcommand's own options are known only after it: "--force ensure".
        if (selected.front()->get_option_no_throw(word) != nullptr)
            return usageError("option '" + word + "' must come after '" + name + "'");
        return usageError(unknownOption(word, app, selected.front()));
    }
    if (invocation.global.quiet && invocation.ensure.verbose)
        return usageError("--verbose and --quiet cannot be used together");

    const Command* command = findCommand(selected.front()->get_name());
    if (command->name == "help") {
        if (helpTopic.empty())
            invocation.helpText = overview;
        else if (findCommand(helpTopic) != nullptr)
            invocation.helpText = subcommands[findCommand(helpTopic)->name]->help("quor-stdlib");
        else
            return usageError(unknownSubcommand(helpTopic));
    }
    if (const std::string problem = jobsEnvironmentProblem(*command, invocation); !problem.empty())
        return usageError(problem);
    invocation.global.color = color == "always"  ? ColorMode::Always
                              : color == "never" ? ColorMode::Never
                                                 : ColorMode::Auto;
    Console console = Console::forProcess(invocation.global.color);
    return command->handler(invocation, console);
}
