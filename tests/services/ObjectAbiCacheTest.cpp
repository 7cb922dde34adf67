// The library cache's ABI record: a missing or different record clears the
// cache, never anything outside it, and records the running ABI.

#include "compiler/Compiler.h"
#include "tests/services/ServicesTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using quor::compiler::Compiler;
using namespace quor::test;

class ObjectAbiCacheTest : public testing::Test {
protected:
    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path lib() const { return cacheRoot() / QUOR_COMPILER_VERSION / "lib"; }
    fs::path record() const { return lib() / ".quor-object-abi"; }
    std::string current() const { return std::to_string(Compiler::objectAbiVersion()) + "\n"; }

    TemporaryDirectory directory_;
    ScopedRuntime runtime_{{"", (directory_.path() / "cache").native(), 1}};
};

TEST_F(ObjectAbiCacheTest, AbiVersionIsStable) {
    EXPECT_GT(Compiler::objectAbiVersion(), 0);
    EXPECT_EQ(Compiler::objectAbiVersion(), Compiler::objectAbiVersion());
}

TEST_F(ObjectAbiCacheTest, CreatesTheCacheAndRecordsTheAbi) {
    Compiler::ensureObjectAbiCacheCurrent();
    EXPECT_TRUE(fs::is_directory(lib()));
    EXPECT_EQ(readFile(record()), current());
    EXPECT_EQ(snapshotTree(lib()).size(), 1u);
}

TEST_F(ObjectAbiCacheTest, AMissingOrForeignRecordClearsOnlyTheCache) {
    for (const char* previous : {"", "0\n"}) {
        writeFile(lib() / "core" / "Int.qo", "stale");
        writeFile(lib() / "Main.qo", "stale");
        writeFile(lib() / ".Main.qo.tmp.1.1", "stale");
        writeFile(directory_.path() / "outside" / "keep.qo", "keep");
        writeFile(cacheRoot() / QUOR_COMPILER_VERSION / "beside.txt", "keep");
        fs::create_directory_symlink(directory_.path() / "outside", lib() / "link");
        fs::create_symlink(directory_.path() / "outside" / "keep.qo", lib() / "file-link.qo");
        if (*previous != '\0') {
            writeFile(record(), previous);
        } else {
            fs::remove(record());
        }

        Compiler::ensureObjectAbiCacheCurrent();

        EXPECT_EQ(readFile(record()), current());
        std::vector<std::string> left;
        for (const auto& entry : fs::directory_iterator(lib())) {
            left.push_back(entry.path().filename().native());
        }
        EXPECT_EQ(left, std::vector<std::string>{".quor-object-abi"}) << previous;
        EXPECT_EQ(readFile(directory_.path() / "outside" / "keep.qo"), "keep");
        EXPECT_EQ(readFile(cacheRoot() / QUOR_COMPILER_VERSION / "beside.txt"), "keep");
        EXPECT_TRUE(findNames(lib(), ".tmp.").empty());
    }
}

TEST_F(ObjectAbiCacheTest, ACurrentRecordKeepsTheObjects) {
    Compiler::ensureObjectAbiCacheCurrent();
    writeFile(lib() / "core" / "Int.qo", "current");
    Compiler::ensureObjectAbiCacheCurrent();
    EXPECT_EQ(readFile(lib() / "core" / "Int.qo"), "current");
}

TEST_F(ObjectAbiCacheTest, AFileWhereTheBranchShouldBeIsRefused) {
    writeFile(cacheRoot() / QUOR_COMPILER_VERSION, "a file where the branch should be");
    try {
        Compiler::ensureObjectAbiCacheCurrent();
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        std::string message = error.what();
        EXPECT_EQ(message, "Refusing to use Quor cache root '" + cacheRoot().native() + "': '" +
                               (cacheRoot() / QUOR_COMPILER_VERSION).native() +
                               "' is not a directory; remove it or choose another cache root");
    }
}

} // namespace
