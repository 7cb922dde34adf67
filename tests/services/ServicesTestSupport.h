// Helpers of the service tests alone: a scoped runtime configuration, an
// inotify-based counter of how often files are opened, live thread counts, and
// a fanotify gate that holds opens until the test lets them through. Scratch
// directories, files, tree listings, the environment, failures and children
// come from tests/support, named here once.

#ifndef QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H
#define QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H

#include "compiler/Runtime.h"
#include "tests/support/ChildChecks.h"
#include "tests/support/Environment.h"
#include "tests/support/Errors.h"
#include "tests/support/Files.h"
#include "tests/support/Processes.h"

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

// What the service tests take from tests/support.
using testsupport::becomeNobody;
using testsupport::ChildResult;
using testsupport::findNames;
using testsupport::giveToNobody;
using testsupport::readFile;
using testsupport::runInChild;
using testsupport::runtimeErrorOf;
using testsupport::ScopedEnvironment;
using testsupport::snapshotTree;
using testsupport::TemporaryDirectory;
using testsupport::wholeTree;
using testsupport::writeFile;

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

// A standard library as unit path -> text, for the tests that build real
// libraries through the bootstrap and the services.
using Library = std::map<std::string, std::string>;

// The text of a compilable unit at `path` (its package from its folders, one
// struct and one function named after it), followed by `extra`.
std::string unitText(const std::string& path, const std::string& extra = "");

// Replaces the tree at `root` with `library` and a fingerprint of its own,
// readable by everyone.
void materialiseLibrary(const fs::path& root, const Library& library);

} // namespace quor::test

#endif
