// The Console's terminal and colour decisions, and the number formats that
// every subcommand shares.

#include "Console.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

bool colorAllowedByEnvironment() {
    const char* noColor = std::getenv("NO_COLOR");
    if (noColor != nullptr && noColor[0] != '\0')
        return false;
    const char* term = std::getenv("TERM");
    return term == nullptr || std::strcmp(term, "dumb") != 0;
}

bool useColor(ColorMode mode, bool isTerminal) {
    switch (mode) {
    case ColorMode::Always:
        return true;
    case ColorMode::Never:
        return false;
    case ColorMode::Auto:
        break;
    }
    return isTerminal && colorAllowedByEnvironment();
}

std::string paint(std::string_view text, Color color, bool enabled) {
    if (!enabled)
        return std::string(text);
    const char* code = "";
    switch (color) {
    case Color::Red:
        code = "\033[31m";
        break;
    case Color::Green:
        code = "\033[32m";
        break;
    case Color::Yellow:
        code = "\033[33m";
        break;
    case Color::Bold:
        code = "\033[1m";
        break;
    case Color::Dim:
        code = "\033[2m";
        break;
    }
    return std::string(code) + std::string(text) + "\033[0m";
}

} // namespace

Console::Console(std::ostream& out, std::ostream& err) : Console(out, err, false, false, false) {}

Console::Console(std::ostream& out, std::ostream& err, bool errIsTerminal, bool colorOut,
                 bool colorErr)
    : out_(out), err_(err), errIsTerminal_(errIsTerminal), colorOut_(colorOut),
      colorErr_(colorErr) {}

Console Console::forProcess(ColorMode mode) {
    const bool outTerminal = isatty(STDOUT_FILENO) == 1;
    const bool errTerminal = isatty(STDERR_FILENO) == 1;
    return Console(std::cout, std::cerr, errTerminal, useColor(mode, outTerminal),
                   useColor(mode, errTerminal));
}

unsigned Console::errColumns() const {
    winsize size{};
    if (errIsTerminal_ && ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

std::string Console::paintOut(std::string_view text, Color color) const {
    return paint(text, color, colorOut_);
}

std::string Console::paintErr(std::string_view text, Color color) const {
    return paint(text, color, colorErr_);
}

void Console::error(std::string_view message) {
    err_ << "quor-stdlib: " << paintErr("error:", Color::Red) << ' ' << message << std::endl;
}

void Console::note(std::string_view message) {
    err_ << "quor-stdlib: " << message << std::endl;
}

std::string formatBytes(std::uint64_t bytes) {
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

std::string formatDuration(double seconds) {
    if (!(seconds >= 0.0))
        seconds = 0.0;
    char text[48];
    if (seconds < 10.0)
        std::snprintf(text, sizeof text, "%.2f s", seconds);
    else if (seconds < 60.0)
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    else if (seconds < 3600.0) {
        const auto whole = static_cast<long long>(std::llround(seconds));
        std::snprintf(text, sizeof text, "%lld min %02lld s", whole / 60, whole % 60);
    } else {
        const auto minutes = static_cast<long long>(std::llround(seconds / 60.0));
        std::snprintf(text, sizeof text, "%lld h %02lld min", minutes / 60, minutes % 60);
    }
    return text;
}

std::string formatClock(double seconds) {
    if (!(seconds >= 0.0))
        seconds = 0.0;
    const auto whole = static_cast<long long>(seconds);
    char text[32];
    if (whole < 60)
        std::snprintf(text, sizeof text, "%.1fs", seconds);
    else if (whole >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    return text;
}

} // namespace quor::stdlibtool
