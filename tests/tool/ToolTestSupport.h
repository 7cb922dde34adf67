// Helpers for the quor-stdlib tests: a temporary library and cache root, the
// built tool run as a child process (through pipes or on a pseudo-terminal),
// and a child process that holds the build lock.

#ifndef QUOR_TESTS_TOOL_TOOLTESTSUPPORT_H
#define QUOR_TESTS_TOOL_TOOLTESTSUPPORT_H

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quor::tooltest {

namespace fs = std::filesystem;

// Creates the parent directories as needed. Fails the test on error.
void writeFile(const fs::path& path, const std::string& text);
std::string readFile(const fs::path& path);

// A fresh directory holding a small standard library ("stdlib") and an empty
// cache root ("cache"), removed with everything in it when the object goes.
//   Prelude.qr                 top-level functions, no header: compiled
//   core/Object.qr             compiled
//   core/Text.qr               compiled
//   collections/List.qr        generic: left out
//   collections/Stack.qr       compiled
//   collections/Notes.QR       wrong extension: left out
//   core/Alias.qr              symbolic link to Object.qr: left out
class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    static constexpr std::size_t compilableUnits = 4;

    const fs::path& path() const { return path_; }
    fs::path library() const { return path_ / "stdlib"; }
    fs::path cacheRoot() const { return path_ / "cache"; }
    fs::path stateDirectory() const;
    fs::path marker() const { return stateDirectory() / ".quor-stdlib-ready"; }
    fs::path lockFile() const;

    // "--stdlib <library> --cache-root <cache root>" followed by `arguments`.
    std::vector<std::string> arguments(std::vector<std::string> arguments) const;

private:
    fs::path path_;
};

// The environment the tool runs with in these tests: the caller's, without
// QUOR_* variables, with NO_COLOR set, TERM=xterm, HOME pointing at `home`,
// then `extra` ("NAME=value"), which replaces an inherited variable of that name.
std::vector<std::string> toolEnvironment(const fs::path& home,
                                         const std::vector<std::string>& extra = {});

struct ToolRun {
    int status = -1; // exit status, or 128 + signal number
    std::string out;
    std::string err;
    double seconds = 0.0;
};

// Runs the built tool with `arguments` and waits for it, in the environment
// toolEnvironment(home, extra) gives.
ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra = {});

// The tool started in the background with its standard error read as it comes.
class ToolProcess {
public:
    ToolProcess(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra = {});
    ~ToolProcess(); // kills the process if it is still running
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    pid_t pid() const { return pid_; }

    // Reads standard error until it contains `needle` or `limit` has passed.
    // True when found; stderr() holds what was read either way.
    bool waitForError(const std::string& needle, std::chrono::milliseconds limit);
    // Reads standard output until it contains `needle` or `limit` has passed.
    bool waitForOutput(const std::string& needle, std::chrono::milliseconds limit);

    // Reads both streams to their end and reaps the process.
    ToolRun finish();

    const std::string& err() const { return err_; }
    const std::string& out() const { return out_; }
    double secondsSinceStart() const;

private:
    bool pump(std::chrono::milliseconds limit, const std::string* needle, bool inError);

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    std::chrono::steady_clock::time_point started_;
};

// Runs the tool on a new pseudo-terminal (forkpty) of `columns` columns and
// returns everything it wrote to the terminal, with its exit status.
ToolRun runToolOnTerminal(const std::vector<std::string>& arguments, const fs::path& home,
                          unsigned short columns);

// A child process that creates and holds an exclusive flock on `file` until
// release() or destruction.
class LockHolderProcess {
public:
    explicit LockHolderProcess(const fs::path& file);
    ~LockHolderProcess();
    LockHolderProcess(const LockHolderProcess&) = delete;
    LockHolderProcess& operator=(const LockHolderProcess&) = delete;

    pid_t pid() const { return pid_; }
    void release();

private:
    pid_t pid_ = -1;
};

// Rewrites line `index` (0-based) of the marker file at `marker`.
void editMarkerLine(const fs::path& marker, std::size_t index, const std::string& line);

} // namespace quor::tooltest

#endif
