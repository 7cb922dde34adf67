// The compiler's source-content cache: every file is read from disk once and
// its text is shared by whoever asks for it afterwards (the bootstrap's header
// test, then the precompiler).

#ifndef QUOR_COMPILER_SOURCEMANAGER_H
#define QUOR_COMPILER_SOURCEMANAGER_H

#include "compiler/ServiceError.h"

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace quor::compiler {

// What contents() throws on a thread whose BuildSession has stopped its reads
// (compiler/BuildSession.h).
class ReadsStopped : public ServiceError {
public:
    ReadsStopped() : ServiceError(Category::Stopped, "reading the standard library was stopped") {}
};

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

    // How many texts are cached: what a build's walk of the library has read
    // so far, for a progress display. Safe from any thread.
    std::size_t textCount();

    // Starts reading, on a thread of its own, every regular ".qr" file below
    // `root` that is not reached through a symbolic link, in the order a walk of
    // the tree meets them, so that the requests that follow find their text
    // read already (or being read, and wait for it instead of reading it
    // again). A build calls it before it walks the library: reading the files
    // and walking them then take two processors instead of one. Returns at
    // once and never throws; when no thread can be started nothing is read
    // ahead. Ends a read-ahead that still runs first.
    void readAhead(const std::filesystem::path& root);

    // Stops the read-ahead, if one runs, and waits for its thread. Texts it
    // read stay cached.
    void stopReadAhead();

    ~SourceManager();

    SourceManager(const SourceManager&) = delete;
    SourceManager& operator=(const SourceManager&) = delete;

private:
    SourceManager();

    std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<const std::string>> texts_;
    // Files some thread is reading right now; others wait on readDone_ for them.
    std::unordered_set<std::string> reading_;
    std::condition_variable readDone_;

    // The read-ahead runs on a detached thread, so that a process that ends
    // without stopping it (a child that calls _exit, say) leaves no thread
    // unjoined; its state is shared with that thread and outlives this object
    // if need be. stopReadAhead() waits until the thread no longer uses it.
    struct ReadAheadState {
        std::mutex mutex;
        std::condition_variable done;
        bool running = false; // guarded by mutex
        std::atomic<bool> stop{false};
    };
    std::mutex readAheadMutex_; // one readAhead() or stopReadAhead() at a time
    std::shared_ptr<ReadAheadState> readAhead_;
};

} // namespace quor::compiler

#endif
