// The command lines that quor-stdlib answers without building its CLI11
// command table: those of the commands the table marks quick (`status` and
// `ensure`, which a compiler's build or an IDE runs on every start), with the
// options the table declares for them and the global ones. The CLI11
// application, its help texts and its validators cost more than the ready
// check they would lead to.
//
// The options are the table's own declarations, checked and converted by the
// same functions the full parser uses, so the two cannot disagree on what an
// option means. Only a command line whose every word is understood here, and
// which the full parser would turn into exactly the same Invocation, is taken;
// anything else (help, --version, another subcommand, an undeclared option, a
// repeated option, a flag given a value, a short option joined to its value or
// to another, a value that is empty or looks like an option, a value the
// option refuses, an invocationProblem()) is left to the full parser, which
// also says what is wrong with it.

#ifndef QUOR_TOOLS_QUOR_STDLIB_QUICKCOMMANDLINE_H
#define QUOR_TOOLS_QUOR_STDLIB_QUICKCOMMANDLINE_H

#include "Commands.h"

#include <optional>
#include <span>

namespace quor::stdlibtool {

struct QuickCommand {
    const Command* command = nullptr;
    Invocation invocation;
};

// The command and its invocation when `arguments` (without the program name)
// is one of the command lines described above; nothing otherwise.
std::optional<QuickCommand> parseQuickCommandLine(std::span<const char* const> arguments);

} // namespace quor::stdlibtool

#endif
