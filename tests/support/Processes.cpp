// Child processes, programs with captured output, pipes and waits; see
// Processes.h.

#include "tests/support/Processes.h"

#include "tests/support/ChildChecks.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <thread>

extern char** environ;

namespace quor::testsupport {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int exitStatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    if (WIFSIGNALED(waitStatus)) {
        return 128 + WTERMSIG(waitStatus);
    }
    return -1;
}

int waitForChild(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(),
                                    "waitpid " + std::to_string(child));
        }
    }
    return exitStatusOf(status);
}

pid_t startChild(const std::function<int()>& body) {
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        int status = kChildThrew;
        try {
            status = body();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child failed: %s\n", error.what());
        } catch (...) {
            std::fprintf(stderr, "child failed with an unknown exception\n");
        }
        std::fflush(stderr);
        ::_exit(status);
    }
    return child;
}

int runInChild(const std::function<int()>& body) {
    return waitForChild(startChild(body));
}

std::ostream& operator<<(std::ostream& stream, const ChildResult& result) {
    return stream << "child status " << result.status
                  << (result.killed ? " (killed at the deadline)" : "") << ", peak "
                  << result.peakKiB << " KiB, report:\n"
                  << result.output;
}

ChildResult runInChild(const std::function<int(std::string& report)>& body,
                       std::chrono::milliseconds deadline) {
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    const auto stopAt = Clock::now() + deadline;
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid == 0) {
        ::close(channel[0]);
        std::string report;
        int code = 70;
        try {
            code = body(report);
        } catch (const std::exception& error) {
            report += std::string("uncaught exception: ") + error.what() + "\n";
        } catch (...) {
            report += "uncaught exception of another type\n";
        }
        writeAll(channel[1], report);
        ::_exit(code);
    }
    ::close(channel[1]);

    ChildResult result;
    int fd = channel[0];
    while (fd >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(stopAt - Clock::now());
        if (left.count() <= 0) {
            ::kill(pid, SIGKILL);
            result.killed = true;
            break;
        }
        pollfd polled{fd, POLLIN, 0};
        if (::poll(&polled, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            break;
        }
        if (polled.revents == 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            result.output.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            ::close(fd);
            fd = -1;
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    result.peakKiB = usage.ru_maxrss;
    result.status = exitStatusOf(status);
    return result;
}

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// The environment a program runs with: the given one or this process's, with
// the changes applied.
std::vector<std::string> environmentFor(const ProgramOptions& options) {
    std::vector<std::string> variables;
    if (options.environment) {
        variables = *options.environment;
    } else {
        for (char** entry = environ; *entry != nullptr; ++entry) {
            variables.emplace_back(*entry);
        }
    }
    for (const auto& [name, value] : options.changes) {
        std::erase_if(variables, [&name](const std::string& variable) {
            return variable.size() > name.size() && variable.compare(0, name.size(), name) == 0 &&
                   variable[name.size()] == '=';
        });
        if (value) {
            variables.push_back(name + "=" + *value);
        }
    }
    return variables;
}

// `program` as execve() needs it: a name without '/' searched in the PATH of
// `environment` (the system's default path when it has none), as execvp()
// would do in the child, but before the fork. A name found nowhere is kept,
// and the exec fails with 127.
std::string resolve(const std::string& program, const std::vector<std::string>& environment) {
    if (program.find('/') != std::string::npos) {
        return program;
    }
    std::string path = "/usr/local/bin:/usr/bin:/bin";
    for (const std::string& variable : environment) {
        if (variable.starts_with("PATH=")) {
            path = variable.substr(5);
        }
    }
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find(':', start), path.size());
        const std::string directory = end > start ? path.substr(start, end - start) : ".";
        const std::string candidate = directory + "/" + program;
        struct stat info {};
        if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return program;
}

} // namespace

Program::Program(const ProgramOptions& options) : deadline_(options.deadline) {
    if (options.arguments.empty()) {
        throw std::invalid_argument("a program needs at least its name");
    }
    std::vector<std::string> environmentText = environmentFor(options);
    std::vector<std::string> argumentText = options.arguments;
    argumentText[0] = resolve(argumentText[0], environmentText);
    const std::vector<char*> argv = pointers(argumentText);
    const std::vector<char*> envp = pointers(environmentText);

    const bool captured = options.streams != Streams::AllClosed;
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    if (captured && (::pipe2(outPipe, O_CLOEXEC) != 0 ||
                     (!options.mergeOutput && ::pipe2(errPipe, O_CLOEXEC) != 0))) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    if (options.streams == Streams::OutputReaderGone) {
        ::close(outPipe[0]);
        outPipe[0] = -1;
    }
    started_ = Clock::now();
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid_ == 0) {
        if (captured) {
            ::dup2(outPipe[1], STDOUT_FILENO);
            ::dup2(options.mergeOutput ? outPipe[1] : errPipe[1], STDERR_FILENO);
            const int devNull = ::open("/dev/null", O_RDONLY);
            if (devNull >= 0) {
                ::dup2(devNull, STDIN_FILENO);
            }
        } else {
            ::close(STDIN_FILENO);
            ::close(STDOUT_FILENO);
            ::close(STDERR_FILENO);
        }
        if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) {
            ::_exit(126);
        }
        if (options.inChild) {
            if (const int status = options.inChild(); status != 0) {
                ::_exit(status);
            }
        }
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (captured) {
        ::close(outPipe[1]);
        outFd_ = outPipe[0];
        if (!options.mergeOutput) {
            ::close(errPipe[1]);
            errFd_ = errPipe[0];
        }
    }
}

Program::~Program() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0) {
        ::close(outFd_);
    }
    if (errFd_ >= 0) {
        ::close(errFd_);
    }
}

double Program::secondsSinceStart() const {
    return std::chrono::duration<double>(Clock::now() - started_).count();
}

bool Program::pump(Clock::time_point until, const std::string* needle, bool inError) {
    for (;;) {
        const std::string& haystack = inError ? err_ : out_;
        if (needle != nullptr && haystack.find(*needle) != std::string::npos) {
            return true;
        }
        if (outFd_ < 0 && errFd_ < 0) {
            return needle == nullptr;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
        const int wait = static_cast<int>(std::min<long long>(left.count(), 60'000));
        if (::poll(fds, 2, wait) < 0 && errno != EINTR) {
            return false;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t count = ::read(fds[i].fd, buffer, sizeof buffer);
            int& fd = i == 0 ? outFd_ : errFd_;
            if (count > 0) {
                (i == 0 ? out_ : err_).append(buffer, static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                ::close(fd);
                fd = -1;
            }
        }
    }
}

bool Program::waitForError(const std::string& needle, std::chrono::milliseconds limit) {
    return pump(Clock::now() + limit, &needle, true);
}

bool Program::waitForOutput(const std::string& needle, std::chrono::milliseconds limit) {
    return pump(Clock::now() + limit, &needle, false);
}

bool Program::readOutputLine(std::chrono::milliseconds limit) {
    const auto until = Clock::now() + limit;
    while (outFd_ >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        pollfd ready{outFd_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char byte = 0;
        const ssize_t count = ::read(outFd_, &byte, 1);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        out_ += byte;
        if (byte == '\n') {
            return true;
        }
    }
    return false;
}

void Program::closeOutput() {
    if (outFd_ >= 0) {
        ::close(outFd_);
        outFd_ = -1;
    }
}

ProgramRun Program::finish() {
    ProgramRun run;
    // Without a deadline the test's own time limit is the only one.
    const Clock::time_point stopAt =
        deadline_ ? started_ + *deadline_ : Clock::time_point::max() - std::chrono::hours(24);
    if (!pump(stopAt, nullptr, true) && pid_ > 0 && Clock::now() >= stopAt) {
        ::kill(pid_, SIGKILL);
        run.killed = true;
    }
    for (int* fd : {&outFd_, &errFd_}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
    if (pid_ > 0) {
        int status = 0;
        rusage usage{};
        if (deadline_) {
            // The streams are closed; a program that closed them and went on
            // running is still held to the deadline.
            for (;;) {
                const pid_t done = ::wait4(pid_, &status, WNOHANG, &usage);
                if (done == pid_ || (done < 0 && errno != EINTR)) {
                    break;
                }
                if (Clock::now() >= stopAt && !run.killed) {
                    ::kill(pid_, SIGKILL);
                    run.killed = true;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        } else {
            while (::wait4(pid_, &status, 0, &usage) < 0 && errno == EINTR) {
            }
        }
        run.status = exitStatusOf(status);
        run.peakKiB = usage.ru_maxrss;
        pid_ = -1;
    }
    run.seconds = secondsSinceStart();
    run.out = out_;
    run.err = err_;
    return run;
}

std::ostream& operator<<(std::ostream& stream, const ProgramRun& run) {
    return stream << "status " << run.status << (run.killed ? " (killed at the deadline)" : "")
                  << ", " << run.peakKiB << " KiB, " << run.seconds << " s\nstdout:\n"
                  << run.out << "\nstderr:\n"
                  << run.err;
}

ProgramRun runProgram(const ProgramOptions& options) {
    return Program(options).finish();
}

Pipe::Pipe() {
    if (::pipe(fds_) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
}

Pipe::~Pipe() {
    ::close(fds_[0]); // nothing to report at teardown
    ::close(fds_[1]);
}

void Pipe::send(char byte) {
    while (::write(fds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool Pipe::receive() {
    ::close(fds_[1]); // so that the writer's exit ends the read
    fds_[1] = ::open("/dev/null", O_WRONLY);
    char byte = 0;
    ssize_t got = 0;
    while ((got = ::read(fds_[0], &byte, 1)) < 0 && errno == EINTR) {
    }
    return got == 1;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit,
               std::chrono::milliseconds pause) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
}

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

} // namespace quor::testsupport
