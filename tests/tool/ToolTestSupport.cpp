// Process plumbing for the quor-stdlib tests. Children exec the built tool
// directly, with a cleaned environment, so that the caller's QUOR_* settings
// and the caller's home cache never leak into a test.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef QUOR_STDLIB_TOOL_PATH
#error "QUOR_STDLIB_TOOL_PATH must name the built tool"
#endif

extern char** environ;

namespace quor::tooltest {

namespace {

// Builds argv and envp before fork, so that the child only calls execve.
struct ExecArguments {
    std::vector<std::string> argumentText;
    std::vector<std::string> environmentText;
    std::vector<char*> argv;
    std::vector<char*> envp;

    ExecArguments(const std::vector<std::string>& arguments, const fs::path& home,
                  const std::vector<std::string>& extra = {})
        : environmentText(toolEnvironment(home, extra)) {
        argumentText.push_back(QUOR_STDLIB_TOOL_PATH);
        argumentText.insert(argumentText.end(), arguments.begin(), arguments.end());
        for (auto& text : argumentText)
            argv.push_back(text.data());
        argv.push_back(nullptr);
        for (auto& text : environmentText)
            envp.push_back(text.data());
        envp.push_back(nullptr);
    }
};

int decodeStatus(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

} // namespace

std::vector<std::string> toolEnvironment(const fs::path& home,
                                         const std::vector<std::string>& extra) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        // A variable given in `extra` replaces the inherited one.
        const auto named = [&text](const std::string& variable) {
            return text.starts_with(variable.substr(0, variable.find('=') + 1));
        };
        if (text.starts_with("QUOR_") || text.starts_with("NO_COLOR=") ||
            text.starts_with("HOME=") || text.starts_with("XDG_CACHE_HOME=") ||
            text.starts_with("TERM=") || std::any_of(extra.begin(), extra.end(), named))
            continue;
        result.emplace_back(text);
    }
    result.push_back("NO_COLOR=1");
    result.push_back("TERM=xterm");
    result.push_back("HOME=" + home.string());
    result.insert(result.end(), extra.begin(), extra.end());
    return result;
}

void writeFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << text;
    ASSERT_TRUE(stream.good()) << "cannot write " << path;
}

std::string readFile(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

Sandbox::Sandbox() {
    std::string pattern = (fs::temp_directory_path() / "quor-tool-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
    path_ = pattern;
    const fs::path lib = library();
    writeFile(lib / "Prelude.qr", "public fn identity(value: Int) -> Int {\n"
                                  "    return value\n"
                                  "}\n");
    writeFile(lib / "core" / "Object.qr", "package core\n\npublic class Object {\n}\n");
    writeFile(lib / "core" / "Text.qr", "package core\n\npublic sealed class Text : Object {\n"
                                        "    let length: Int\n"
                                        "}\n");
    writeFile(lib / "collections" / "List.qr",
              "package collections\n\npublic class List<T> {\n    var items: Array<T>\n}\n");
    writeFile(lib / "collections" / "Stack.qr",
              "package collections\n\nuse core.Object\n\npublic class Stack : Object {\n}\n");
    writeFile(lib / "collections" / "Notes.QR", "not a unit\n");
    fs::create_symlink("Object.qr", lib / "core" / "Alias.qr");
    fs::create_directories(cacheRoot());
}

Sandbox::~Sandbox() {
    std::error_code ignored; // a leftover temporary directory is harmless
    fs::remove_all(path_, ignored);
}

fs::path Sandbox::stateDirectory() const {
    return cacheRoot() / ".first-launch" / QUOR_COMPILER_VERSION / "lib";
}

fs::path Sandbox::lockFile() const {
    return cacheRoot() / ".first-launch" / QUOR_COMPILER_VERSION / ".stdlib-bootstrap-lib.lock";
}

std::vector<std::string> Sandbox::arguments(std::vector<std::string> arguments) const {
    std::vector<std::string> result = {"--stdlib", library().string(), "--cache-root",
                                       cacheRoot().string()};
    result.insert(result.end(), arguments.begin(), arguments.end());
    return result;
}

ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra) {
    ToolProcess process(arguments, home, extra);
    return process.finish();
}

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const fs::path& home,
                         const std::vector<std::string>& extra) {
    ExecArguments exec(arguments, home, extra);
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    started_ = std::chrono::steady_clock::now();
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, STDIN_FILENO);
        execve(exec.argv[0], exec.argv.data(), exec.envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    outFd_ = outPipe[0];
    errFd_ = errPipe[0];
}

ToolProcess::~ToolProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0)
        close(outFd_);
    if (errFd_ >= 0)
        close(errFd_);
}

double ToolProcess::secondsSinceStart() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
}

bool ToolProcess::pump(std::chrono::milliseconds limit, const std::string* needle, bool inError) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        const std::string& haystack = inError ? err_ : out_;
        if (needle != nullptr && haystack.find(*needle) != std::string::npos)
            return true;
        if (outFd_ < 0 && errFd_ < 0)
            return needle == nullptr;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR)
            return false;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            int& fd = i == 0 ? outFd_ : errFd_;
            if (n > 0) {
                (i == 0 ? out_ : err_).append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fd);
                fd = -1;
            }
        }
    }
}

bool ToolProcess::waitForError(const std::string& needle, std::chrono::milliseconds limit) {
    return pump(limit, &needle, true);
}

bool ToolProcess::waitForOutput(const std::string& needle, std::chrono::milliseconds limit) {
    return pump(limit, &needle, false);
}

ToolRun ToolProcess::finish() {
    pump(std::chrono::minutes(2), nullptr, true);
    ToolRun run;
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_)
        run.status = decodeStatus(status);
    pid_ = -1;
    run.seconds = secondsSinceStart();
    run.out = out_;
    run.err = err_;
    return run;
}

ToolRun runToolOnTerminal(const std::vector<std::string>& arguments, const fs::path& home,
                          unsigned short columns) {
    ExecArguments exec(arguments, home);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = columns;
    int master = -1;
    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0)
        throw std::runtime_error("forkpty failed");
    if (pid == 0) {
        execve(exec.argv[0], exec.argv.data(), exec.envp.data());
        _exit(127);
    }
    ToolRun run;
    char buffer[4096];
    while (true) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n > 0)
            run.out.append(buffer, static_cast<std::size_t>(n));
        else if (n < 0 && errno == EINTR)
            continue;
        else
            break; // EIO once the child has closed the terminal
    }
    close(master);
    int status = 0;
    waitpid(pid, &status, 0);
    run.status = decodeStatus(status);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return run;
}

LockHolderProcess::LockHolderProcess(const fs::path& file) {
    fs::create_directories(file.parent_path());
    int ready[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        close(ready[0]);
        const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0 || flock(fd, LOCK_EX) != 0)
            _exit(1);
        const char byte = 'L';
        if (write(ready[1], &byte, 1) != 1)
            _exit(1);
        while (true)
            pause();
    }
    close(ready[1]);
    char byte = 0;
    const ssize_t n = read(ready[0], &byte, 1);
    close(ready[0]);
    if (n != 1)
        throw std::runtime_error("the lock holder could not take the lock");
}

LockHolderProcess::~LockHolderProcess() {
    release();
}

void LockHolderProcess::release() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void editMarkerLine(const fs::path& marker, std::size_t index, const std::string& line) {
    std::istringstream text(readFile(marker));
    std::vector<std::string> lines;
    for (std::string current; std::getline(text, current);)
        lines.push_back(current);
    ASSERT_LT(index, lines.size()) << "marker " << marker << " is too short";
    lines[index] = line;
    std::string rewritten;
    for (const auto& current : lines)
        rewritten += current + "\n";
    writeFile(marker, rewritten);
}

} // namespace quor::tooltest
