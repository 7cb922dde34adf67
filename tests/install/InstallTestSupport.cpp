// Implementation of the installation tests' helpers. Processes are started
// with fork and exec so that the environment of one child can be changed
// without touching the test process, which other tests share.

#include "InstallTestSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quor::tests {

namespace fs = std::filesystem;

ScratchDirectory::ScratchDirectory(const std::string& purpose) {
    std::string pattern = (fs::temp_directory_path() / ("quor-" + purpose + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored; // leftovers in the temporary directory are harmless
    fs::remove_all(path_, ignored);
}

const fs::path& ScratchDirectory::path() const {
    return path_;
}

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment,
                         const fs::path& workingDirectory) {
    if (arguments.empty()) {
        throw std::invalid_argument("runProcess needs a program");
    }
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        dup2(pipeEnds[1], STDERR_FILENO);
        const int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0) {
            dup2(devNull, STDIN_FILENO);
        }
        if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0) {
            _exit(126);
        }
        for (const auto& [name, value] : environment) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(pipeEnds[1]);
    ProcessResult result;
    std::array<char, 4096> chunk;
    for (;;) {
        const ssize_t got = read(pipeEnds[0], chunk.data(), chunk.size());
        if (got > 0) {
            result.output.append(chunk.data(), static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    close(pipeEnds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exitCode = 128 + WTERMSIG(status);
    }
    return result;
}

ProcessResult runShell(const std::string& script,
                       const std::map<std::string, std::optional<std::string>>& environment) {
    return runProcess({"/bin/sh", "-c", script}, environment);
}

std::string readFile(const fs::path& file) {
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        return {}; // a directory would make the stream throw instead of failing
    }
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& file, const std::string& content) {
    if (file.has_parent_path()) {
        fs::create_directories(file.parent_path());
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::string fingerprintTool() {
    return QUOR_TEST_STDLIB_TOOL;
}

std::string fingerprintAsTheBuildDoes(const fs::path& root, const fs::path& output,
                                      ProcessResult* result) {
    ProcessResult run =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-DTOOL=" + fingerprintTool(),
                    "-DROOT=" + root.string(), "-DOUTPUT=" + output.string(), "-P",
                    std::string(QUOR_TEST_SOURCE_DIR) + "/cmake/WriteStdlibFingerprint.cmake"});
    if (result != nullptr) {
        *result = run;
    }
    return readFile(output);
}

std::vector<std::string> libraryUnits(const fs::path& root) {
    std::vector<std::string> units;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        if (it->is_symlink() || !it->is_regular_file() || it->path().extension() != ".qr") {
            continue;
        }
        units.push_back(fs::relative(it->path(), root).generic_string());
    }
    std::sort(units.begin(), units.end());
    return units;
}

} // namespace quor::tests
