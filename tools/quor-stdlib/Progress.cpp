// The three renderings of the bootstrap's progress reports, and prune's line.

#include "Progress.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace quor::stdlibtool {

namespace {

using compiler::StandardLibraryBootstrapStage;

std::string_view stageName(StandardLibraryBootstrapStage stage) {
    switch (stage) {
    case StandardLibraryBootstrapStage::Preparing:
        return "Preparing";
    case StandardLibraryBootstrapStage::Compiling:
        return "Compiling";
    case StandardLibraryBootstrapStage::Finished:
        return "Finished";
    }
    return "Unknown";
}

double secondsSince(ProgressView::Clock::time_point start) {
    return std::chrono::duration<double>(ProgressView::Clock::now() - start).count();
}

// A unit's time, nine characters wide so that a column of them lines up:
// "   0.4 ms", "  21.3 ms", "   1.25 s". Most units take well under a
// millisecond, which seconds with three decimals would show as nothing.
std::string unitTime(double seconds) {
    char text[32];
    if (seconds < 1.0)
        std::snprintf(text, sizeof text, "%6.1f ms", seconds * 1000.0);
    else
        std::snprintf(text, sizeof text, "%7.2f s", seconds);
    return text;
}

unsigned percentOf(std::size_t completed, std::size_t total) {
    return total == 0 ? 0u : static_cast<unsigned>(completed * 100 / total);
}

} // namespace

ProgressView::ProgressView(Console& console, ProgressStyle style)
    : console_(console), style_(style) {}

std::string ProgressView::unitLabel(const compiler::StandardLibraryBootstrapProgress& progress) {
    if (!progress.displayName.empty())
        return progress.displayName;
    return std::filesystem::path(progress.sourcePath).filename().string();
}

void ProgressView::countUnitsReadWith(std::function<std::size_t()> unitsRead) {
    unitsRead_ = std::move(unitsRead);
}

std::string ProgressView::renderLine(const Line& line, unsigned columns) {
    const std::size_t width = columns > 1 ? columns - 1 : std::string::npos;
    if (line.total == 0) {
        std::string text = line.label.empty() ? std::string("preparing the build") : line.label;
        const std::string clock = "  " + formatClock(line.elapsedSeconds);
        if (text.size() + clock.size() <= width)
            text += clock;
        if (text.size() > width)
            text.resize(width);
        return text;
    }
    char counts[64];
    std::snprintf(counts, sizeof counts, "%zu/%zu %3u%%", line.completed, line.total,
                  percentOf(line.completed, line.total));
    const std::string elapsed = "  " + formatClock(line.elapsedSeconds) + " elapsed";
    const std::string left =
        line.remainingSeconds ? ", ~" + formatClock(*line.remainingSeconds) + " left" : "";
    const std::string label = line.label.empty() ? "" : "  " + line.label;
    const auto bar = [&](std::size_t barWidth) {
        if (barWidth == 0)
            return std::string();
        const std::size_t filled = line.completed * barWidth / line.total;
        return "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "] ";
    };
    // Fields go from the least useful on: the label, the estimate, the elapsed
    // time, then the bar; before any of them goes, the bar shrinks to 5.
    struct Fit {
        bool label, left, elapsed, bar;
    };
    constexpr Fit fits[] = {{true, true, true, true},
                            {false, true, true, true},
                            {false, false, true, true},
                            {false, false, false, true},
                            {false, false, false, false}};
    for (const Fit& fit : fits) {
        std::string tail = std::string(counts) + (fit.elapsed ? elapsed : "") +
                           (fit.elapsed && fit.left ? left : "") + (fit.label ? label : "");
        if (!fit.bar) {
            if (tail.size() <= width)
                return tail;
            break;
        }
        for (std::size_t barWidth = 20; barWidth >= 5; --barWidth) {
            std::string text = bar(barWidth) + tail;
            if (text.size() <= width)
                return text;
        }
    }
    std::string text = counts;
    if (text.size() > width)
        text.resize(width);
    return text;
}

std::string ProgressView::renderLine(std::size_t completed, std::size_t total,
                                     const std::string& label, double elapsedSeconds,
                                     unsigned columns) {
    Line line{completed, total, label, elapsedSeconds, std::nullopt};
    if (completed > 0 && completed < total)
        line.remainingSeconds = elapsedSeconds / static_cast<double>(completed) *
                                static_cast<double>(total - completed);
    return renderLine(line, columns);
}

void ProgressView::showUnitTimes(std::filesystem::path library) {
    unitTimesBelow_ = std::move(library);
}

void ProgressView::report(const compiler::StandardLibraryBootstrapProgress& progress,
                          double unitSeconds) {
    if (style_ == ProgressStyle::Silent)
        return;
    const bool unit = progress.stage == StandardLibraryBootstrapStage::Compiling;
    if (style_ == ProgressStyle::Json) {
        nlohmann::ordered_json event = {
            {"event", "progress"},
            {"stage", stageName(progress.stage)},
            {"completed", progress.completed},
            {"total", progress.total},
            {"sourcePath", progress.sourcePath},
            {"displayName", progress.displayName},
            {"seconds", unit ? nlohmann::ordered_json(unitSeconds) : nlohmann::ordered_json()},
        };
        console_.out() << jsonText(event) << std::endl;
        return;
    }
    switch (progress.stage) {
    case StandardLibraryBootstrapStage::Preparing:
        started_ = Clock::now();
        scanning_ = true;
        draw(true);
        return;
    case StandardLibraryBootstrapStage::Compiling:
        if (!compileStarted_) {
            compileStarted_ = Clock::now();
            lineOpen_ = false; // the scan is over: its line gives way at once
        }
        // Said only now: after Preparing, the walk of the library can still
        // find it missing or with no unit to compile, and nothing is built.
        // (A cache found ready, before or under the lock, gets no report.)
        if (style_ == ProgressStyle::Plain && !announcedBuild_) {
            console_.note("building the standard library");
            announcedBuild_ = true;
        }
        if (unitTimesBelow_)
            unitLine(progress, unitSeconds);
        scanning_ = false;
        completed_ = progress.completed;
        total_ = progress.total;
        // A file or folder name may hold anything; made visible before the
        // line is cut to the terminal's width, which counts what is shown.
        label_ = visible(unitLabel(progress));
        break;
    case StandardLibraryBootstrapStage::Finished:
        completed_ = progress.completed;
        total_ = progress.total;
        label_.clear();
        break;
    }
    if (style_ == ProgressStyle::Terminal) {
        // The last unit's line must show, whatever the rate: what follows is
        // the wait for the disk.
        draw(completed_ == total_ || progress.stage == StandardLibraryBootstrapStage::Finished);
        return;
    }
    // Plain: a line at every tenth of the units or every second, and the last
    // one; under --verbose every unit has its line already.
    if (unitTimesBelow_)
        return;
    const auto now = Clock::now();
    const bool stepped =
        percentOf(completed_, total_) / 10 != percentOf(lastPlainCompleted_, total_) / 10;
    const bool due = now - lastPlainLine_ >= std::chrono::seconds(1);
    const bool last = progress.stage == StandardLibraryBootstrapStage::Compiling &&
                      completed_ == total_ && lastPlainCompleted_ != completed_;
    if (progress.stage == StandardLibraryBootstrapStage::Compiling && (stepped || due || last)) {
        char counts[64];
        std::snprintf(counts, sizeof counts, "%zu/%zu (%u%%)", completed_, total_,
                      percentOf(completed_, total_));
        console_.note(std::string("compiled ") + counts + " " + label_);
        lastPlainLine_ = now;
        lastPlainCompleted_ = completed_;
    }
}

void ProgressView::unitLine(const compiler::StandardLibraryBootstrapProgress& progress,
                            double seconds) {
    std::string unit = progress.sourcePath;
    const std::filesystem::path relative =
        std::filesystem::path(progress.sourcePath).lexically_relative(*unitTimesBelow_);
    if (!relative.empty() && *relative.begin() != "..")
        unit = relative.string();
    unitTimes_.push_back({unit, seconds});
    const std::string total = std::to_string(progress.total);
    char counts[64];
    std::snprintf(counts, sizeof counts, "%*zu/%s ", static_cast<int>(total.size()),
                  progress.completed, total.c_str());
    close();
    console_.note(counts + unitTime(seconds) + "  " + unit);
}

void ProgressView::reportSlowest() {
    if (!unitTimesBelow_ || unitTimes_.empty() || style_ == ProgressStyle::Silent ||
        style_ == ProgressStyle::Json)
        return;
    constexpr std::size_t shown = 10;
    const std::size_t count = std::min(shown, unitTimes_.size());
    // Stable: of units that took as long, the one reported first comes first.
    std::stable_sort(unitTimes_.begin(), unitTimes_.end(),
                     [](const UnitTime& a, const UnitTime& b) { return a.seconds > b.seconds; });
    close();
    console_.note(count == 1 ? "slowest unit:" : "slowest " + std::to_string(count) + " units:");
    for (std::size_t i = 0; i < count; ++i) {
        console_.note(unitTime(unitTimes_[i].seconds) + "  " + unitTimes_[i].unit);
    }
}

void ProgressView::tick() {
    if (style_ == ProgressStyle::Terminal && lineOpen_)
        draw(true);
}

void ProgressView::waitingFor(const LockHolder& holder, const std::filesystem::path& lockFile) {
    if (style_ == ProgressStyle::Silent || holder.pid == announcedHolder_)
        return;
    announcedHolder_ = holder.pid;
    if (style_ == ProgressStyle::Json) {
        nlohmann::ordered_json event = {{"event", "waiting"},
                                        {"pid", holder.pid},
                                        {"command", holder.command},
                                        {"lockFile", lockFile.string()}};
        console_.out() << jsonText(event) << std::endl;
        return;
    }
    close();
    console_.note("waiting for " + describe(holder) +
                  ", which holds the standard-library build lock " + lockFile.string());
}

void ProgressView::draw(bool force) {
    if (style_ != ProgressStyle::Terminal)
        return;
    const auto now = Clock::now();
    if (!force && lineOpen_ && now - lastDraw_ < minimumFrameInterval)
        return;
    lastDraw_ = now;
    Line line;
    line.completed = completed_;
    line.total = total_;
    line.elapsedSeconds = secondsSince(started_);
    if (scanning_) {
        line.total = 0;
        line.label = "scanning the library";
        if (unitsRead_)
            line.label += ": " + std::to_string(unitsRead_()) + " units read";
    } else if (total_ != 0 && completed_ == total_) {
        // The objects are made durable and the marker published; on a large
        // library that takes a moment after the last unit.
        line.label = "writing to disk and publishing";
    } else {
        line.label = label_;
        if (compileStarted_ && completed_ > 0) {
            const double compiling = secondsSince(*compileStarted_);
            line.remainingSeconds = compiling / static_cast<double>(completed_) *
                                    static_cast<double>(total_ - completed_);
        }
    }
    console_.err() << "\r\033[K" << renderLine(line, console_.errColumns()) << std::flush;
    lineOpen_ = true;
}

void ProgressView::close() {
    if (style_ == ProgressStyle::Terminal && lineOpen_) {
        console_.err() << "\r\033[K" << std::flush;
        lineOpen_ = false;
    }
}

RemovalProgress::RemovalProgress(Console& console, bool shown, std::uint64_t totalFiles)
    : console_(console), shown_(shown), total_(totalFiles) {}

RemovalProgress::~RemovalProgress() {
    if (lineOpen_)
        console_.err() << "\r\033[K" << std::flush;
}

void RemovalProgress::removing(const std::string& version) {
    // A version name is a directory name; made visible before the line is
    // cut to the terminal's width.
    label_ = "removing " + visible(version);
    draw(true);
}

void RemovalProgress::removedFile() {
    ++removed_;
    draw(false);
}

void RemovalProgress::finish() {
    if (!shown_)
        return;
    draw(true);
    console_.err() << "\r\033[K" << std::flush;
    lineOpen_ = false;
}

void RemovalProgress::draw(bool force) {
    if (!shown_)
        return;
    const auto now = Clock::now();
    if (!force && lineOpen_ && now - lastDraw_ < minimumFrameInterval)
        return;
    lastDraw_ = now;
    // Files created after the listing count too; the total never shows less
    // than what is done.
    const std::uint64_t total = std::max(total_, removed_);
    console_.err() << "\r\033[K"
                   << ProgressView::renderLine(static_cast<std::size_t>(removed_),
                                               static_cast<std::size_t>(total), label_,
                                               secondsSince(started_), console_.errColumns())
                   << std::flush;
    lineOpen_ = true;
}

} // namespace quor::stdlibtool
