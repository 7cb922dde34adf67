// The compiler's source-content cache: every file is read from disk once and
// its text is shared by whoever asks for it afterwards (the bootstrap's header
// test, then the precompiler).

#ifndef QUOR_COMPILER_SOURCEMANAGER_H
#define QUOR_COMPILER_SOURCEMANAGER_H

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace quor::compiler {

class SourceManager {
public:
    // The process-wide cache. Never fails.
    static SourceManager& instance();

    // The whole text of `file`, read on first request and shared afterwards.
    // An empty handle means the file could not be read; that answer is not
    // remembered, so a later call tries again. Safe from any thread.
    std::shared_ptr<const std::string> contents(const std::filesystem::path& file);

    // Forgets every cached text, so that the next request reads from disk.
    void clear();

    SourceManager(const SourceManager&) = delete;
    SourceManager& operator=(const SourceManager&) = delete;

private:
    SourceManager();

    std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<const std::string>> texts_;
    // Files some thread is reading right now; others wait on readDone_ for them.
    std::unordered_set<std::string> reading_;
    std::condition_variable readDone_;
};

} // namespace quor::compiler

#endif
