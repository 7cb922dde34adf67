// How every subcommand reports the failure that ends it: one line on standard
// error for people, and with --json one "error" object on standard output whose
// `kind` lets a script tell a time-out from a lock it may not take, a broken
// unit, trouble with the disk, an interruption, a bad command line or a bug.

#ifndef QUOR_TOOLS_QUOR_STDLIB_FAILURE_H
#define QUOR_TOOLS_QUOR_STDLIB_FAILURE_H

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

namespace quor::stdlibtool {

class Console;

// "timeout", "lock", "io", "compile", "interrupted", "usage" or "internal".
// The kind of a failure the bootstrap, the services or the tool threw, told by
// the fixed beginning of its message: "Unable to lock ..." is "lock",
// "<unit>:<line>:<column>: ..." is "compile", the other messages about paths
// ("Unable to ...", "Refusing to ...", "Quor ...") are "io", anything else is
// "internal".
std::string_view failureKind(std::string_view message);

// Prints "quor-stdlib: error: <message>" on standard error and, when `json`,
// {"schema":..,"event":"error","kind":..,"message":..,"exitStatus":..} plus
// `extra`'s fields on standard output.
void reportFailure(Console& console, bool json, std::string_view kind, const std::string& message,
                   int status,
                   const nlohmann::ordered_json& extra = nlohmann::ordered_json::object());

} // namespace quor::stdlibtool

#endif
