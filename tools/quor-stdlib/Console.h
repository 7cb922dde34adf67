// Where quor-stdlib writes: standard output for results, standard error for
// progress and diagnostics, each with its own answer to "is this a terminal"
// and "may I use colour". Tests build a Console over string streams, which is
// never a terminal and never coloured.

#ifndef QUOR_TOOLS_QUOR_STDLIB_CONSOLE_H
#define QUOR_TOOLS_QUOR_STDLIB_CONSOLE_H

#include "Commands.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace quor::stdlibtool {

enum class Color { Red, Green, Yellow, Bold, Dim };

class Console {
public:
    // Over arbitrary streams: no terminal, no colour.
    Console(std::ostream& out, std::ostream& err);

    // Over std::cout and std::cerr. A stream is a terminal when isatty() says so
    // for its descriptor. Colour: Always colours both streams; Never colours
    // neither; Auto colours a stream only when it is a terminal, NO_COLOR is
    // unset or empty, and TERM is not "dumb".
    static Console forProcess(ColorMode mode);

    std::ostream& out() { return out_; }
    std::ostream& err() { return err_; }
    bool errIsTerminal() const { return errIsTerminal_; }

    // Columns of the terminal on standard error; 80 when unknown.
    unsigned errColumns() const;

    // `text` wrapped in the colour's escape sequences when that stream is coloured.
    std::string paintOut(std::string_view text, Color color) const;
    std::string paintErr(std::string_view text, Color color) const;

    // "quor-stdlib: error: <message>" on standard error, the message passed
    // through visible(): messages carry paths and words from outside.
    void error(std::string_view message);
    // "quor-stdlib: <message>" on standard error, likewise made visible.
    void note(std::string_view message);

    // Flushes standard output and tells whether something written to it was
    // lost: its reader went away (main() catches SIGPIPE, so the write fails
    // with EPIPE instead of ending the process) or the write failed otherwise.
    // Later writes to a lost stream are dropped without a word.
    bool outLost();

    // What a handler returns when it is done. A success whose output was lost
    // becomes ExitOutputClosed, after "standard output was closed; <outcome>"
    // on standard error, so that the loss is never silent; any other status
    // is returned unchanged, since its own message already says what happened.
    int finish(int status, std::string_view outcome);

private:
    Console(std::ostream& out, std::ostream& err, bool errIsTerminal, bool colorOut, bool colorErr);

    std::ostream& out_;
    std::ostream& err_;
    bool errIsTerminal_ = false;
    bool colorOut_ = false;
    bool colorErr_ = false;
};

// `text` made safe to print on a terminal: ASCII control characters and DEL
// become "\x1b", C1 control characters (U+0080 to U+009F) "\u009b", and each
// byte that is not part of well-formed UTF-8 "\xff". Printable ASCII and
// other well-formed UTF-8 are kept. The result is printable ASCII or UTF-8
// only, so applying it again changes nothing.
std::string visible(std::string_view text);

// "512 B", "12.0 KiB", "3.4 MiB", "1.2 GiB".
std::string formatBytes(std::uint64_t bytes);

// "0.42 s", "12.3 s", "2 min 05 s", "1 h 02 min".
std::string formatDuration(double seconds);

// Clock style for the progress line: "7.4s", "12:34", "1:02:03".
std::string formatClock(double seconds);

} // namespace quor::stdlibtool

#endif
