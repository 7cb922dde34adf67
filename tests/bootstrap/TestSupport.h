// Helpers shared by the bootstrap tests: scratch directories, small file
// utilities, forked children, lock probes, and a progress callback that writes
// every report into the fakes' call log.

#ifndef QUOR_TESTS_BOOTSTRAP_TESTSUPPORT_H
#define QUOR_TESTS_BOOTSTRAP_TESTSUPPORT_H

#include "compiler/StandardLibraryBootstrap.h"

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace quor::testing {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// Writes `bytes` exactly, creating missing parent directories.
void writeFile(const fs::path& file, const std::string& bytes);

// The whole file, or an empty string when it cannot be read.
std::string readFile(const fs::path& file);

// Every path below `root` (not following links), relative to it.
std::set<std::string> treeSnapshot(const fs::path& root);

// Runs `body` in a forked child and returns its exit status, or 128 + signal
// number when it was killed. The child leaves through _exit() only; an
// exception in `body` becomes exit status 99.
int runInChild(const std::function<int()>& body);

// Starts `body` in a forked child and returns its process id without waiting.
pid_t startChild(const std::function<int()>& body);

// Exit status (or 128 + signal) of a child started by startChild().
int waitChild(pid_t child);

// True when another open file description holds a lock on `file`: a forked
// child opens it and fails flock(LOCK_EX | LOCK_NB) with EWOULDBLOCK.
bool lockHeldElsewhere(const fs::path& file);

// Waits (up to 20 seconds) until some process or thread is blocked in flock()
// on `file`, as /proc/locks shows it. False on time-out.
bool waitForBlockedFlock(const fs::path& file);

// Number of entries in /proc/self/fd.
std::size_t openDescriptorCount();

// The message of the std::runtime_error that `call` throws, or "<no exception>"
// or "<other exception>".
std::string runtimeErrorOf(const std::function<void()>& call);

// A pipe whose ends are closed when it goes away; a byte on it sequences two
// processes.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void send(char byte = 'x');
    // Waits for one byte; false when every writer went away without sending.
    // The receiving side gives up its own write end for that, so it can no
    // longer send on this pipe: use one pipe per direction.
    bool receive();

private:
    int fds_[2];
};

// Every report, as one log entry "progress <stage> <completed>/<total> [<sourcePath>]
// [<displayName>]", plus a copy of the records for detailed checks.
struct ProgressRecorder {
    std::vector<compiler::StandardLibraryBootstrapProgress> reports;
    std::function<void(const compiler::StandardLibraryBootstrapProgress&)> extra;
    compiler::StandardLibraryBootstrapCallback callback();
};

std::string stageName(compiler::StandardLibraryBootstrapStage stage);

// Guards the build tree's generated fingerprint file, which the first-launch
// state reads when the installed library has none. The build tree is the
// suite's own (see CMakeLists.txt), so no program of the real build tree ever
// sees what a test writes there. Tests whose outcome depends on that file hold
// it shared; a test that changes the file holds it exclusive, moves the
// original aside and puts it back when done. The coordination goes through a
// flock on a file of the test's own build directory, so that the suite's test
// processes that ctest runs side by side never see each other's changes. An
// exclusive holder starts with no build-tree file at all.
class BuildTreeFingerprint {
public:
    enum class Mode { Shared, Exclusive };
    explicit BuildTreeFingerprint(Mode mode);
    ~BuildTreeFingerprint();
    BuildTreeFingerprint(const BuildTreeFingerprint&) = delete;
    BuildTreeFingerprint& operator=(const BuildTreeFingerprint&) = delete;

    static fs::path file();

    // Exclusive mode only.
    void write(const std::string& bytes);
    void remove();

    // The fingerprint the bootstrap takes when the installed file gives none:
    // the build-tree file's first line, trimmed, if it is 64 hexadecimal digits
    // (in lower case), otherwise "version-<version>-abi-<abi>".
    static std::string whenInstalledFileGivesNone(int abi);

private:
    Mode mode_;
    int lockFd_ = -1;
    bool hadOriginal_ = false;
};

} // namespace quor::testing

#endif
