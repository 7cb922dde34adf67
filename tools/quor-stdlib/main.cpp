// quor-stdlib: examine, prepare and prune the Quor standard-library cache.
// This file only makes the process safe to work in, turns the command line
// into an Invocation (QuickCommandLine.h, else CommandLine.h) and calls the
// subcommand's handler from the command table; the work is in the handlers.

#include "CommandLine.h"
#include "Commands.h"
#include "Console.h"
#include "QuickCommandLine.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <iostream>
#include <span>
#include <unistd.h>

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

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors(); // first: nothing may be opened before it
    survivePipeClosing();
    const std::span<const char* const> arguments(static_cast<const char* const*>(argv) + 1,
                                                 static_cast<std::size_t>(argc > 0 ? argc - 1 : 0));
    // `ensure` and `status` run on every compiler start; when their command
    // line is a plain one, the full parser is not built at all.
    if (const auto quick = parseQuickCommandLine(arguments)) {
        Console console = Console::forProcess(quick->invocation.global.color);
        return quick->command->handler(quick->invocation, console);
    }
    ParsedCommandLine parsed = parseCommandLine(arguments, std::cout, std::cerr);
    if (parsed.command == nullptr)
        return parsed.status;
    Console console = Console::forProcess(parsed.invocation.global.color);
    return parsed.command->handler(parsed.invocation, console);
}
