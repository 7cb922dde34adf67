// Helpers shared by the service tests: temporary directories, whole-file reads
// and writes, snapshots of directory trees, a scoped runtime configuration, an
// inotify-based counter of how often files are opened, live thread counts, and
// a fanotify gate that holds opens until the test lets them through.

#ifndef QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H
#define QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H

#include "compiler/Runtime.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quor::test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// Creates the parent directories as needed. Fails the test on error.
void writeFile(const fs::path& path, const std::string& text);
std::string readFile(const fs::path& path);

// Every regular file below `root` (relative path -> bytes), symbolic links and
// directories left out.
std::map<std::string, std::string> snapshotTree(const fs::path& root);

// Every entry below `root`, relative path -> what it is: "dir", "link -> <target>",
// "file <mode> <bytes>", or "other <mode>". Two trees with equal results hold the
// same names, kinds, permissions and bytes.
std::map<std::string, std::string> wholeTree(const fs::path& root);

// Relative paths of every entry below `root` whose name contains `needle`.
std::vector<std::string> findNames(const fs::path& root, const std::string& needle);

// Whether thread `tid` of this process is still running: listed in
// /proc/self/task and not yet on its way out (see liveTaskCount()).
bool taskIsLive(pid_t tid);

// The threads of this process that are running, from /proc/self/task. A thread
// that has begun to exit is left out: see the definition for why.
std::size_t liveTaskCount();

// liveTaskCount(), once any helper thread of a sanitizer runtime has been
// started.
std::size_t threadCount();

// Sets the runtime's configuration for the lifetime of the object and puts the
// empty configuration back afterwards.
class ScopedRuntime {
public:
    explicit ScopedRuntime(const compiler::RuntimeConfiguration& configuration);
    ~ScopedRuntime();
    ScopedRuntime(const ScopedRuntime&) = delete;
    ScopedRuntime& operator=(const ScopedRuntime&) = delete;
};

// Sets or unsets one environment variable for the lifetime of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    bool hadValue_ = false;
    std::string oldValue_;
};

// Counts IN_OPEN events, per file, for the files directly inside every
// directory of a tree (the tree as it is when the counter is created).
class OpenCounter {
public:
    explicit OpenCounter(const fs::path& root);
    ~OpenCounter();
    OpenCounter(const OpenCounter&) = delete;
    OpenCounter& operator=(const OpenCounter&) = delete;

    // Drains the pending events; returns the opens per path relative to the root.
    std::map<std::string, int> collect();

private:
    int fd_ = -1;
    std::map<int, std::string> directories_; // watch descriptor -> relative directory
};

// Holds every open of a file directly inside one directory until the test lets
// it through, through fanotify permission events, so that a test can decide
// which thread goes on and when. Needs CAP_SYS_ADMIN; `active()` says whether
// it works, and `why()` why not. Whatever is still held when the gate goes is
// let through by the kernel.
class OpenGate {
public:
    explicit OpenGate(const fs::path& directory);
    ~OpenGate();
    OpenGate(const OpenGate&) = delete;
    OpenGate& operator=(const OpenGate&) = delete;

    bool active() const { return fd_ >= 0; }
    const std::string& why() const { return why_; }

    // One open, held until allow().
    struct HeldOpen {
        int fd = -1;   // the kernel's descriptor of the file being opened
        pid_t tid = 0; // the thread that opens it
        std::string path;
    };

    // The next open, held; nothing when none comes within `limit`.
    std::optional<HeldOpen> next(std::chrono::milliseconds limit);

    // Lets a held open through.
    void allow(HeldOpen& held);

    // Holds opens until `target` are pending or none has come for `quiet`,
    // then runs `whileHeld` and lets every open through until `finished`.
    // Returns how many opens were held at once.
    std::size_t run(std::size_t target, std::chrono::milliseconds quiet,
                    const std::function<void()>& whileHeld, const std::atomic<bool>& finished);

private:
    bool receive(std::chrono::milliseconds limit);

    int fd_ = -1;
    std::string why_;
    std::deque<HeldOpen> received_; // read from the kernel, not yet handed out
};

} // namespace quor::test

#endif
