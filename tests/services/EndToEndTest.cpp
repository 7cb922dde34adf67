// The bootstrap unit running on the real services: a fresh cache gets one
// object per compilable unit and a valid marker, each unit is read from disk
// once, a ready cache is left alone, and a broken unit leaves no marker.

#include "compiler/Compiler.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "compiler/source/TypeHeader.h"
#include "tests/services/ServicesTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace {

using quor::compiler::SourceManager;
using quor::compiler::StandardLibraryBootstrap;
using quor::compiler::StandardLibraryBootstrapProgress;
using quor::compiler::StandardLibraryBootstrapStage;
using namespace quor::test;

// The library-relative paths of the units that belong in the precompiled
// library, decided independently of the bootstrap: a unit is left out when the
// first header naming its file stem is generic.
std::set<std::string> compilableUnits(const fs::path& root) {
    std::set<std::string> units;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_symlink() || !entry.is_regular_file() || entry.path().extension() != ".qr") {
            continue;
        }
        std::istringstream text(readFile(entry.path()));
        bool generic = false;
        for (std::string line; std::getline(text, line);) {
            quor::compiler::source::TypeHeader header;
            if (quor::compiler::source::parseTypeHeader(line, header) &&
                header.typeName == entry.path().stem().native()) {
                generic = !header.text3.empty();
                break;
            }
        }
        if (!generic) {
            units.insert(entry.path().lexically_relative(root).generic_string());
        }
    }
    return units;
}

std::set<std::string> objectsIn(const fs::path& lib) {
    std::set<std::string> objects;
    for (const auto& [path, bytes] : snapshotTree(lib)) {
        if (fs::path(path).extension() == ".qo") {
            objects.insert(path);
        }
    }
    return objects;
}

std::set<std::string> asObjects(const std::set<std::string>& units) {
    std::set<std::string> objects;
    for (const std::string& unit : units) {
        objects.insert(fs::path(unit).replace_extension(".qo").generic_string());
    }
    return objects;
}

class EndToEndTest : public testing::Test {
protected:
    void SetUp() override { SourceManager::instance().clear(); }
    void TearDown() override { SourceManager::instance().clear(); }

    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path lib() const { return cacheRoot() / QUOR_COMPILER_VERSION / "lib"; }

    // Runs the whole first launch against `library` and checks its outcome.
    void bootstrapsFromScratch(const fs::path& library, unsigned jobs) {
        ScopedRuntime runtime({library.native(), cacheRoot().native(), jobs});
        std::set<std::string> expected = compilableUnits(library);
        ASSERT_FALSE(expected.empty());
        EXPECT_TRUE(StandardLibraryBootstrap::isRequired());

        std::size_t qrFiles = 0;
        for (const auto& entry : fs::recursive_directory_iterator(library)) {
            qrFiles += entry.is_regular_file() && entry.path().extension() == ".qr";
        }
        OpenCounter opens(library);
        std::vector<StandardLibraryBootstrapProgress> reports;
        auto result = StandardLibraryBootstrap::ensure(
            [&](const StandardLibraryBootstrapProgress& progress) { reports.push_back(progress); });
        EXPECT_TRUE(result.bootstrapped);
        EXPECT_EQ(result.total, expected.size());
        EXPECT_EQ(result.completed, expected.size());
        ASSERT_GE(reports.size(), 2u);
        EXPECT_EQ(reports.front().stage, StandardLibraryBootstrapStage::Preparing);
        EXPECT_EQ(reports.back().stage, StandardLibraryBootstrapStage::Finished);
        EXPECT_EQ(reports.size(), expected.size() + 2);

        EXPECT_EQ(objectsIn(lib()), asObjects(expected));
        EXPECT_FALSE(StandardLibraryBootstrap::isRequired());

        // Every ".qr" file was opened exactly once: the bootstrap's header test
        // read it, and the precompiler took the text from the content cache.
        auto counts = opens.collect();
        std::size_t opened = 0;
        for (const auto& [name, count] : counts) {
            if (fs::path(name).extension() == ".qr") {
                EXPECT_EQ(count, 1) << name;
                ++opened;
            }
        }
        EXPECT_EQ(opened, qrFiles);

        // A second start finds the marker and reads no unit at all.
        SourceManager::instance().clear();
        OpenCounter again(library);
        auto second = StandardLibraryBootstrap::ensure(nullptr);
        EXPECT_FALSE(second.bootstrapped);
        EXPECT_EQ(second.completed, 0u);
        EXPECT_EQ(second.total, 0u);
        for (const auto& [name, count] : again.collect()) {
            EXPECT_NE(fs::path(name).extension(), ".qr") << name << " read " << count << " times";
        }
    }

    TemporaryDirectory directory_;
};

void writeTestLibrary(const fs::path& root) {
    writeFile(root / "core/Int.qr", "package core\n\npublic struct Int : Comparable {\n"
                                    "    fn plus(other: Int) -> Int { return self }\n}\n");
    writeFile(root / "core/Option.qr", "package core\n\npublic enum Option<T> {\n"
                                       "    None\n    Some(T)\n}\n");
    writeFile(root / "core/Helpers.qr", "package core\n\nclass Other<T> {\n}\n"
                                        "public fn identity(x: Int) -> Int {\n    return x\n}\n");
    writeFile(root / "collections/List.qr", "package collections\r\n\r\n"
                                            "public sealed class List<T> : Sequence<T> {\r\n}\r\n");
    writeFile(root / "collections/immutable/Vector.qr",
              "package collections.immutable\n\nuse core.Int\n\n"
              "public sealed class Vector : Sized {\n    let x: Int\n    let y: Int\n}\n");
    writeFile(root / "text/Format.qr", "package text\n\n/* Formatting helpers. */\n"
                                       "public fn format(value: Int, width: Int = 0) -> String {\n"
                                       "    return \"{\" + value.toString() + '}'.toString()\n}\n");
    writeFile(root / "Main.qr", "fn main() {\n    print(\"hello\")\n}\n");
}

TEST_F(EndToEndTest, BootstrapsATestLibrary) {
    fs::path library = directory_.path() / "stdlib";
    writeTestLibrary(library);
    bootstrapsFromScratch(library, 2);
    EXPECT_FALSE(fs::exists(lib() / "core/Option.qo"));
    EXPECT_FALSE(fs::exists(lib() / "collections/List.qo"));
    EXPECT_EQ(objectsIn(lib()).size(), 5u);
}

TEST_F(EndToEndTest, BootstrapsTheShippedLibrary) {
    fs::path library = fs::path(QUOR_TEST_SOURCE_DIR) / "stdlib";
    bool hasUnits = false;
    std::error_code error;
    for (fs::recursive_directory_iterator it(library, error), end; !error && it != end;
         it.increment(error)) {
        hasUnits = hasUnits || it->path().extension() == ".qr";
    }
    if (!hasUnits) {
        GTEST_SKIP() << "the repository's stdlib/ holds no .qr units yet";
    }
    bootstrapsFromScratch(library, 2);
}

TEST_F(EndToEndTest, JobCountsGiveIdenticalLibraries) {
    fs::path library = directory_.path() / "stdlib";
    writeTestLibrary(library);
    std::map<std::string, std::string> trees[2];
    for (unsigned jobs : {1u, 2u}) {
        fs::path root = directory_.path() / ("cache" + std::to_string(jobs));
        ScopedRuntime runtime({library.native(), root.native(), jobs});
        SourceManager::instance().clear();
        ASSERT_TRUE(StandardLibraryBootstrap::ensure(nullptr).bootstrapped);
        trees[jobs - 1] = snapshotTree(root / QUOR_COMPILER_VERSION / "lib");
    }
    EXPECT_EQ(trees[0].size(), 6u); // five objects and the ABI record
    EXPECT_EQ(trees[0], trees[1]);
}

TEST_F(EndToEndTest, ABrokenUnitLeavesNoMarkerAndNoTemporaryFiles) {
    fs::path library = directory_.path() / "stdlib";
    writeTestLibrary(library);
    writeFile(library / "io/File.qr", "package io\n\npublic class File {\n    fn read( {\n}\n");
    ScopedRuntime runtime({library.native(), cacheRoot().native(), 2});
    std::size_t threadsBefore = threadCount();
    try {
        StandardLibraryBootstrap::ensure(nullptr);
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        std::string prefix = (library / "io/File.qr").native() + ":4:12: ";
        EXPECT_EQ(std::string(error.what()).rfind(prefix, 0), 0u) << error.what();
    }
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_TRUE(findNames(cacheRoot(), ".quor-stdlib-ready").empty());
    EXPECT_TRUE(findNames(cacheRoot(), ".tmp.").empty());
    EXPECT_EQ(threadCount(), threadsBefore);

    // Once the unit is repaired the next start builds.
    writeFile(library / "io/File.qr", "package io\n\npublic class File {\n    fn read() {}\n}\n");
    SourceManager::instance().clear();
    EXPECT_TRUE(StandardLibraryBootstrap::ensure(nullptr).bootstrapped);
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
    EXPECT_TRUE(fs::is_regular_file(lib() / "io/File.qo"));
}

} // namespace
