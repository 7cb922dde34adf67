// The full command-line parser of quor-stdlib: a CLI11 application built from
// the command table's declarations (Commands.h), which reads every command
// line the quick one (QuickCommandLine.h) leaves to it, renders --help and
// `help`, answers --version, and turns whatever it cannot take into one usage
// error of the tool's own form. The manual page and the completions are
// generated from the help it renders (cmake/GenerateToolReference.cmake).

#ifndef QUOR_TOOLS_QUOR_STDLIB_COMMANDLINE_H
#define QUOR_TOOLS_QUOR_STDLIB_COMMANDLINE_H

#include "Commands.h"

#include <ostream>
#include <span>

namespace quor::stdlibtool {

// What the full parser made of a command line.
struct ParsedCommandLine {
    // The subcommand to run with `invocation`; nullptr when the run ends
    // here, with `status`: help or the version was printed (ExitSuccess), or a
    // usage error (ExitUsage).
    const Command* command = nullptr;
    Invocation invocation;
    int status = ExitSuccess;
};

// Reads `arguments` (without the program name). Help, the version and usage
// errors ("quor-stdlib: error: <what>", then a hint, on `err`; with --json also
// one error object on `out`) are written here; a subcommand's own output is
// left to its handler.
ParsedCommandLine parseCommandLine(std::span<const char* const> arguments, std::ostream& out,
                                   std::ostream& err);

} // namespace quor::stdlibtool

#endif
