// FIFOs, devices and huge sparse files where the services and the bootstrap
// expect small regular files: a unit, the object-ABI record, the readiness
// marker, the installed fingerprint file. Each case runs in a forked child
// with a deadline, so that a read that blocks fails the case instead of
// stalling the suite, and with its peak memory checked.

#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"
#include "tests/support/Processes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using quor::compiler::Compiler;
using quor::compiler::Runtime;
using quor::compiler::SourceManager;
using quor::compiler::StandardLibraryBootstrap;
using namespace quor::test;

constexpr auto deadline = std::chrono::seconds(20);
constexpr long peakMemoryLimitKiB = 100 * 1024;
constexpr off_t hugeFileSize = off_t{1} << 30;

class NonRegularFileRead : public testing::Test {
protected:
    void SetUp() override { SourceManager::instance().clear(); }
    void TearDown() override { SourceManager::instance().clear(); }

    fs::path library() const { return directory_.path() / "stdlib"; }
    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path libCache() const { return cacheRoot() / QUOR_COMPILER_VERSION / "lib"; }
    fs::path record() const { return libCache() / ".quor-object-abi"; }
    fs::path marker() const {
        return cacheRoot() / ".first-launch" / QUOR_COMPILER_VERSION / "lib" / ".quor-stdlib-ready";
    }

    // Runs `body` in a child under this test's runtime configuration and
    // expects it to end by itself, successfully, in bounded memory.
    ChildResult inChild(const std::function<int(std::string& report)>& body) {
        const ChildResult child = runInChild(
            [&](std::string& report) {
                SourceManager::instance().clear();
                Runtime::getInstance().configure({library().native(), cacheRoot().native(), 2});
                return body(report);
            },
            deadline);
        EXPECT_FALSE(child.killed) << child;
        EXPECT_EQ(child.status, 0) << child;
        EXPECT_LT(child.peakKiB, peakMemoryLimitKiB) << child;
        return child;
    }

    void makeFifo(const fs::path& path) {
        fs::create_directories(path.parent_path());
        ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0) << path << ": " << std::strerror(errno);
    }

    void makeSparseFile(const fs::path& path, off_t size) {
        fs::create_directories(path.parent_path());
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
        const int result = ::ftruncate(fd, size);
        const int error = errno;
        ::close(fd);
        ASSERT_EQ(result, 0) << std::strerror(error);
    }

    TemporaryDirectory directory_;
};

bool isRegularFile(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

TEST_F(NonRegularFileRead, SourceManagerGivesNothingForAnythingButARegularFile) {
    makeFifo(library() / "core" / "Pipe.qr");
    fs::create_symlink("/dev/zero", library() / "core" / "Zero.qr");
    fs::create_directories(library() / "core" / "Folder.qr");
    writeFile(library() / "core" / "Real.qr", "package core\n");
    const ChildResult child = inChild([&](std::string& report) {
        for (const char* name : {"Pipe.qr", "Zero.qr", "Folder.qr", "Real.qr"}) {
            const auto text = SourceManager::instance().contents(library() / "core" / name);
            report += std::string(name) + ": " + (text ? "[" + *text + "]" : "none") + "\n";
        }
        return 0;
    });
    EXPECT_EQ(child.output,
              "Pipe.qr: none\nZero.qr: none\nFolder.qr: none\nReal.qr: [package core\n]\n");
}

TEST_F(NonRegularFileRead, AUnitThatIsAFifoCannotBeRead) {
    writeFile(library() / "core" / "Object.qr", "package core\n\npublic class Object {\n}\n");
    makeFifo(library() / "core" / "Pipe.qr");
    const std::string pipe = (library() / "core" / "Pipe.qr").native();
    const ChildResult child = inChild([&](std::string& report) {
        try {
            Compiler::precompileSources({(library() / "core" / "Object.qr").native(), pipe},
                                        nullptr, nullptr);
            report += "no error\n";
        } catch (const std::runtime_error& error) {
            report += std::string(error.what()) + "\n";
        }
        return 0;
    });
    EXPECT_EQ(child.output, pipe + ":1:1: unable to read the unit\n");
}

// The record is replaced by a regular file holding the current ABI, and the
// rest of the library cache is cleared, as for a missing record.
void expectRecordedAnew(const fs::path& record, const fs::path& libCache) {
    ASSERT_TRUE(isRegularFile(record)); // reading a FIFO left in place would block here
    EXPECT_EQ(readFile(record), std::to_string(Compiler::objectAbiVersion()) + "\n");
    EXPECT_FALSE(fs::exists(libCache / "core" / "Stale.qo"));
}

TEST_F(NonRegularFileRead, AFifoAsTheObjectAbiRecordReadsAsNoRecord) {
    writeFile(libCache() / "core" / "Stale.qo", "stale");
    makeFifo(record());
    inChild([](std::string&) {
        Compiler::ensureObjectAbiCacheCurrent();
        return 0;
    });
    expectRecordedAnew(record(), libCache());
}

TEST_F(NonRegularFileRead, ALinkAsTheObjectAbiRecordIsNotFollowed) {
    const fs::path elsewhere = directory_.path() / "elsewhere";
    writeFile(elsewhere, std::to_string(Compiler::objectAbiVersion()) + "\n");
    writeFile(libCache() / "core" / "Stale.qo", "stale");
    fs::create_symlink(elsewhere, record());
    inChild([](std::string&) {
        Compiler::ensureObjectAbiCacheCurrent();
        return 0;
    });
    expectRecordedAnew(record(), libCache());
    EXPECT_EQ(readFile(elsewhere), std::to_string(Compiler::objectAbiVersion()) + "\n");
}

TEST_F(NonRegularFileRead, AHugeSparseObjectAbiRecordReadsAsNoRecord) {
    writeFile(libCache() / "core" / "Stale.qo", "stale");
    makeSparseFile(record(), hugeFileSize);
    inChild([](std::string&) {
        Compiler::ensureObjectAbiCacheCurrent();
        return 0;
    });
    expectRecordedAnew(record(), libCache());
}

TEST_F(NonRegularFileRead, ARegularRecordStillKeepsTheCache) {
    writeFile(libCache() / "core" / "Kept.qo", "kept");
    writeFile(record(), " \t" + std::to_string(Compiler::objectAbiVersion()) + "\r\nmore\n");
    inChild([](std::string&) {
        Compiler::ensureObjectAbiCacheCurrent();
        return 0;
    });
    EXPECT_EQ(readFile(libCache() / "core" / "Kept.qo"), "kept");
}

class OddMarkerInTheUnit : public NonRegularFileRead,
                           public testing::WithParamInterface<std::string> {
protected:
    void makeMarker() {
        const std::string& kind = GetParam();
        if (kind == "fifo") {
            makeFifo(marker());
        } else if (kind == "dev-zero") {
            fs::create_directories(marker().parent_path());
            fs::create_symlink("/dev/zero", marker());
        } else {
            makeSparseFile(marker(), hugeFileSize);
        }
    }
};

TEST_P(OddMarkerInTheUnit, IsNotReadyAndEnsureReplacesIt) {
    writeFile(library() / "core" / "Object.qr", "package core\n\npublic class Object {\n}\n");
    makeMarker();
    const ChildResult child = inChild([](std::string& report) {
        report += StandardLibraryBootstrap::isRequired() ? "required\n" : "ready\n";
        report += StandardLibraryBootstrap::ensure({}).bootstrapped ? "built\n" : "kept\n";
        report += StandardLibraryBootstrap::isRequired() ? "required\n" : "ready\n";
        return 0;
    });
    EXPECT_EQ(child.output, "required\nbuilt\nready\n");
    EXPECT_TRUE(isRegularFile(marker()));
    EXPECT_TRUE(isRegularFile(libCache() / "core" / "Object.qo"));
}

INSTANTIATE_TEST_SUITE_P(NonRegularFileRead, OddMarkerInTheUnit,
                         testing::Values("fifo", "dev-zero", "sparse"));

TEST_F(NonRegularFileRead, AFifoAsTheInstalledFingerprintIsPassedOver) {
    writeFile(library() / "core" / "Object.qr", "package core\n\npublic class Object {\n}\n");
    // The marker certifies whatever fingerprint applies without the file.
    inChild([](std::string&) {
        StandardLibraryBootstrap::ensure({});
        return 0;
    });
    const std::string certified = readFile(marker());
    ASSERT_FALSE(certified.empty());
    makeFifo(library() / ".quor-stdlib-fingerprint");
    const ChildResult child = inChild([](std::string& report) {
        report += StandardLibraryBootstrap::isRequired() ? "required\n" : "ready\n";
        return 0;
    });
    EXPECT_EQ(child.output, "ready\n");
    EXPECT_EQ(readFile(marker()), certified);
}

} // namespace
