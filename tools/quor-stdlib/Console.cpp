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
    err_ << "quor-stdlib: " << paintErr("error:", Color::Red) << ' ' << visible(message)
         << std::endl;
}

void Console::note(std::string_view message) {
    err_ << "quor-stdlib: " << visible(message) << std::endl;
}

bool Console::outLost() {
    out_.flush();
    return out_.fail();
}

int Console::finish(int status, std::string_view outcome) {
    if (status != ExitSuccess || !outLost())
        return status;
    note("standard output was closed; " + std::string(outcome));
    return ExitOutputClosed;
}

namespace {

// The length of the well-formed UTF-8 sequence at the start of `text` that
// encodes a character other than a C1 control, or 0. Overlong forms,
// surrogates and code points above U+10FFFF are not well-formed.
std::size_t printableSequence(std::string_view text) {
    const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF; // the allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF)
        length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF)
        length = 3;
    else if (lead >= 0xF0 && lead <= 0xF4)
        length = 4;
    else
        return 0;
    if (lead == 0xE0)
        low = 0xA0;
    else if (lead == 0xED)
        high = 0x9F;
    else if (lead == 0xF0)
        low = 0x90;
    else if (lead == 0xF4)
        high = 0x8F;
    if (text.size() < length || byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    if (lead == 0xC2 && byte(1) <= 0x9F)
        return 0; // U+0080 to U+009F: C1 controls, which terminals obey
    return length;
}

} // namespace

std::string visible(std::string_view text) {
    static const char digits[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x7F) {
            result += static_cast<char>(byte);
            ++i;
            continue;
        }
        if (const std::size_t length = printableSequence(text.substr(i))) {
            result.append(text.substr(i, length));
            i += length;
            continue;
        }
        if (byte == 0xC2 && i + 1 < text.size()) {
            const auto next = static_cast<unsigned char>(text[i + 1]);
            if (next >= 0x80 && next <= 0x9F) {
                result += "\\u00";
                result += digits[next >> 4];
                result += digits[next & 0xF];
                i += 2;
                continue;
            }
        }
        result += "\\x";
        result += digits[byte >> 4];
        result += digits[byte & 0xF];
        ++i;
    }
    return result;
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
