// isRequired() and ensure(): the ready fast path, which ".qr" files the walk
// hands to the precompiler and in what order, the order of the service calls
// and reports around the lock, and every failure with its exact message.

#include "tests/bootstrap/BootstrapFixture.h"

#include "tests/support/ChildChecks.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace quor::testing {
namespace {

using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapStage;

const std::vector<std::string> kStateCalls = {
    "Runtime::getStandardLibraryPath", "Compiler::objectAbiVersion", "Runtime::getCacheBranchPath",
    "Runtime::getLibCachePath"};

std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::vector<std::string> entriesStartingWith(const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& entry : callLog()) {
        if (entry.rfind(prefix, 0) == 0) {
            found.push_back(entry);
        }
    }
    return found;
}

// One line per entry, for a child's report.
std::string lines(const std::vector<std::string>& entries) {
    std::string text;
    for (const std::string& entry : entries) {
        text += entry + "\n";
    }
    return text;
}

class BootstrapDriver : public BootstrapTest {
protected:
    // The sources the precompiler receives, or the error ensure() throws.
    std::vector<std::string> collected() {
        const std::string error = runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); });
        if (error != "<no exception>") {
            return {"error: " + error};
        }
        return lastPrecompiledSources();
    }
};

TEST_F(BootstrapDriver, ReadyCacheReturnsAtOnceWithoutLockOrReports) {
    writeUnit("core.qr", "type Core\n");
    expectedState().markReady();
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_FALSE(result.bootstrapped);
    EXPECT_EQ(result.completed, 0u);
    EXPECT_EQ(result.total, 0u);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_FALSE(fs::exists(lockFile()));
    EXPECT_EQ(serviceLog(), kStateCalls);
}

TEST_F(BootstrapDriver, ReadyPathCreatesNoDirectoryAndNoLockFile) {
    writeUnit("core.qr", "type Core\n");
    expectedState().markReady();
    const auto before = pathsBelow(root);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(pathsBelow(root), before);
}

TEST_F(BootstrapDriver, SecondEnsureAfterBuildDoesNothing) {
    writeUnit("core.qr", "type Core\n");
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    resetFakes();
    setStandardLibraryPath(s(stdlib));
    setCacheBranchPath(s(branch));
    setLibCachePath(s(lib));
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_FALSE(result.bootstrapped);
    EXPECT_EQ(result.total, 0u);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(precompileCallCount(), 0u);
}

TEST_F(BootstrapDriver, BuildReturnsCompilerCounts) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("io/file.qr", "type File\n");
    const auto result = StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_EQ(result.completed, 2u);
    EXPECT_EQ(result.total, 2u);
    EXPECT_TRUE(expectedState().isReady());
    EXPECT_EQ(precompileCallCount(), 1u);
    EXPECT_TRUE(lastContextWasEmpty());
}

TEST_F(BootstrapDriver, UnreadyCacheIsRequired) {
    writeUnit("core.qr", "type Core\n");
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, ReadyCacheIsNotRequired) {
    writeUnit("core.qr", "type Core\n");
    expectedState().markReady();
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, IsRequiredCreatesNothing) {
    writeUnit("core.qr", "type Core\n");
    const auto before = pathsBelow(root);
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_EQ(pathsBelow(root), before);
    EXPECT_EQ(precompileCallCount(), 0u);
}

TEST_F(BootstrapDriver, MissingLibraryDirectoryIsNotRequired) {
    fs::remove_all(stdlib);
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, LibraryPathNamingRegularFileIsNotRequired) {
    fs::remove_all(stdlib);
    writeFile(stdlib, "file");
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, LibraryPathLinkedToDirectoryIsFollowed) {
    writeUnit("core.qr", "type Core\n");
    fs::create_directory_symlink(stdlib, root / "stdlink");
    setStandardLibraryPath(s(root / "stdlink"));
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, MissingLibraryDirectoryMakesEnsureThrowEnumerationError) {
    fs::remove_all(stdlib);
    ProgressRecorder recorder;
    const std::string message =
        runtimeErrorOf([&] { StandardLibraryBootstrap::ensure(recorder.callback()); });
    EXPECT_EQ(message, "Unable to enumerate Quor standard library '" + s(stdlib) + "': " +
                           std::make_error_code(std::errc::no_such_file_or_directory).message());
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
    EXPECT_FALSE(fs::exists(markerPath()));
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].stage, StandardLibraryBootstrapStage::Preparing);
}

TEST_F(BootstrapDriver, OnlyGenericUnitGivesNoUnitsError) {
    writeUnit("Vector.qr", "// growable array\ntype Vector<T>\n");
    EXPECT_EQ(runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); }),
              "Quor standard library contains no compilable source units: " + s(stdlib));
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, EmptyLibraryGivesNoUnitsError) {
    EXPECT_EQ(runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); }),
              "Quor standard library contains no compilable source units: " + s(stdlib));
}

TEST_F(BootstrapDriver, MainWithoutHeaderIsCollected) {
    writeUnit("Main.qr", "print(1)\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Main.qr")});
}

TEST_F(BootstrapDriver, EmptyUnitIsCollected) {
    writeUnit("Main.qr", "");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Main.qr")});
}

TEST_F(BootstrapDriver, MainWithHeaderNamingOtherIsCollected) {
    writeUnit("Main.qr", "type Other<T>\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Main.qr")});
}

TEST_F(BootstrapDriver, OwnGenericHeaderAfterOtherHeadersExcludesUnit) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("Vector.qr", "type Helper\ntype Other<T>\ntype Vector<T>\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "core.qr")});
}

TEST_F(BootstrapDriver, FirstHeaderNamingStemDecidesAndStopsReading) {
    writeUnit("Vector.qr", "type Vector\ntype Vector<T>\nafter\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Vector.qr")});
    EXPECT_EQ(entriesStartingWith("source::parseTypeHeader"),
              std::vector<std::string>{"source::parseTypeHeader type Vector"});
}

TEST_F(BootstrapDriver, EachLineIsParsedUntilOwnHeader) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("Vector.qr", "// doc\n\ntype Other<T>\ntype Vector<T>\ntype Vector\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "core.qr")});
    EXPECT_EQ(entriesStartingWith("source::parseTypeHeader"),
              (std::vector<std::string>{
                  "source::parseTypeHeader type Core", "source::parseTypeHeader // doc",
                  "source::parseTypeHeader ", "source::parseTypeHeader type Other<T>",
                  "source::parseTypeHeader type Vector<T>"}));
}

TEST_F(BootstrapDriver, HeaderLineKeepsItsCarriageReturn) {
    // The fake parser accepts no trailing carriage return, so a header line
    // handed over with its '\r' is no header and the unit stays in.
    writeUnit("Vector.qr", "type Vector<T>\r\n");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Vector.qr")});
    const auto parsed = entriesStartingWith("source::parseTypeHeader");
    ASSERT_FALSE(parsed.empty());
    EXPECT_EQ(parsed.front(), "source::parseTypeHeader type Vector<T>\r");
}

TEST_F(BootstrapDriver, LastLineWithoutLineFeedIsRead) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("Vector.qr", "// doc\ntype Vector<T>");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "core.qr")});
}

TEST_F(BootstrapDriver, WithheldGenericUnitIsStillCollected) {
    writeUnit("Vector.qr", "type Vector<T>\n");
    withholdFile(s(stdlib / "Vector.qr"));
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "Vector.qr")});
    EXPECT_TRUE(entriesStartingWith("source::parseTypeHeader").empty());
}

TEST_F(BootstrapDriver, StemDropsOnlyTheLastExtension) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("a.b.qr", "type a.b<T>\n");
    writeUnit("c.d.qr", "type c<T>\n");
    EXPECT_EQ(collected(), (std::vector<std::string>{s(stdlib / "c.d.qr"), s(stdlib / "core.qr")}));
}

TEST_F(BootstrapDriver, HeaderNameIsComparedByteForByte) {
    writeUnit("vector.qr", "type Vector<T>\n");
    writeUnit("List.qr", "type List <T>\n"); // no header in the fake's grammar
    EXPECT_EQ(collected(),
              (std::vector<std::string>{s(stdlib / "List.qr"), s(stdlib / "vector.qr")}));
}

TEST_F(BootstrapDriver, NonUnitsAreNotCollected) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("Notes.QR", "type Notes\n");
    writeUnit(".qr", "type X\n");
    writeUnit("a.qr.bak", "type a\n");
    fs::create_symlink(stdlib / "core.qr", stdlib / "link.qr");
    writeFile(root / "outside" / "inner.qr", "type Inner\n");
    fs::create_directory_symlink(root / "outside", stdlib / "linked");
    fs::create_symlink(root / "nowhere.qr", stdlib / "dangling.qr");
    fs::create_directories(stdlib / "pkg.qr");
    writeUnit("pkg.qr/real.qr", "type Real\n");
    EXPECT_EQ(collected(),
              (std::vector<std::string>{s(stdlib / "core.qr"), s(stdlib / "pkg.qr" / "real.qr")}));
    // The walk's order is the directory's; only the set of files read matters.
    auto read = entriesStartingWith("SourceManager::contents");
    std::sort(read.begin(), read.end());
    EXPECT_EQ(read, (std::vector<std::string>{"SourceManager::contents " + s(stdlib / "core.qr"),
                                              "SourceManager::contents " +
                                                  s(stdlib / "pkg.qr" / "real.qr")}));
}

TEST_F(BootstrapDriver, SourcesAreSortedBytewise) {
    writeUnit("a/b.qr", "");
    writeUnit("a.qr", "");
    writeUnit("a-b.qr", "");
    writeUnit("B.qr", "");
    writeUnit("a/a/z.qr", "");
    EXPECT_EQ(collected(), (std::vector<std::string>{s(stdlib / "B.qr"), s(stdlib / "a-b.qr"),
                                                     s(stdlib / "a.qr"), s(stdlib / "a/a/z.qr"),
                                                     s(stdlib / "a/b.qr")}));
}

TEST_F(BootstrapDriver, CollectedPathsAreLexicallyNormal) {
    writeUnit("core.qr", "type Core\n");
    setStandardLibraryPath(s(stdlib) + "/./");
    EXPECT_EQ(collected(), std::vector<std::string>{s(stdlib / "core.qr")});
    EXPECT_EQ(entriesStartingWith("SourceManager::contents"),
              std::vector<std::string>{"SourceManager::contents " + s(stdlib) + "/./core.qr"});
}

TEST_F(BootstrapDriver, BuildCallOrder) {
    writeUnit("core.qr", "type Core\n");
    ProgressRecorder recorder;
    StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_EQ(serviceLog(),
              concat({kStateCalls,
                      kStateCalls,
                      {"progress Preparing 0/0 [] []", "Compiler::ensureObjectAbiCacheCurrent",
                       "Runtime::getStandardLibraryPath",
                       "SourceManager::contents " + s(stdlib / "core.qr"),
                       "source::parseTypeHeader type Core", "Compiler::precompileSources",
                       "progress Compiling 1/1 [" + s(stdlib / "core.qr") + "] []"},
                      kStateCalls,
                      {"progress Finished 1/1 [] []"}}));
}

TEST_F(BootstrapDriver, AbiCacheIsCheckedBeforeLibraryPathIsRead) {
    writeUnit("core.qr", "type Core\n");
    const fs::path moved = root / "std2";
    writeFile(moved / "other.qr", "type Other\n");
    writeFile(moved / ".quor-stdlib-fingerprint", kFingerprint + "\n");
    setEnsureAbiCacheHook([&] { setStandardLibraryPath(s(moved)); });
    EXPECT_EQ(collected(), std::vector<std::string>{s(moved / "other.qr")});
}

TEST_F(BootstrapDriver, PreparingIsSentWithLockHeldBeforeAbiCacheCheck) {
    writeUnit("core.qr", "type Core\n");
    ProgressRecorder recorder;
    recorder.extra = [&](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage == StandardLibraryBootstrapStage::Preparing) {
            logCall(lockHeldElsewhere(lockFile()) ? "lock held" : "lock free");
        }
    };
    StandardLibraryBootstrap::ensure(recorder.callback());
    const auto log = serviceLog();
    const auto preparing = std::find(log.begin(), log.end(), "progress Preparing 0/0 [] []");
    ASSERT_NE(preparing, log.end());
    ASSERT_GE(std::distance(preparing, log.end()), 3);
    EXPECT_EQ(*(preparing + 1), "lock held");
    EXPECT_EQ(*(preparing + 2), "Compiler::ensureObjectAbiCacheCurrent");
}

TEST_F(BootstrapDriver, FinishedIsSentAfterMarkerIsPublishedWithLockHeld) {
    writeUnit("core.qr", "type Core\n");
    ProgressRecorder recorder;
    recorder.extra = [&](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage == StandardLibraryBootstrapStage::Finished) {
            logCall(expectedState().isReady() ? "marker valid" : "marker missing");
            logCall(lockHeldElsewhere(lockFile()) ? "lock held" : "lock free");
        }
    };
    StandardLibraryBootstrap::ensure(recorder.callback());
    const auto log = serviceLog();
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(
        std::vector<std::string>(log.end() - 3, log.end()),
        (std::vector<std::string>{"progress Finished 1/1 [] []", "marker valid", "lock held"}));
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

TEST_F(BootstrapDriver, MarkerDescribesStateAfterBuild) {
    writeUnit("core.qr", "type Core\n");
    setPrecompileHook([](const std::vector<std::string>&) { setObjectAbiVersion(4); });
    StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(expectedState(4).isReady());
    EXPECT_FALSE(expectedState(3).isReady());
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapDriver, LockFileStaysEmptyAndIsReleasedAfterBuild) {
    writeUnit("core.qr", "type Core\n");
    StandardLibraryBootstrap::ensure({});
    ASSERT_TRUE(fs::is_regular_file(lockFile()));
    EXPECT_EQ(fs::file_size(lockFile()), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

TEST_F(BootstrapDriver, PrecompileFailurePassesThroughAndLeavesCacheNotReady) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("io/file.qr", "type File\n");
    setPrecompileFailure(1, "unit failed to compile");
    ProgressRecorder recorder;
    std::string caught;
    try {
        StandardLibraryBootstrap::ensure(recorder.callback());
    } catch (const ScriptedFailure& failure) {
        caught = failure.what();
    }
    EXPECT_EQ(caught, "unit failed to compile");
    ASSERT_EQ(recorder.reports.size(), 2u);
    EXPECT_EQ(recorder.reports[0].stage, StandardLibraryBootstrapStage::Preparing);
    EXPECT_EQ(recorder.reports[1].stage, StandardLibraryBootstrapStage::Compiling);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
    EXPECT_FALSE(fs::exists(markerPath()));
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());

    // The next call builds again.
    resetFakes();
    setStandardLibraryPath(s(stdlib));
    setCacheBranchPath(s(branch));
    setLibCachePath(s(lib));
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_TRUE(expectedState().isReady());
}

TEST_F(BootstrapDriver, AbiCacheFailurePassesThroughBeforeLibraryPathIsRead) {
    writeUnit("core.qr", "type Core\n");
    setEnsureAbiCacheFailure("object cache unusable");
    std::string caught;
    try {
        StandardLibraryBootstrap::ensure({});
    } catch (const ScriptedFailure& failure) {
        caught = failure.what();
    }
    EXPECT_EQ(caught, "object cache unusable");
    const auto log = serviceLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "Compiler::ensureObjectAbiCacheCurrent");
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
    EXPECT_FALSE(fs::exists(markerPath()));
}

TEST_F(BootstrapDriver, LockDirectoryThatCannotBeCreatedFailsWithCacheRootMessage) {
    writeUnit("core.qr", "type Core\n");
    writeFile(cacheRoot / ".first-launch", "in the way");
    std::error_code expectedError;
    fs::create_directories(lockDir(), expectedError);
    ASSERT_TRUE(expectedError);
    ProgressRecorder recorder;
    EXPECT_EQ(runtimeErrorOf([&] { StandardLibraryBootstrap::ensure(recorder.callback()); }),
              "Unable to create Quor cache root '" + s(lockDir()) +
                  "': " + expectedError.message());
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(precompileCallCount(), 0u);
}

TEST_F(BootstrapDriver, LockPathThatIsDirectoryFailsWithLockMessage) {
    writeUnit("core.qr", "type Core\n");
    fs::create_directories(lockFile());
    const std::size_t descriptors = openDescriptorCount();
    ProgressRecorder recorder;
    EXPECT_EQ(runtimeErrorOf([&] { StandardLibraryBootstrap::ensure(recorder.callback()); }),
              "Unable to lock Quor standard-library cache '" + s(lockFile()) + "'");
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST_F(BootstrapDriver, NoDescriptorIsLeftOpenAfterSuccessOrFailure) {
    writeUnit("core.qr", "type Core\n");
    setPrecompileFailure(0, "broken");
    const std::size_t before = openDescriptorCount();
    EXPECT_EQ(runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); }), "broken");
    EXPECT_EQ(openDescriptorCount(), before);
    resetFakes();
    setStandardLibraryPath(s(stdlib));
    setCacheBranchPath(s(branch));
    setLibCachePath(s(lib));
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(BootstrapDriver, EmptyLibCacheLeafLocksInFirstLaunchDirectory) {
    writeUnit("core.qr", "type Core\n");
    setLibCachePath("");
    const fs::path lock = cacheRoot / ".first-launch" / (".stdlib-bootstrap-" + kVersion + ".lock");
    ProgressRecorder recorder;
    recorder.extra = [&](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage == StandardLibraryBootstrapStage::Preparing) {
            logCall(lockHeldElsewhere(lock) ? "lock held" : "lock free");
        }
    };
    EXPECT_TRUE(StandardLibraryBootstrap::ensure(recorder.callback()).bootstrapped);
    EXPECT_EQ(entriesStartingWith("lock "), std::vector<std::string>{"lock held"});
    EXPECT_TRUE(fs::is_regular_file(lock));
    EXPECT_TRUE(fs::is_regular_file(cacheRoot / ".first-launch" / kVersion / ".quor-stdlib-ready"));
}

TEST_F(BootstrapDriver, UnreadableDirectoryIsSkippedSilently) {
    writeUnit("core.qr", "type Core\n");
    writeUnit("private/hidden.qr", "type Hidden\n");
    fs::permissions(root, fs::perms(0755));
    fs::permissions(stdlib / "private", fs::perms(0700));
    fs::create_directories(cacheRoot);
    fs::permissions(cacheRoot, fs::perms(0777));
    const std::string expected = s(stdlib / "core.qr");
    EXPECT_EXIT(testsupport::reportAsNobody([&] {
                    StandardLibraryBootstrap::ensure({});
                    return "precompiled:\n" + lines(lastPrecompiledSources());
                }),
                ::testing::ExitedWithCode(0), ::testing::Eq("precompiled:\n" + expected + "\n"));
}

TEST_F(BootstrapDriver, WalkThatCannotStartFailsWithSystemText) {
    writeUnit("core.qr", "type Core\n");
    const std::string expected = "Unable to enumerate Quor standard library '" + s(stdlib) +
                                 "': " + std::error_code(EMFILE, std::generic_category()).message();
    EXPECT_EXIT(testsupport::reportAndExit([&] {
                    ProgressRecorder recorder;
                    recorder.extra = [](const StandardLibraryBootstrapProgress& progress) {
                        if (progress.stage == StandardLibraryBootstrapStage::Preparing) {
                            testsupport::exhaustDescriptors();
                        }
                    };
                    return "error: " + runtimeErrorOf([&] {
                               StandardLibraryBootstrap::ensure(recorder.callback());
                           }) +
                           "\n";
                }),
                ::testing::ExitedWithCode(0), ::testing::Eq("error: " + expected + "\n"));
}

TEST_F(BootstrapDriver, WalkThatCannotAdvanceFailsWithSystemText) {
    // While the first unit is read, every directory of "d" that the walk has
    // not entered yet disappears; whatever the directory order, at least one of
    // them is still ahead, and entering it fails.
    writeUnit("d/a.qr", "type A\n");
    writeUnit("d/sub1/b.qr", "type B\n");
    writeUnit("d/sub2/c.qr", "type C\n");
    bool removed = false;
    setContentsHook([&](const fs::path& file) {
        if (removed) {
            return;
        }
        removed = true;
        for (const char* name : {"sub1", "sub2"}) {
            const fs::path dir = stdlib / "d" / name;
            if (file.lexically_normal().parent_path() != dir) {
                logCall(std::string("removed ") + name);
                fs::remove_all(dir);
            }
        }
    });
    EXPECT_EQ(runtimeErrorOf([] { StandardLibraryBootstrap::ensure({}); }),
              "Unable to enumerate Quor standard library '" + s(stdlib) +
                  "': " + std::make_error_code(std::errc::no_such_file_or_directory).message());
    EXPECT_FALSE(entriesStartingWith("removed ").empty());
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

} // namespace
} // namespace quor::testing
