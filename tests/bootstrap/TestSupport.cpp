// Helpers shared by the bootstrap tests; see TestSupport.h.

#include "tests/bootstrap/TestSupport.h"

#include "tests/bootstrap/FakeServices.h"
#include "quor/Config.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#ifndef QUOR_TEST_BUILD_TREE_DIR
#error "QUOR_TEST_BUILD_TREE_DIR must name the build tree the bootstrap was compiled for"
#endif
#ifndef QUOR_TEST_BINARY_DIR
#error "QUOR_TEST_BINARY_DIR must name the test's own build directory"
#endif
#ifndef QUOR_COMPILER_VERSION
#error "QUOR_COMPILER_VERSION must come from the build configuration"
#endif

namespace quor::testing {

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "quor-bootstrap-test-XXXXXX").native();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code error;
    fs::remove_all(path_, error); // a leftover scratch directory must not fail a test
}

void writeFile(const fs::path& file, const std::string& bytes) {
    if (file.has_parent_path()) {
        fs::create_directories(file.parent_path());
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << bytes;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write test file " + file.native());
    }
}

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::set<std::string> treeSnapshot(const fs::path& root) {
    std::set<std::string> entries;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        entries.insert(it->path().lexically_relative(root).native());
    }
    return entries;
}

pid_t startChild(const std::function<int()>& body) {
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        int status = 99;
        try {
            status = body();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child failed: %s\n", error.what());
        } catch (...) {
            std::fprintf(stderr, "child failed with an unknown exception\n");
        }
        std::fflush(stderr);
        _exit(status);
    }
    return child;
}

int waitChild(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

int runInChild(const std::function<int()>& body) {
    return waitChild(startChild(body));
}

bool lockHeldElsewhere(const fs::path& file) {
    const int status = runInChild([&] {
        const int fd = open(file.c_str(), O_RDWR);
        if (fd < 0) {
            return 2;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return 0;
        }
        return errno == EWOULDBLOCK ? 1 : 3;
    });
    return status == 1;
}

bool waitForBlockedFlock(const fs::path& file) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        struct stat info {};
        if (stat(file.c_str(), &info) == 0) {
            const std::string inodeSuffix = ":" + std::to_string(info.st_ino);
            std::ifstream locks("/proc/locks");
            std::string line;
            while (std::getline(locks, line)) {
                if (line.find("->") == std::string::npos ||
                    line.find("FLOCK") == std::string::npos) {
                    continue;
                }
                std::istringstream fields(line);
                std::string field;
                while (fields >> field) {
                    if (field.size() > inodeSuffix.size() &&
                        field.compare(field.size() - inodeSuffix.size(), inodeSuffix.size(),
                                      inodeSuffix) == 0) {
                        return true;
                    }
                }
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

std::string runtimeErrorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    } catch (...) {
        return "<other exception>";
    }
    return "<no exception>";
}

Pipe::Pipe() {
    if (pipe(fds_) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
}

Pipe::~Pipe() {
    close(fds_[0]); // nothing to report at teardown
    close(fds_[1]);
}

void Pipe::send(char byte) {
    while (write(fds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool Pipe::receive() {
    close(fds_[1]); // so that the writer's exit ends the read
    fds_[1] = open("/dev/null", O_WRONLY);
    char byte = 0;
    ssize_t got = 0;
    while ((got = read(fds_[0], &byte, 1)) < 0 && errno == EINTR) {
    }
    return got == 1;
}

std::string stageName(compiler::StandardLibraryBootstrapStage stage) {
    switch (stage) {
    case compiler::StandardLibraryBootstrapStage::Preparing:
        return "Preparing";
    case compiler::StandardLibraryBootstrapStage::Compiling:
        return "Compiling";
    case compiler::StandardLibraryBootstrapStage::Finished:
        return "Finished";
    }
    return "stage-" + std::to_string(static_cast<unsigned>(stage));
}

compiler::StandardLibraryBootstrapCallback ProgressRecorder::callback() {
    return [this](const compiler::StandardLibraryBootstrapProgress& progress) {
        reports.push_back(progress);
        logCall("progress " + stageName(progress.stage) + " " + std::to_string(progress.completed) +
                "/" + std::to_string(progress.total) + " [" + progress.sourcePath + "] [" +
                progress.displayName + "]");
        if (extra) {
            extra(progress);
        }
    };
}

namespace {

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

} // namespace

namespace {

// Where an exclusive holder keeps the build's own file meanwhile. Renamed, not
// copied, so the build sees its file back unchanged, modification time included.
fs::path savedFile() {
    return BuildTreeFingerprint::file().native() + ".kept-by-bootstrap-tests";
}

} // namespace

BuildTreeFingerprint::BuildTreeFingerprint(Mode mode) : mode_(mode) {
    const fs::path lockFile = fs::path(QUOR_TEST_BINARY_DIR) / "build-tree-fingerprint.lock";
    lockFd_ = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd_ < 0 || flock(lockFd_, mode == Mode::Shared ? LOCK_SH : LOCK_EX) != 0) {
        throw std::system_error(errno, std::generic_category(), "build-tree fingerprint lock");
    }
    if (mode_ == Mode::Exclusive) {
        std::error_code error;
        if (fs::exists(savedFile(), error)) {
            // A run that was killed midway left the build's file aside.
            fs::rename(savedFile(), file());
        }
        if (fs::exists(file(), error)) {
            hadOriginal_ = true;
            fs::rename(file(), savedFile());
        }
    }
}

BuildTreeFingerprint::~BuildTreeFingerprint() {
    if (mode_ == Mode::Exclusive) {
        std::error_code error;
        fs::remove(file(), error); // whatever this test wrote
        if (hadOriginal_) {
            fs::rename(savedFile(), file(), error); // nothing better to do at teardown
        }
    }
    close(lockFd_); // releases the coordination lock
}

fs::path BuildTreeFingerprint::file() {
    return fs::path(QUOR_TEST_BUILD_TREE_DIR) / "generated" / "quor-stdlib.fingerprint";
}

void BuildTreeFingerprint::write(const std::string& bytes) {
    writeFile(file(), bytes);
}

void BuildTreeFingerprint::remove() {
    std::error_code error;
    fs::remove(file(), error); // absent already is just as good
}

std::string BuildTreeFingerprint::whenInstalledFileGivesNone(int abi) {
    std::ifstream in(file());
    std::string line;
    if (in && std::getline(in, line)) {
        line = trimmed(line);
        bool hex = line.size() == 64;
        for (char& c : line) {
            const bool digit = c >= '0' && c <= '9';
            const bool lower = c >= 'a' && c <= 'f';
            const bool upper = c >= 'A' && c <= 'F';
            hex = hex && (digit || lower || upper);
            if (upper) {
                c = static_cast<char>(c - 'A' + 'a');
            }
        }
        if (hex) {
            return line;
        }
    }
    return std::string("version-") + QUOR_COMPILER_VERSION + "-abi-" + std::to_string(abi);
}

} // namespace quor::testing
