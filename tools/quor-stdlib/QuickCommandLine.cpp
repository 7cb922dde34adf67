// The quick command line of quor-stdlib; see QuickCommandLine.h. It runs on
// every compiler start, so it allocates nothing but the values it stores and
// never builds the full parser.

#include "QuickCommandLine.h"

#include <cstdint>
#include <string_view>

namespace quor::stdlibtool {

namespace {

// A value the full parser would take as it is: not empty and not the start of
// another option.
bool plainValue(std::string_view value) {
    return !value.empty() && value.front() != '-';
}

// The option among `options` that `word` names, by its short or long name or
// as "--long=value" (then `inlineValue` is that value); its index, or
// options.size() when none.
std::size_t findOption(std::span<const CommandOption> options, std::string_view word,
                       std::optional<std::string_view>& inlineValue) {
    for (std::size_t index = 0; index < options.size(); ++index) {
        const CommandOption& option = options[index];
        if (word == option.longName || (!option.shortName.empty() && word == option.shortName))
            return index;
        if (word.size() > option.longName.size() && word.starts_with(option.longName) &&
            word[option.longName.size()] == '=') {
            inlineValue = word.substr(option.longName.size() + 1);
            return index;
        }
    }
    return options.size();
}

} // namespace

std::optional<QuickCommand> parseQuickCommandLine(std::span<const char* const> arguments) {
    QuickCommand quick;
    const std::span<const CommandOption> global = globalOptions();
    // The options given so far, by their place in the global options followed
    // by the command's: the full parser decides what a repeated one means.
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view word = arguments[i];
        if (!word.starts_with('-')) {
            if (quick.command != nullptr)
                return std::nullopt; // an argument, or a second subcommand
            quick.command = findCommand(word);
            if (quick.command == nullptr || !quick.command->quick)
                return std::nullopt;
            continue;
        }
        std::optional<std::string_view> inlineValue;
        std::size_t index = findOption(global, word, inlineValue);
        const CommandOption* option = index < global.size() ? &global[index] : nullptr;
        // A command's own option only after its name, as the full parser takes it.
        if (option == nullptr && quick.command != nullptr) {
            const std::size_t own = findOption(quick.command->options, word, inlineValue);
            if (own < quick.command->options.size()) {
                option = &quick.command->options[own];
                index = global.size() + own;
            }
        }
        if (option == nullptr || index >= 64 || (seen & (std::uint64_t{1} << index)) != 0)
            return std::nullopt;
        seen |= std::uint64_t{1} << index;
        if (std::holds_alternative<FlagValue>(option->value)) {
            if (inlineValue)
                return std::nullopt; // "--json=true": the full parser's to read
            storeValue(option->value, quick.invocation, {});
            continue;
        }
        if (!inlineValue) {
            if (i + 1 >= arguments.size())
                return std::nullopt;
            inlineValue = arguments[++i];
        }
        if (!plainValue(*inlineValue) || !valueProblem(option->value, *inlineValue).empty())
            return std::nullopt;
        storeValue(option->value, quick.invocation, *inlineValue);
    }
    if (quick.command == nullptr || !invocationProblem(*quick.command, quick.invocation).empty())
        return std::nullopt;
    return quick;
}

} // namespace quor::stdlibtool
