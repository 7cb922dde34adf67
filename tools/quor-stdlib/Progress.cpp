// The three renderings of the bootstrap's progress reports.

#include "Progress.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

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

std::string ProgressView::renderLine(std::size_t completed, std::size_t total,
                                     const std::string& label, double elapsedSeconds,
                                     unsigned columns) {
    constexpr std::size_t barWidth = 20;
    const std::size_t filled = total == 0 ? 0 : completed * barWidth / total;
    std::string line = "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "] ";
    if (total == 0) {
        line += "preparing the build  " + formatClock(elapsedSeconds);
        if (columns > 1 && line.size() > columns - 1)
            line.resize(columns - 1);
        return line;
    }
    char counts[64];
    std::snprintf(counts, sizeof counts, "%zu/%zu %3u%%", completed, total,
                  percentOf(completed, total));
    line += counts;
    line += "  " + formatClock(elapsedSeconds) + " elapsed";
    if (completed > 0 && completed < total) {
        const double remaining = elapsedSeconds / static_cast<double>(completed) *
                                 static_cast<double>(total - completed);
        line += ", ~" + formatClock(remaining) + " left";
    }
    if (!label.empty())
        line += "  " + label;
    if (columns > 1 && line.size() > columns - 1)
        line.resize(columns - 1);
    return line;
}

void ProgressView::report(const compiler::StandardLibraryBootstrapProgress& progress) {
    if (style_ == ProgressStyle::Silent)
        return;
    if (style_ == ProgressStyle::Json) {
        nlohmann::ordered_json event = {
            {"event", "progress"},
            {"stage", stageName(progress.stage)},
            {"completed", progress.completed},
            {"total", progress.total},
            {"sourcePath", progress.sourcePath},
            {"displayName", progress.displayName},
        };
        console_.out() << jsonText(event) << std::endl;
        return;
    }
    switch (progress.stage) {
    case StandardLibraryBootstrapStage::Preparing:
        started_ = Clock::now();
        if (style_ == ProgressStyle::Plain)
            console_.note("building the standard library");
        label_ = "preparing";
        draw();
        return;
    case StandardLibraryBootstrapStage::Compiling:
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
        draw();
        return;
    }
    // Plain: a line at every tenth of the units or every second, and the last one.
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

void ProgressView::tick() {
    if (style_ == ProgressStyle::Terminal && lineOpen_)
        draw();
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

void ProgressView::draw() {
    if (style_ != ProgressStyle::Terminal)
        return;
    console_.err() << "\r\033[K"
                   << renderLine(completed_, total_, label_, secondsSince(started_),
                                 console_.errColumns())
                   << std::flush;
    lineOpen_ = true;
}

void ProgressView::close() {
    if (style_ == ProgressStyle::Terminal && lineOpen_) {
        console_.err() << "\r\033[K" << std::flush;
        lineOpen_ = false;
    }
}

} // namespace quor::stdlibtool
