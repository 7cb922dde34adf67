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

    // "quor-stdlib: error: <message>" on standard error.
    void error(std::string_view message);
    // "quor-stdlib: <message>" on standard error.
    void note(std::string_view message);

private:
    Console(std::ostream& out, std::ostream& err, bool errIsTerminal, bool colorOut, bool colorErr);

    std::ostream& out_;
    std::ostream& err_;
    bool errIsTerminal_ = false;
    bool colorOut_ = false;
    bool colorErr_ = false;
};

// "512 B", "12.0 KiB", "3.4 MiB", "1.2 GiB".
std::string formatBytes(std::uint64_t bytes);

// "0.42 s", "12.3 s", "2 min 05 s", "1 h 02 min".
std::string formatDuration(double seconds);

// Clock style for the progress line: "7.4s", "12:34", "1:02:03".
std::string formatClock(double seconds);

} // namespace quor::stdlibtool

#endif
