// How every subcommand reports the failure that ends it: one line on standard
// error for people, and with --json one "error" object on standard output whose
// `kind` lets a script tell a time-out from a lock it may not take, a cache it
// may not trust, a broken unit, trouble with the disk, an interruption, a bad
// command line or a bug.
//
// The kind follows the type of what was thrown, never the words of its
// message: the services throw compiler::ServiceError (its category), the tool
// throws ToolError (its kind), and the bootstrap, whose messages are fixed
// words, is asked which of its own messages a failure is
// (compiler::explain::failureCauseOf). Anything else is "internal".

#ifndef QUOR_TOOLS_QUOR_STDLIB_FAILURE_H
#define QUOR_TOOLS_QUOR_STDLIB_FAILURE_H

#include <nlohmann/json.hpp>

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quor::stdlibtool {

class Console;

// The kinds a failure can have: "timeout", "lock", "untrusted", "io",
// "compile", "interrupted", "not-ready", "usage" or "internal" (docs/json.md).
namespace kind {
inline constexpr std::string_view timeout = "timeout";
inline constexpr std::string_view lock = "lock";
inline constexpr std::string_view untrusted = "untrusted";
inline constexpr std::string_view io = "io";
inline constexpr std::string_view compile = "compile";
inline constexpr std::string_view interrupted = "interrupted";
// The cache is not in a state the command can use as it stands (`pack` on a
// cache that is not ready or holds objects that are not sound); the message
// says which `ensure` makes it so.
inline constexpr std::string_view notReady = "not-ready";
inline constexpr std::string_view usage = "usage";
inline constexpr std::string_view internal = "internal";
} // namespace kind

// A failure of the tool's own, with its kind and any fields a script needs
// beyond the message (the holder of a lock, say).
class ToolError : public std::runtime_error {
public:
    ToolError(std::string_view kind, const std::string& message,
              nlohmann::ordered_json extra = nlohmann::ordered_json::object())
        : std::runtime_error(message), kind_(kind), extra_(std::move(extra)) {}

    std::string_view kind() const noexcept { return kind_; }
    const nlohmann::ordered_json& extra() const noexcept { return extra_; }

private:
    std::string_view kind_;
    nlohmann::ordered_json extra_;
};

// The kind of `failure`, by its type (see above).
std::string_view failureKind(const std::exception& failure);

// The same for a failure carried across threads; "internal" for an empty
// pointer or something that is not a std::exception.
std::string_view failureKind(const std::exception_ptr& failure);

// Prints "quor-stdlib: error: <message>" on standard error and, when `json`,
// {"schema":..,"event":"error","kind":..,"message":..,"exitStatus":..} plus
// `extra`'s fields on standard output.
void reportFailure(Console& console, bool json, std::string_view kind, const std::string& message,
                   int status,
                   const nlohmann::ordered_json& extra = nlohmann::ordered_json::object());

// reportFailure() for a caught failure: its kind, its message, and for a
// ToolError its extra fields.
void reportFailure(Console& console, bool json, const std::exception& failure, int status);

} // namespace quor::stdlibtool

#endif
