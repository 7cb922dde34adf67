// How `ensure` shows the bootstrap's progress reports. One view per run, fed
// from a single thread:
//   Terminal  one line on standard error, redrawn in place ("\r", then erase
//             to the end of the line) at most 20 times a second, and always
//             for the last report: while the library is scanned, how many
//             units were read; then bar, k/n, percent, elapsed time, an
//             estimate of what remains (from the compile phase alone) and the
//             unit's package; then what the build does after its last unit.
//             A narrow terminal gets a shorter bar first, then fewer fields;
//             k/n and the percentage stay;
//   Plain     a line on standard error now and then (every 10 % of the units
//             or every second, whichever comes first), never a redraw;
//   Json      one JSON object per report on standard output (JSON Lines),
//             a unit's with the unit's time;
//   Silent    nothing (--quiet).
// With showUnitTimes() (`ensure --verbose`), Terminal and Plain also write a
// line on standard error for every unit with its time, and reportSlowest()
// lists the units that took longest. A unit's time is the precompiler's own
// measure (compiler::reportedUnitSeconds()): the reports come in batches, so
// the time between them would mostly be nothing, and the first would carry
// the scan of the library.

#ifndef QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H
#define QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H

#include "Console.h"
#include "LockHolder.h"

#include "compiler/StandardLibraryBootstrap.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quor::stdlibtool {

enum class ProgressStyle { Terminal, Plain, Json, Silent };

class ProgressView {
public:
    using Clock = std::chrono::steady_clock;

    ProgressView(Console& console, ProgressStyle style);

    // One report of the bootstrap, in the order they were sent; for a
    // Compiling report, `unitSeconds` is the time the precompiler spent on
    // the unit.
    void report(const compiler::StandardLibraryBootstrapProgress& progress, double unitSeconds = 0);

    // Shows a line per unit with its time (--verbose), the unit named by its
    // path below `library`.
    void showUnitTimes(std::filesystem::path library);

    // With showUnitTimes(): the slowest units of the build, at most ten,
    // slowest first; nothing when no unit was reported.
    void reportSlowest();

    // Redraws the terminal line so that its clock moves while a unit compiles.
    void tick();

    // The build lock is held by `holder`; said once per distinct holder.
    void waitingFor(const LockHolder& holder, const std::filesystem::path& lockFile);

    // Erases the terminal line, so that what follows starts on a clean line.
    void close();

    // The name shown for a unit: its package, or its file name for a unit
    // directly in the library root.
    static std::string unitLabel(const compiler::StandardLibraryBootstrapProgress& progress);

    // Where the count of units read comes from while the library is scanned.
    void countUnitsReadWith(std::function<std::size_t()> unitsRead);

    // What the terminal line shows.
    struct Line {
        std::size_t completed = 0;
        std::size_t total = 0; // 0 while the library is scanned
        std::string label;     // the unit's package, or what the build does now
        double elapsedSeconds = 0;
        std::optional<double> remainingSeconds;
    };

    // The terminal line, at most `columns` - 1 characters wide: the bar shrinks
    // first, then the label, the estimate, the elapsed time and the bar go, in
    // that order; "k/n pct%" is cut only when nothing else is left.
    static std::string renderLine(const Line& line, unsigned columns);

    // The line while compiling, with the estimate drawn from `elapsedSeconds`
    // as time spent on the `completed` units.
    static std::string renderLine(std::size_t completed, std::size_t total,
                                  const std::string& label, double elapsedSeconds,
                                  unsigned columns);

private:
    void draw(bool force);
    // The verbose line of one unit, which took `seconds`.
    void unitLine(const compiler::StandardLibraryBootstrapProgress& progress, double seconds);

    Console& console_;
    ProgressStyle style_;
    Clock::time_point started_ = Clock::now();
    std::optional<Clock::time_point> compileStarted_; // the first unit's report
    Clock::time_point lastDraw_{};
    std::function<std::size_t()> unitsRead_;
    bool scanning_ = false;
    Clock::time_point lastPlainLine_{};
    std::size_t lastPlainCompleted_ = 0;
    std::size_t completed_ = 0;
    std::size_t total_ = 0;
    std::string label_;
    bool lineOpen_ = false;
    bool compiling_ = false;
    pid_t announcedHolder_ = 0;
    bool announcedBuild_ = false;
    std::optional<std::filesystem::path> unitTimesBelow_; // the library, under --verbose
    struct UnitTime {
        std::string unit;
        double seconds = 0;
    };
    std::vector<UnitTime> unitTimes_;
};

} // namespace quor::stdlibtool

#endif
