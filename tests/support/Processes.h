// Child processes for every suite: a piece of the test run in a forked child
// (to block, crash, hold a lock or change user without harming the test
// process), a program run with its output captured (the built tool, cmake,
// the shell), and the small things around them: reaping a child, a pipe to
// sequence two processes, waiting for a condition with a limit.
//
// Every exit status these helpers hand back is the child's exit status, or
// 128 + the signal number when a signal ended it, as a shell reports it. A
// child never returns into the test framework: it leaves through _exit(), so
// that no GoogleTest or static destructor runs twice.

#ifndef QUOR_TESTS_SUPPORT_PROCESSES_H
#define QUOR_TESTS_SUPPORT_PROCESSES_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace quor::testsupport {

// ---------------------------------------------------------------------------
// Reaping

// The exit status, or 128 + signal number, of a status from waitpid(); -1
// for one that is neither (a stopped child).
int exitStatusOf(int waitStatus);

// Waits for `child` (through EINTR) and returns exitStatusOf() its status.
// Throws std::system_error when there is no such child to wait for.
int waitForChild(pid_t child);

// ---------------------------------------------------------------------------
// A function in a forked child

// The exit status of a child started by startChild() whose body threw.
inline constexpr int kChildThrew = 99;

// Starts `body` in a forked child and returns its process id without waiting.
// Standard output and error are flushed first, so that the child does not
// write the parent's buffered text a second time. The child exits with what
// `body` returns; when it throws, with kChildThrew after writing the
// exception's message on standard error.
pid_t startChild(const std::function<int()>& body);

// startChild(body), then waitForChild().
int runInChild(const std::function<int()>& body);

// What a child run by runInChild(body, deadline) did.
struct ChildResult {
    int status = -1;     // exit status, or 128 + signal number
    bool killed = false; // still running at the deadline
    long peakKiB = 0;    // the child's ru_maxrss
    std::string output;  // what the body wrote into its report
};

std::ostream& operator<<(std::ostream& stream, const ChildResult& result);

// For code that might block (the child is killed at `deadline`, so a hang
// fails one test and not the suite), that needs limits of its own, or whose
// peak memory is measured: forks, runs `body` in the child and returns when
// the child has ended or has been killed. The child sends back the report
// `body` filled (an exception's message is added to it) and exits with what
// `body` returns, 70 when it threw.
ChildResult runInChild(const std::function<int(std::string& report)>& body,
                       std::chrono::milliseconds deadline);

// ---------------------------------------------------------------------------
// A program with its output captured

// How a program's standard streams are connected.
enum class Streams {
    Captured,         // output and error into pipes this process reads
    OutputReaderGone, // output into a pipe whose read end is closed before the
                      // start, so that its first write fails; error captured
    AllClosed,        // descriptors 0, 1 and 2 all closed; nothing captured
};

struct ProgramOptions {
    // The program and its arguments. A program name without '/' is looked up
    // in the PATH of the environment it is given, as a shell would.
    std::vector<std::string> arguments;
    // Its whole environment, "NAME=value" each; this process's when not given.
    std::optional<std::vector<std::string>> environment = std::nullopt;
    // Applied on top of that: a value sets the variable, nullopt removes it.
    std::map<std::string, std::optional<std::string>> changes = {};
    // Where it starts; this process's directory when empty.
    std::filesystem::path workingDirectory = {};
    Streams streams = Streams::Captured;
    // Standard error into the same pipe as standard output (ProgramRun::out),
    // interleaved as written; otherwise each has its own.
    bool mergeOutput = false;
    // Killed with SIGKILL when still running this long after its start, even
    // when it has closed its output; no limit when not given.
    std::optional<std::chrono::milliseconds> deadline = std::nullopt;
    // Runs in the child after the standard streams are in place, just before
    // exec: a non-zero result ends the child with that status instead.
    std::function<int()> inChild = {};
};

// What a program did. Standard input is /dev/null, unless Streams::AllClosed.
struct ProgramRun {
    int status = -1;     // exit status, or 128 + signal number
    bool killed = false; // still running at the deadline
    long peakKiB = 0;    // its ru_maxrss
    double seconds = 0.0;
    std::string out; // standard output (and error, when merged)
    std::string err; // standard error, when not merged
};

std::ostream& operator<<(std::ostream& stream, const ProgramRun& run);

// A program started in the background, its output read as the test asks.
// Everything the child needs is prepared before the fork, so that the child
// only moves descriptors and calls execve(). Exit status 127: the program
// could not be started; 126: its working directory could not be entered.
class Program {
public:
    explicit Program(const ProgramOptions& options);
    ~Program(); // kills and reaps the program if it is still running
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return pid_; }

    // Reads standard error until it contains `needle` or `limit` has passed.
    // True when found; err() holds what was read either way.
    bool waitForError(const std::string& needle, std::chrono::milliseconds limit);
    // Reads standard output until it contains `needle` or `limit` has passed.
    bool waitForOutput(const std::string& needle, std::chrono::milliseconds limit);
    // Reads standard output one byte at a time up to and including the next
    // newline, so that nothing after it is taken from the pipe. False when the
    // output ends first or `limit` passes.
    bool readOutputLine(std::chrono::milliseconds limit);
    // Closes this end of the output pipe: the program's next write to its
    // standard output fails as it would with a reader that went away.
    void closeOutput();

    // Reads both streams to their end (or to the deadline) and reaps the program.
    ProgramRun finish();

    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }
    double secondsSinceStart() const;

private:
    bool pump(std::chrono::steady_clock::time_point until, const std::string* needle, bool inError);

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    std::optional<std::chrono::milliseconds> deadline_;
    std::chrono::steady_clock::time_point started_;
};

// Program(options).finish().
ProgramRun runProgram(const ProgramOptions& options);

// ---------------------------------------------------------------------------
// Sequencing and waiting

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

// Asks `condition` every `pause` until it holds (true) or `limit` has passed
// (false).
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit,
               std::chrono::milliseconds pause = std::chrono::milliseconds(5));

// Number of entries in /proc/self/fd: the descriptors this process has open.
std::size_t openDescriptorCount();

} // namespace quor::testsupport

#endif
