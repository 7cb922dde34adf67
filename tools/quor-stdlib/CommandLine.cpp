// The full command-line parser of quor-stdlib; see CommandLine.h. The CLI11
// application is built from the command table, so an option, its value check
// and its help text exist only in the table's declaration; what is left here is
// how CLI11 is asked to read them and how its complaints are put into words.

#include "CommandLine.h"

#include "Console.h"
#include "JsonText.h"

#include "compiler/Compiler.h"
#include "quor/Config.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quor::stdlibtool {

namespace {

// Where a usage error is written, and whether --json asked for it as an object
// as well. --json is looked for among the raw arguments, since the parser may
// fail before it reaches it.
struct UsageOutput {
    std::ostream& out;
    std::ostream& err;
    bool json = false;
};

int usageError(const UsageOutput& output, const std::string& message) {
    output.err << "quor-stdlib: error: " << visible(message) << "\n"
               << "Run 'quor-stdlib help' to list the subcommands and options." << std::endl;
    if (output.json)
        output.out << jsonText(nlohmann::ordered_json{{"event", "error"},
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

// What the option CLI11 reports under `name` (its long name) expects, or ""
// when no option that takes a value has that name.
std::string_view expectedValueOf(std::string_view name) {
    for (const CommandOption& option : globalOptions())
        if (option.longName == name)
            return expectedValue(option.value);
    for (const Command& command : commands())
        for (const CommandOption& option : command.options)
            if (option.longName == name)
                return expectedValue(option.value);
    return {};
}

// The parser's complaints in the form every other usage error has. Its own
// texts ("--jobs: 1 required N missing") name a mechanism, not what to type.
std::string parseErrorMessage(const CLI::ParseError& error) {
    std::string text = error.what();
    if (error.get_name() == "ArgumentMismatch") {
        const std::string option = text.substr(0, text.find(':'));
        if (const std::string_view expected = expectedValueOf(option); !expected.empty())
            return option + ": expected " + std::string(expected) + ", got nothing";
    }
    // A ValidationError already reads "<option>: expected ..., got '...'"
    // (valueProblem()); anything else is kept whole rather than lost.
    return text;
}

// CLI11's spelling of an option's names: "-j,--jobs".
std::string namesOf(const CommandOption& option) {
    std::string names(option.longName);
    if (!option.shortName.empty())
        names.insert(0, std::string(option.shortName) + ",");
    return names;
}

// The texts of the options that take a value, as CLI11 read them; each is
// converted by storeValue() once parsing succeeded, the conversion the quick
// command line uses too.
struct ValueText {
    const CommandOption* option = nullptr;
    CLI::Option* parsed = nullptr;
    std::string text;
};

// Declares `option` on `level`. A flag is bound to its field, so that CLI11
// reads it as it reads any flag ("--force", "--force=false"); an option with a
// value is bound to a text, checked by valueProblem() as it is read.
void declare(CLI::App& level, const CommandOption& option, Invocation& invocation,
             std::deque<ValueText>& texts) {
    if (const auto* flag = std::get_if<FlagValue>(&option.value)) {
        level.add_flag(namesOf(option), flag->field(invocation), std::string(option.help));
        return;
    }
    ValueText& text = texts.emplace_back();
    text.option = &option;
    const OptionValue value = option.value;
    text.parsed = level.add_option(namesOf(option), text.text, std::string(option.help))
                      ->type_name(std::string(valueTypeName(value)))
                      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
                      ->check(CLI::Validator(
                          [value](std::string& given) { return valueProblem(value, given); },
                          std::string(valueChoices(value))));
}

// "--stdlib, --cache-root, --json, --quiet, --color".
std::string globalOptionNames() {
    std::string names;
    for (const CommandOption& option : globalOptions())
        names += (names.empty() ? "" : ", ") + std::string(option.longName);
    return names;
}

} // namespace

ParsedCommandLine parseCommandLine(std::span<const char* const> arguments, std::ostream& out,
                                   std::ostream& err) {
    ParsedCommandLine parsed;
    Invocation& invocation = parsed.invocation;
    UsageOutput usage{out, err};
    const auto ending = [&](int status) {
        parsed.status = status;
        return std::move(parsed);
    };
    bool versionAsked = false;
    for (const std::string_view word : arguments) {
        usage.json = usage.json || word == "--json";
        versionAsked = versionAsked || word == "--version";
    }
    if (usage.json && versionAsked) {
        out << jsonText(nlohmann::ordered_json{
                   {"version", QUOR_COMPILER_VERSION},
                   {"objectAbi", quor::compiler::Compiler::objectAbiVersion()}})
            << std::endl;
        return ending(ExitSuccess);
    }

    CLI::App app("Examines, prepares and prunes the precompiled Quor standard library.",
                 "quor-stdlib");
    app.fallthrough(); // global options may follow the subcommand
    std::deque<ValueText> texts;
    for (const CommandOption& option : globalOptions())
        declare(app, option, invocation, texts);
    app.set_version_flag("--version",
                         "quor-stdlib " + std::string(QUOR_COMPILER_VERSION) + " (object ABI " +
                             std::to_string(quor::compiler::Compiler::objectAbiVersion()) + ")",
                         "Print the compiler version and object ABI, then exit");

    const std::string footer = "The global options (" + globalOptionNames() +
                               ") apply too;\n'quor-stdlib --help' lists them with the exit "
                               "statuses.";
    std::map<std::string_view, CLI::App*> subcommands;
    for (const Command& command : commands()) {
        CLI::App* subcommand =
            app.add_subcommand(std::string(command.name), std::string(command.summary));
        for (const CommandOption& option : command.options)
            declare(*subcommand, option, invocation, texts);
        for (const CommandArgument& argument : command.arguments) {
            CLI::Option* positional = subcommand->add_option(
                std::string(argument.name), argument.field(invocation), std::string(argument.help));
            if (!argument.typeName.empty())
                positional->type_name(std::string(argument.typeName));
        }
        subcommand->footer(footer);
        subcommands[command.name] = subcommand;
    }
    app.require_subcommand(0, 1);
    app.footer(std::string(exitStatusHelp()) + "\n" + std::string(environmentHelp()));
    // Set last, so that the subcommands do not inherit it: an unknown word is
    // then left over on the top level, where it can be named as a typo.
    app.allow_extras();

    // Rendered before parsing: afterwards CLI11 renders the selected subcommand's help.
    const std::string overview = app.help();
    // CLI11 reads the program's name first, and keeps its own.
    std::vector<const char*> words{"quor-stdlib"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    try {
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return ending(app.exit(error, out, err)); // --help and --version
        return ending(usageError(usage, parseErrorMessage(error)));
    }

    const auto remaining = app.remaining();
    const auto selected = app.get_subcommands();
    if (selected.empty()) {
        if (!remaining.empty() && !remaining.front().starts_with("-"))
            return ending(usageError(usage, unknownSubcommand(remaining.front())));
        if (!remaining.empty())
            return ending(usageError(usage, unknownOption(remaining.front(), app, nullptr)));
        err << overview;
        return ending(usageError(usage, "no subcommand given"));
    }
    if (!remaining.empty()) {
        const std::string& word = remaining.front();
        const std::string& name = selected.front()->get_name();
        if (!word.starts_with("-") || word == "-")
            return ending(
                usageError(usage, "unexpected argument '" + word + "' for '" + name + "'"));
        // The subcommand's own options are known only after it: "--force ensure".
        if (selected.front()->get_option_no_throw(word) != nullptr)
            return ending(
                usageError(usage, "option '" + word + "' must come after '" + name + "'"));
        return ending(usageError(usage, unknownOption(word, app, selected.front())));
    }
    for (const ValueText& text : texts)
        if (text.parsed->count() > 0)
            storeValue(text.option->value, invocation, text.text);

    const Command* command = findCommand(selected.front()->get_name());
    if (const std::string problem = invocationProblem(*command, invocation); !problem.empty())
        return ending(usageError(usage, problem));
    if (command->name == "help") {
        const std::string& topic = invocation.help.subcommand;
        if (topic.empty())
            invocation.helpText = overview;
        else if (findCommand(topic) != nullptr)
            invocation.helpText = subcommands[findCommand(topic)->name]->help("quor-stdlib");
        else
            return ending(usageError(usage, unknownSubcommand(topic)));
    }
    parsed.command = command;
    return parsed;
}

} // namespace quor::stdlibtool
