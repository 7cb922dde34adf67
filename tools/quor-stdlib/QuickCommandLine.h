// The command lines that quor-stdlib answers without building its CLI11
// command table: `ensure` and `status --check` with the global options, as a
// compiler's build or an IDE runs them on every start. The table, its help
// texts and its validators cost more than the ready check they would lead to.
//
// Only a command line whose every word is understood here, and which CLI11
// would turn into exactly the same Invocation, is taken; anything else (help,
// --version, another subcommand or option, a repeated option, a value that
// looks like an option) is left to the full parser, which also says what is
// wrong with it.

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
