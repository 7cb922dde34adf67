// The quor-stdlib tests' sandbox and their way of running the tool. Children
// exec the built tool directly, with a cleaned environment, so that the
// caller's QUOR_* settings and the caller's home cache never leak into a test.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <pty.h>
#include <sstream>
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

    ExecArguments(const std::vector<std::string>& arguments, const fs::path& home)
        : environmentText(toolEnvironment(home)) {
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

Sandbox::Sandbox() {
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

Sandbox::~Sandbox() = default;

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

ProgramOptions toolOptions(const std::vector<std::string>& arguments, const fs::path& home,
                           const std::vector<std::string>& extra) {
    ProgramOptions options;
    options.arguments.push_back(QUOR_STDLIB_TOOL_PATH);
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = toolEnvironment(home, extra);
    return options;
}

ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra) {
    return runProgram(toolOptions(arguments, home, extra));
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
    run.status = testsupport::exitStatusOf(status);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return run;
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

std::vector<nlohmann::json> jsonLines(const std::string& text) {
    std::vector<nlohmann::json> documents;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            documents.push_back(nlohmann::json::parse(line));
    return documents;
}

nlohmann::json statusOf(const Sandbox& sandbox, std::vector<std::string> extra) {
    extra.insert(extra.begin(), {"status", "--json"});
    const ToolRun run = runTool(sandbox.arguments(extra), sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    return nlohmann::json::parse(run.out);
}

} // namespace quor::tooltest
