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
// measure (compiler::BuildSession::reportedUnitSeconds()): the reports come in batches, so
// the time between them would mostly be nothing, and the first would carry
// the scan of the library.
//
// RemovalProgress draws `prune`'s line on the same terms: only on a terminal,
// as often, and as narrow.

#ifndef QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H
#define QUOR_TOOLS_QUOR_STDLIB_PROGRESS_H

#include "Console.h"
#include "LockHolder.h"

#include "compiler/StandardLibraryBootstrap.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quor::stdlibtool {

enum class ProgressStyle { Terminal, Plain, Json, Silent };

// The shortest time between two frames of a terminal line that are not the
// last: about 20 a second. A frame per unit or per file wrote megabytes to
// the terminal, faster than anyone reads.
inline constexpr std::chrono::milliseconds minimumFrameInterval{50};

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

// The line `prune` redraws on standard error while it removes old versions:
// "[####......] 12345/45600  27%  0:02 elapsed, ~0:05 left  removing 0.1.3",
// counted in files and cut to the terminal's width like ensure's line. Drawn
// only when `shown` (a terminal, neither --json nor --quiet); otherwise every
// call does nothing, so that piped output stays as documented.
class RemovalProgress {
public:
    using Clock = std::chrono::steady_clock;

    RemovalProgress(Console& console, bool shown, std::uint64_t totalFiles);
    ~RemovalProgress(); // erases the line if it is still there
    RemovalProgress(const RemovalProgress&) = delete;
    RemovalProgress& operator=(const RemovalProgress&) = delete;

    // The version whose files go next; drawn at once.
    void removing(const std::string& version);

    // One more file removed; redrawn at most every minimumFrameInterval.
    void removedFile();

    // Draws the last frame, whatever the rate, then erases the line so that
    // the summary starts on a clean line.
    void finish();

private:
    void draw(bool force);

    Console& console_;
    bool shown_;
    std::uint64_t total_;
    std::uint64_t removed_ = 0;
    std::string label_;
    Clock::time_point started_ = Clock::now();
    Clock::time_point lastDraw_{};
    bool lineOpen_ = false;
};

} // namespace quor::stdlibtool

#endif
