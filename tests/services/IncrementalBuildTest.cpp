// Incremental builds on real trees, through the bootstrap and the real
// services: only units without a sound object are compiled, whatever sequence
// of builds came before the library cache ends byte-identical to a clean build
// of the library its marker names, and a build of another library never leaves
// an earlier marker vouching for objects it did not see.

#include "compiler/Compiler.h"
#include "compiler/ObjectCache.h"
#include "compiler/Sha256.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using quor::compiler::BuildSession;
using quor::compiler::Compiler;
using quor::compiler::PrecompileSummary;
using quor::compiler::Sha256;
using quor::compiler::SourceManager;
using quor::compiler::StandardLibraryBootstrap;
using quor::compiler::StandardLibraryBootstrapProgress;
using quor::compiler::StandardLibraryBootstrapStage;
using namespace quor::test;

Library sampleLibrary() {
    Library library;
    for (const char* path :
         {"Prelude.qr", "core/Int.qr", "core/Text.qr", "core/Option.qr", "collections/List.qr",
          "collections/Map.qr", "collections/immutable/Vector.qr", "io/File.qr", "io/Path.qr"}) {
        library[path] = unitText(path);
    }
    return library;
}

class IncrementalBuildTest : public testing::Test {
protected:
    void SetUp() override { SourceManager::instance().clear(); }
    void TearDown() override { SourceManager::instance().clear(); }

    fs::path libraryRoot() const { return directory_.path() / "stdlib"; }
    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path libCache(const fs::path& root) const { return root / QUOR_COMPILER_VERSION / "lib"; }

    struct Outcome {
        bool bootstrapped = false;
        PrecompileSummary summary;
        std::size_t reports = 0;
    };

    // Makes `library` ready in `cache` through the bootstrap. `stopAfter`
    // reports into the build, the progress callback throws, as a Ctrl-C would.
    Outcome build(const Library& library, const fs::path& cache, std::size_t stopAfter = 0) {
        materialiseLibrary(libraryRoot(), library);
        SourceManager::instance().clear();
        ScopedRuntime runtime({libraryRoot().native(), cache.native(), 2});
        Outcome outcome;
        BuildSession session;
        const BuildSession::Scope scope(&session);
        auto result =
            StandardLibraryBootstrap::ensure([&](const StandardLibraryBootstrapProgress& progress) {
                if (progress.stage != StandardLibraryBootstrapStage::Compiling) {
                    return;
                }
                EXPECT_EQ(progress.completed, outcome.reports + 1);
                ++outcome.reports;
                if (stopAfter != 0 && outcome.reports == stopAfter) {
                    throw std::runtime_error("stopped");
                }
            });
        outcome.bootstrapped = result.bootstrapped;
        outcome.summary = session.summary();
        return outcome;
    }

    bool ready(const Library& library, const fs::path& cache) {
        materialiseLibrary(libraryRoot(), library);
        ScopedRuntime runtime({libraryRoot().native(), cache.native(), 2});
        return !StandardLibraryBootstrap::isRequired();
    }

    // The library cache that a clean build of `library` leaves.
    std::map<std::string, std::string> cleanBuild(const Library& library) {
        const fs::path clean = directory_.path() / ("clean" + std::to_string(++cleanBuilds_));
        build(library, clean);
        return wholeTree(libCache(clean));
    }

    void expectCleanEquivalent(const Library& library) {
        const auto actual = wholeTree(libCache(cacheRoot()));
        EXPECT_TRUE(ready(library, cacheRoot()));
        EXPECT_EQ(actual, cleanBuild(library));
    }

    TemporaryDirectory directory_;
    int cleanBuilds_ = 0;
};

TEST_F(IncrementalBuildTest, AColdBuildCompilesEveryUnit) {
    const Library library = sampleLibrary();
    const Outcome outcome = build(library, cacheRoot());
    EXPECT_TRUE(outcome.bootstrapped);
    EXPECT_EQ(outcome.summary.compiled, library.size());
    EXPECT_EQ(outcome.summary.reused, 0u);
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, AChangedUnitIsTheOnlyOneCompiledAndEveryUnitIsReported) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    library["core/Text.qr"] = unitText("core/Text.qr", "public fn added() -> Int { return 2 }\n");

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_TRUE(outcome.bootstrapped);
    EXPECT_EQ(outcome.summary.compiled, 1u);
    EXPECT_EQ(outcome.summary.reused, library.size() - 1);
    EXPECT_EQ(outcome.reports, library.size());
    expectCleanEquivalent(library);
}

// Every other edit in these tests changes a unit's length. This one keeps it, so
// only the digest of the bytes tells the old object from the one needed now.
TEST_F(IncrementalBuildTest, AnEditThatKeepsTheByteCountIsCompiledAgain) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    const std::string before = library["core/Text.qr"];
    std::string& text = library["core/Text.qr"];
    const std::size_t digit = text.find("return 1");
    ASSERT_NE(digit, std::string::npos);
    text.replace(digit, 8, "return 5");
    ASSERT_EQ(text.size(), before.size());
    ASSERT_NE(text, before);

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_TRUE(outcome.bootstrapped);
    EXPECT_EQ(outcome.summary.compiled, 1u);
    EXPECT_EQ(outcome.summary.reused, library.size() - 1);
    const std::string object = readFile(libCache(cacheRoot()) / "core" / "Text.qo");
    EXPECT_NE(object.find("source-sha256\t" + Sha256::hex(text) + "\n"), std::string::npos)
        << object;
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, AnAddedUnitIsCompiledAndTheRestReused) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    library["text/Format.qr"] = unitText("text/Format.qr");

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_EQ(outcome.summary.compiled, 1u);
    EXPECT_EQ(outcome.summary.reused, library.size() - 1);
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, ARemovedUnitLeavesNeitherItsObjectNorItsFolder) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    library.erase("collections/immutable/Vector.qr");

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_EQ(outcome.summary.compiled, 0u);
    EXPECT_EQ(outcome.summary.removed, 1u);
    EXPECT_FALSE(fs::exists(libCache(cacheRoot()) / "collections/immutable"));
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, ARenamedUnitIsCompiledUnderItsNewNameOnly) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    library.erase("io/Path.qr");
    library["io/FilePath.qr"] = unitText("io/FilePath.qr");

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_EQ(outcome.summary.compiled, 1u);
    EXPECT_FALSE(fs::exists(libCache(cacheRoot()) / "io/Path.qo"));
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, AnInterruptedBuildKeepsItsObjectsAndTheNextCompilesOnlyTheRest) {
    const Library library = sampleLibrary();
    EXPECT_THROW(build(library, cacheRoot(), 4), std::runtime_error);
    EXPECT_FALSE(ready(library, cacheRoot()));
    const std::size_t finished = findNames(libCache(cacheRoot()), ".qo").size();
    EXPECT_GE(finished, 4u);

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_EQ(outcome.summary.reused, finished);
    EXPECT_EQ(outcome.summary.compiled, library.size() - finished);
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, SwitchingToAnotherLibraryAndBackCompilesNothing) {
    const Library a = sampleLibrary();
    Library b = a;
    b["Prelude.qr"] = unitText("Prelude.qr", "public fn inB() -> Int { return 3 }\n");
    b.erase("io/File.qr");
    b["text/Format.qr"] = unitText("text/Format.qr");

    build(a, cacheRoot());
    const Outcome toB = build(b, cacheRoot());
    EXPECT_EQ(toB.summary.compiled, 2u); // the changed prelude and the new unit
    expectCleanEquivalent(b);

    const Outcome backToA = build(a, cacheRoot());
    EXPECT_TRUE(backToA.bootstrapped);
    EXPECT_EQ(backToA.summary.compiled, 0u);
    EXPECT_EQ(backToA.summary.reused, a.size());
    expectCleanEquivalent(a);
}

TEST_F(IncrementalBuildTest, AFailedBuildOfAnotherLibraryLeavesTheFirstNotReady) {
    const Library a = sampleLibrary();
    Library b = a;
    b["Prelude.qr"] = unitText("Prelude.qr", "public fn inB() -> Int { return 3 }\n");
    b["time/Weekday.qr"] = "package time\npublic struct Weekday {\n"; // unclosed '{'
    build(a, cacheRoot());
    ASSERT_TRUE(ready(a, cacheRoot()));

    EXPECT_THROW(build(b, cacheRoot()), std::runtime_error);

    EXPECT_FALSE(ready(a, cacheRoot()));
    const Outcome repaired = build(a, cacheRoot());
    EXPECT_TRUE(repaired.bootstrapped);
    expectCleanEquivalent(a);
}

// What is done to an object between two builds; the second build must compile
// the unit again and leave the cache as a clean build would.
struct Damage {
    const char* name;
    void (*apply)(const fs::path& object, const fs::path& scratch);
};

class UntrustedObjectTest : public IncrementalBuildTest,
                            public testing::WithParamInterface<Damage> {};

TEST_P(UntrustedObjectTest, IsCompiledAgainNeverReused) {
    const Library library = sampleLibrary();
    build(library, cacheRoot());
    const fs::path object = libCache(cacheRoot()) / "core/Text.qo";
    GetParam().apply(object, directory_.path());

    // A forced build: the marker is withdrawn as `ensure --force` does.
    {
        ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
        quor::compiler::withdrawReadinessMarker();
    }
    const Outcome outcome = build(library, cacheRoot());

    EXPECT_TRUE(outcome.bootstrapped);
    EXPECT_EQ(outcome.summary.compiled, 1u);
    EXPECT_EQ(outcome.summary.reused, library.size() - 1);
    expectCleanEquivalent(library);
}

INSTANTIATE_TEST_SUITE_P(
    EachDamage, UntrustedObjectTest,
    testing::Values(Damage{"Truncated",
                           [](const fs::path& object, const fs::path&) {
                               fs::resize_file(object, fs::file_size(object) - 10);
                           }},
                    Damage{"Edited",
                           [](const fs::path& object, const fs::path&) {
                               std::string bytes = readFile(object);
                               bytes[bytes.find("Text")] = 'N';
                               writeFile(object, bytes);
                           }},
                    Damage{"Deleted",
                           [](const fs::path& object, const fs::path&) { fs::remove(object); }},
                    Damage{"LinkedToASoundCopy",
                           [](const fs::path& object, const fs::path& scratch) {
                               const fs::path copy = scratch / "copy.qo";
                               fs::copy_file(object, copy);
                               fs::remove(object);
                               fs::create_symlink(copy, object);
                           }},
                    Damage{"ForeignUnitsObject",
                           [](const fs::path& object, const fs::path&) {
                               fs::copy_file(object.parent_path() / "Int.qo", object,
                                             fs::copy_options::overwrite_existing);
                           }},
                    Damage{"OlderAbi",
                           [](const fs::path& object, const fs::path&) {
                               std::string bytes = readFile(object);
                               bytes.replace(0, bytes.find('\n'), "QUOR-OBJECT\t1");
                               writeFile(object, bytes);
                           }},
                    Damage{"AFolderInItsPlace",
                           [](const fs::path& object, const fs::path&) {
                               fs::remove(object);
                               fs::create_directories(object / "inner");
                           }}),
    [](const testing::TestParamInfo<Damage>& info) { return std::string(info.param.name); });

TEST_F(IncrementalBuildTest, LeftoversOfEarlierBuildsAreSweptAway) {
    const Library library = sampleLibrary();
    build(library, cacheRoot());
    const fs::path lib = libCache(cacheRoot());
    writeFile(lib / "core/.Int.qo.tmp.99999999.3", "partial"); // a writer that is gone
    writeFile(lib / "notes.txt", "not an object");
    writeFile(lib / "gone/Unit.qo", "not even an object");
    fs::create_symlink("/etc/passwd", lib / "core/Linked.qo");
    ASSERT_EQ(::mkfifo((lib / "io/Pipe.qo").c_str(), 0644), 0);
    {
        ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
        quor::compiler::withdrawReadinessMarker();
    }

    const Outcome outcome = build(library, cacheRoot());

    EXPECT_EQ(outcome.summary.compiled, 0u);
    EXPECT_EQ(outcome.summary.removed, 5u);
    expectCleanEquivalent(library);
}

TEST_F(IncrementalBuildTest, TemporariesOfAWriterThatStillRunsAreKept) {
    const Library library = sampleLibrary();
    build(library, cacheRoot());
    // Process 1 always runs; its temporary may be written right now.
    const fs::path live = libCache(cacheRoot()) / "core/.Text.qo.tmp.1.7";
    writeFile(live, "partial");
    {
        ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
        quor::compiler::withdrawReadinessMarker();
    }
    build(library, cacheRoot());
    EXPECT_TRUE(fs::exists(live));
}

TEST_F(IncrementalBuildTest, ProgressIsReportedOnTheCallingThreadForReusedUnitsToo) {
    const Library library = sampleLibrary();
    build(library, cacheRoot());
    {
        ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
        quor::compiler::withdrawReadinessMarker();
    }
    materialiseLibrary(libraryRoot(), library);
    ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
    const std::thread::id caller = std::this_thread::get_id();
    std::vector<std::size_t> completed;
    BuildSession session;
    const BuildSession::Scope scope(&session);
    StandardLibraryBootstrap::ensure([&](const StandardLibraryBootstrapProgress& progress) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        if (progress.stage == StandardLibraryBootstrapStage::Compiling) {
            EXPECT_EQ(progress.total, library.size());
            completed.push_back(progress.completed);
        }
    });
    EXPECT_EQ(session.summary().reused, library.size());
    ASSERT_EQ(completed.size(), library.size());
    for (std::size_t i = 0; i < completed.size(); ++i) {
        EXPECT_EQ(completed[i], i + 1);
    }
}

TEST_F(IncrementalBuildTest, AnAbiChangeEmptiesTheSetAsideArea) {
    Library library = sampleLibrary();
    build(library, cacheRoot());
    library["core/Int.qr"] = unitText("core/Int.qr", "public fn more() -> Int { return 4 }\n");
    build(library, cacheRoot());
    const fs::path setAside = cacheRoot() / QUOR_COMPILER_VERSION / "set-aside";
    ASSERT_EQ(findNames(setAside, ".qo").size(), 1u);
    writeFile(libCache(cacheRoot()) / ".quor-object-abi", "1\n");
    {
        ScopedRuntime runtime({libraryRoot().native(), cacheRoot().native(), 2});
        Compiler::ensureObjectAbiCacheCurrent();
    }
    EXPECT_TRUE(findNames(setAside, ".qo").empty());
}

// The set-aside area is a cache too: what it holds is judged like an object in
// place before a build moves it back, never trusted for its name.
TEST_F(IncrementalBuildTest, ADamagedSetAsideObjectIsCompiledAgainInsteadOfMovedBack) {
    const Library a = sampleLibrary();
    Library b = a;
    b["core/Int.qr"] = unitText("core/Int.qr", "public fn more() -> Int { return 4 }\n");
    build(a, cacheRoot());
    build(b, cacheRoot());
    const fs::path setAside = cacheRoot() / QUOR_COMPILER_VERSION / "set-aside";
    const std::vector<std::string> kept = findNames(setAside, ".qo");
    ASSERT_EQ(kept.size(), 1u); // a's core/Int.qo
    std::string bytes = readFile(setAside / kept[0]);
    bytes[bytes.find("Int")] = 'i'; // same size, checksum broken
    writeFile(setAside / kept[0], bytes);

    const Outcome backToA = build(a, cacheRoot());

    EXPECT_EQ(backToA.summary.compiled, 1u);
    EXPECT_EQ(backToA.summary.reused, a.size() - 1);
    expectCleanEquivalent(a);
}

// Every build trims the set-aside area to what it may hold (as much as the
// library's objects, and 16 MiB at least), the objects used longest ago first,
// and removes what is not an object of its own there.
TEST_F(IncrementalBuildTest, ABuildKeepsTheSetAsideAreaWithinItsBudget) {
    Library library = sampleLibrary();
    build(library, cacheRoot()); // a first build clears what no ABI record vouches for
    library["core/Int.qr"] = unitText("core/Int.qr", "public fn more() -> Int { return 4 }\n");
    const fs::path setAside = cacheRoot() / QUOR_COMPILER_VERSION / "set-aside";
    std::vector<fs::path> entries;
    for (int i = 0; i < 5; ++i) {
        // 5 MiB each, sparse: 25 MiB in all, over the floor of 16 MiB.
        const fs::path entry = setAside / (Sha256::hex("entry" + std::to_string(i)) + ".qo");
        writeFile(entry, "");
        fs::resize_file(entry, std::uintmax_t(5) << 20);
        struct timespec times[2] = {{1000 + i, 0}, {1000 + i, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, entry.c_str(), times, 0), 0);
        entries.push_back(entry);
    }
    writeFile(setAside / "stray.txt", "not an object of the set-aside area");

    ASSERT_TRUE(build(library, cacheRoot()).bootstrapped);

    EXPECT_FALSE(fs::exists(entries[0]));
    EXPECT_FALSE(fs::exists(entries[1]));
    EXPECT_TRUE(fs::exists(entries[2]));
    EXPECT_TRUE(fs::exists(entries[3]));
    EXPECT_TRUE(fs::exists(entries[4]));
    EXPECT_FALSE(fs::exists(setAside / "stray.txt"));
    EXPECT_EQ(findNames(setAside, ".qo").size(), 4u); // and the object this build set aside
}

TEST(SetAsideTrimTest, RemovesTheLeastRecentlyUsedObjectsFirst) {
    TemporaryDirectory directory;
    const fs::path area = directory.path();
    std::vector<fs::path> entries;
    for (int i = 0; i < 4; ++i) {
        const fs::path entry = area / (Sha256::hex(std::to_string(i)) + ".qo");
        writeFile(entry, std::string(100, 'x'));
        struct timespec times[2] = {{1000 + i, 0}, {1000 + i, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, entry.c_str(), times, 0), 0);
        entries.push_back(entry);
    }
    writeFile(area / "stray.txt", "not ours");

    quor::compiler::trimSetAside(area, 250);

    EXPECT_FALSE(fs::exists(entries[0]));
    EXPECT_FALSE(fs::exists(entries[1]));
    EXPECT_TRUE(fs::exists(entries[2]));
    EXPECT_TRUE(fs::exists(entries[3]));
    EXPECT_FALSE(fs::exists(area / "stray.txt"));
}

} // namespace
