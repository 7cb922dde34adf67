// Helpers of the bootstrap tests alone: a progress callback that writes every
// report into the fakes' call log, and the guard of the suite's build-tree
// fingerprint file. Scratch directories, files, failures, forked children and
// lock probes come from tests/support, named here once.

#ifndef QUOR_TESTS_BOOTSTRAP_TESTSUPPORT_H
#define QUOR_TESTS_BOOTSTRAP_TESTSUPPORT_H

#include "compiler/StandardLibraryBootstrap.h"
#include "tests/support/Errors.h"
#include "tests/support/Files.h"
#include "tests/support/Locks.h"
#include "tests/support/Processes.h"

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

// What the bootstrap tests take from tests/support.
using testsupport::lockHeldElsewhere;
using testsupport::LockState;
using testsupport::openDescriptorCount;
using testsupport::Parents;
using testsupport::pathsBelow;
using testsupport::Pipe;
using testsupport::probeLock;
using testsupport::readFile;
using testsupport::runInChild;
using testsupport::runtimeErrorOf;
using testsupport::startChild;
using testsupport::TemporaryDirectory;
using testsupport::waitForBlockedFlock;
using testsupport::waitForChild;
using testsupport::writeFile;

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
