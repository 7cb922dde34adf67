// How `ensure` shows the bootstrap's progress reports. One view per run, fed
// from a single thread:
//   Terminal  one line on standard error, redrawn in place ("\r", then erase
//             to the end of the line): bar, k/n, percent, the unit's package,
//             elapsed time and an estimate of what remains;
//   Plain     a line on standard error now and then (every 10 % of the units
//             or every second, whichever comes first), never a redraw;
//   Json      one JSON object per report on standard output (JSON Lines);
//   Silent    nothing (--quiet).

#ifndef QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H
#define QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H

#include "Console.h"
#include "LockHolder.h"

#include "compiler/StandardLibraryBootstrap.h"

#include <chrono>
#include <filesystem>
#include <string>

namespace quor::stdlibtool {

enum class ProgressStyle { Terminal, Plain, Json, Silent };

class ProgressView {
public:
    using Clock = std::chrono::steady_clock;

    ProgressView(Console& console, ProgressStyle style);

    // One report of the bootstrap, in the order they were sent.
    void report(const compiler::StandardLibraryBootstrapProgress& progress);

    // Redraws the terminal line so that its clock moves while a unit compiles.
    void tick();

    // The build lock is held by `holder`; said once per distinct holder.
    void waitingFor(const LockHolder& holder, const std::filesystem::path& lockFile);

    // Erases the terminal line, so that what follows starts on a clean line.
    void close();

    // The name shown for a unit: its package, or its file name for a unit
    // directly in the library root.
    static std::string unitLabel(const compiler::StandardLibraryBootstrapProgress& progress);

    // The terminal line for the given counts, cut to `columns` - 1 characters.
    static std::string renderLine(std::size_t completed, std::size_t total,
                                  const std::string& label, double elapsedSeconds,
                                  unsigned columns);

private:
    void draw();

    Console& console_;
    ProgressStyle style_;
    Clock::time_point started_ = Clock::now();
    Clock::time_point lastPlainLine_{};
    std::size_t lastPlainCompleted_ = 0;
    std::size_t completed_ = 0;
    std::size_t total_ = 0;
    std::string label_;
    bool lineOpen_ = false;
    bool compiling_ = false;
    pid_t announcedHolder_ = 0;
};

} // namespace quor::stdlibtool

#endif
