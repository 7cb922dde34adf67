// One build's figures and its stop; see BuildSession.h.

#include "compiler/BuildSession.h"

namespace quor::compiler {

namespace {

thread_local BuildSession* currentSession = nullptr;

} // namespace

PrecompileSummary BuildSession::summary() const {
    std::lock_guard lock(mutex_);
    return summary_;
}

void BuildSession::recordSummary(const PrecompileSummary& summary) {
    std::lock_guard lock(mutex_);
    summary_ = summary;
}

double BuildSession::reportedUnitSeconds() const noexcept {
    return reportedSeconds_.load(std::memory_order_relaxed);
}

void BuildSession::setReportedUnitSeconds(double seconds) noexcept {
    reportedSeconds_.store(seconds, std::memory_order_relaxed);
}

void BuildSession::stopReads() noexcept {
    readsStopped_.store(true, std::memory_order_relaxed);
}

void BuildSession::resumeReads() noexcept {
    readsStopped_.store(false, std::memory_order_relaxed);
}

bool BuildSession::readsStopped() const noexcept {
    return readsStopped_.load(std::memory_order_relaxed);
}

BuildSession* BuildSession::current() noexcept {
    return currentSession;
}

BuildSession::Scope::Scope(BuildSession* session) noexcept : previous_(currentSession) {
    currentSession = session;
}

BuildSession::Scope::~Scope() {
    currentSession = previous_;
}

} // namespace quor::compiler
