// The quick command line of quor-stdlib; see QuickCommandLine.h.

#include "QuickCommandLine.h"

#include <cstdlib>
#include <string_view>

namespace quor::stdlibtool {

namespace {

// A value CLI11 would take as it is: not empty and not the start of another
// option.
bool plainValue(std::string_view value) {
    return !value.empty() && value.front() != '-';
}

// Splits "--name=value" and "--name value"; false when the word is not the
// option `name` or its value is not plain. `index` moves past the value.
bool optionValue(std::span<const char* const> arguments, std::size_t& index, std::string_view name,
                 std::string_view& value) {
    const std::string_view word = arguments[index];
    if (word == name) {
        if (index + 1 >= arguments.size())
            return false;
        value = arguments[++index];
    } else if (word.size() > name.size() && word.starts_with(name) && word[name.size()] == '=') {
        value = word.substr(name.size() + 1);
    } else {
        return false;
    }
    return plainValue(value);
}

} // namespace

std::optional<QuickCommand> parseQuickCommandLine(std::span<const char* const> arguments) {
    QuickCommand quick;
    GlobalOptions& global = quick.invocation.global;
    bool stdlibSeen = false, cacheRootSeen = false, colorSeen = false, jsonSeen = false,
         quietSeen = false, checkSeen = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view word = arguments[i];
        std::string_view value;
        if (word.starts_with("--stdlib")) {
            if (stdlibSeen || !optionValue(arguments, i, "--stdlib", value))
                return std::nullopt;
            global.standardLibraryPath = value;
            stdlibSeen = true;
        } else if (word.starts_with("--cache-root")) {
            if (cacheRootSeen || !optionValue(arguments, i, "--cache-root", value))
                return std::nullopt;
            global.cacheRoot = value;
            cacheRootSeen = true;
        } else if (word.starts_with("--color")) {
            if (colorSeen || !optionValue(arguments, i, "--color", value))
                return std::nullopt;
            if (value == "always")
                global.color = ColorMode::Always;
            else if (value == "never")
                global.color = ColorMode::Never;
            else if (value != "auto")
                return std::nullopt;
            colorSeen = true;
        } else if (word == "--json") {
            if (jsonSeen)
                return std::nullopt;
            global.json = jsonSeen = true;
        } else if (word == "-q" || word == "--quiet") {
            if (quietSeen)
                return std::nullopt;
            global.quiet = quietSeen = true;
        } else if (word == "--check") {
            // A subcommand's option: only after `status`.
            if (checkSeen || quick.command == nullptr || quick.command->name != "status")
                return std::nullopt;
            quick.invocation.status.check = checkSeen = true;
        } else if ((word == "ensure" || word == "status") && quick.command == nullptr) {
            quick.command = findCommand(word);
        } else {
            return std::nullopt;
        }
    }
    if (quick.command == nullptr || (quick.command->name == "status" && !checkSeen))
        return std::nullopt;
    // `ensure` without --jobs refuses a QUOR_JOBS that is not a worker count;
    // the full parser knows how to say so.
    if (quick.command->name == "ensure") {
        const char* jobs = std::getenv("QUOR_JOBS");
        if (jobs != nullptr && jobs[0] != '\0')
            return std::nullopt;
    }
    return quick;
}

} // namespace quor::stdlibtool
