// Helpers of the bootstrap tests alone; see TestSupport.h.

#include "tests/bootstrap/TestSupport.h"

#include "quor/Config.h"
#include "tests/bootstrap/FakeServices.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

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
