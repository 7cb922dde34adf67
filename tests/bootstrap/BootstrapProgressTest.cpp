// The reports ensure() sends while it builds: Compiling reports made from the
// precompiler's progress (counts, source path, display name), the Finished
// report's counts, and the result's counts with and without a callback.

#include "tests/bootstrap/BootstrapFixture.h"

#include <algorithm>

namespace quor::testing {
namespace {

using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryBootstrapProgress;
using compiler::StandardLibraryBootstrapStage;

class BootstrapProgress : public BootstrapTest {
protected:
    void SetUp() override {
        BootstrapTest::SetUp();
        writeUnit("core.qr", "type Core\n");
    }

    // The display name of the single Compiling report sent for `sourcePath`.
    std::string displayNameOf(const std::string& sourcePath) {
        fs::remove_all(stateDir()); // so that every call builds
        setPrecompileScript({{1, 1, sourcePath}});
        ProgressRecorder recorder;
        StandardLibraryBootstrap::ensure(recorder.callback());
        for (const StandardLibraryBootstrapProgress& report : recorder.reports) {
            if (report.stage == StandardLibraryBootstrapStage::Compiling) {
                EXPECT_EQ(report.sourcePath, sourcePath);
                return report.displayName;
            }
        }
        return "<no Compiling report>";
    }
};

TEST_F(BootstrapProgress, EmptyCallbackStillRecordsLastCounts) {
    setPrecompileScript(
        {{1, 3, s(stdlib / "a.qr")}, {7, 9, s(stdlib / "b.qr")}, {2, 4, s(stdlib / "c.qr")}});
    const auto result = StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_EQ(result.completed, 2u);
    EXPECT_EQ(result.total, 4u);
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(BootstrapProgress, CompilingReportsCarryCompilerCountsAndPaths) {
    setPrecompileScript({{1, 2, s(stdlib / "core.qr")}, {2, 2, s(stdlib / "io" / "file.qr")}});
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_EQ(result.completed, 2u);
    EXPECT_EQ(result.total, 2u);
    ASSERT_EQ(recorder.reports.size(), 4u);
    const auto& first = recorder.reports[1];
    EXPECT_EQ(first.stage, StandardLibraryBootstrapStage::Compiling);
    EXPECT_EQ(first.completed, 1u);
    EXPECT_EQ(first.total, 2u);
    EXPECT_EQ(first.sourcePath, s(stdlib / "core.qr"));
    EXPECT_EQ(first.displayName, "");
    const auto& second = recorder.reports[2];
    EXPECT_EQ(second.stage, StandardLibraryBootstrapStage::Compiling);
    EXPECT_EQ(second.completed, 2u);
    EXPECT_EQ(second.total, 2u);
    EXPECT_EQ(second.sourcePath, s(stdlib / "io" / "file.qr"));
    EXPECT_EQ(second.displayName, "io");
}

TEST_F(BootstrapProgress, DisplayNameIsDirectoryBelowRoot) {
    EXPECT_EQ(displayNameOf(s(stdlib / "text" / "format.qr")), "text");
}

TEST_F(BootstrapProgress, DisplayNameJoinsNestedDirectoriesWithDots) {
    EXPECT_EQ(displayNameOf(s(stdlib / "a" / "b" / "c.qr")), "a.b");
}

TEST_F(BootstrapProgress, DisplayNameOfDeepPackage) {
    EXPECT_EQ(displayNameOf(s(stdlib / "collections" / "immutable" / "list.qr")),
              "collections.immutable");
}

TEST_F(BootstrapProgress, UnitDirectlyInRootHasEmptyDisplayName) {
    EXPECT_EQ(displayNameOf(s(stdlib / "core.qr")), "");
}

TEST_F(BootstrapProgress, UnitOutsideRootIsNamedAfterItsDirectory) {
    EXPECT_EQ(displayNameOf("/other/lib/x.qr"), "lib");
}

TEST_F(BootstrapProgress, UnitEqualToRootIsNamedAfterRootsParent) {
    EXPECT_EQ(displayNameOf(s(stdlib)), root.filename().native());
}

TEST_F(BootstrapProgress, RelativeUnitAgainstAbsoluteRootIsNamedAfterItsDirectory) {
    EXPECT_EQ(displayNameOf("lib/x.qr"), "lib");
    EXPECT_EQ(displayNameOf("pkg/sub/y.qr"), "sub");
}

TEST_F(BootstrapProgress, FirstDirectoryStartingWithTwoDotsTakesParentDirectoryName) {
    EXPECT_EQ(displayNameOf(s(stdlib / "..x" / "y" / "z.qr")), "y");
}

TEST_F(BootstrapProgress, SourcePathIsTheCompilersStringUnchanged) {
    const std::string odd = s(stdlib) + "//text/./format.qr";
    setPrecompileScript({{1, 1, odd}});
    ProgressRecorder recorder;
    StandardLibraryBootstrap::ensure(recorder.callback());
    ASSERT_EQ(recorder.reports.size(), 3u);
    EXPECT_EQ(recorder.reports[1].sourcePath, odd);
}

TEST_F(BootstrapProgress, NoProgressGivesFinishedWithZeroCounts) {
    setPrecompileScript({});
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_TRUE(result.bootstrapped);
    EXPECT_EQ(result.completed, 0u);
    EXPECT_EQ(result.total, 0u);
    ASSERT_EQ(recorder.reports.size(), 2u);
    EXPECT_EQ(recorder.reports[1].stage, StandardLibraryBootstrapStage::Finished);
    EXPECT_EQ(recorder.reports[1].completed, 0u);
    EXPECT_EQ(recorder.reports[1].total, 0u);
}

TEST_F(BootstrapProgress, FinishedCarriesLastTotalAsBothCounts) {
    setPrecompileScript({{1, 7, s(stdlib / "a.qr")}, {3, 7, s(stdlib / "b.qr")}});
    ProgressRecorder recorder;
    const auto result = StandardLibraryBootstrap::ensure(recorder.callback());
    EXPECT_EQ(result.completed, 3u);
    EXPECT_EQ(result.total, 7u);
    ASSERT_FALSE(recorder.reports.empty());
    const auto& finished = recorder.reports.back();
    EXPECT_EQ(finished.stage, StandardLibraryBootstrapStage::Finished);
    EXPECT_EQ(finished.completed, 7u);
    EXPECT_EQ(finished.total, 7u);
    EXPECT_EQ(finished.sourcePath, "");
    EXPECT_EQ(finished.displayName, "");
}

TEST_F(BootstrapProgress, PreparingReportIsAllZeroAndEmpty) {
    ProgressRecorder recorder;
    StandardLibraryBootstrap::ensure(recorder.callback());
    ASSERT_FALSE(recorder.reports.empty());
    const auto& preparing = recorder.reports.front();
    EXPECT_EQ(preparing.stage, StandardLibraryBootstrapStage::Preparing);
    EXPECT_EQ(preparing.completed, 0u);
    EXPECT_EQ(preparing.total, 0u);
    EXPECT_EQ(preparing.sourcePath, "");
    EXPECT_EQ(preparing.displayName, "");
}

TEST_F(BootstrapProgress, ReportsArriveInStageOrder) {
    writeUnit("io/file.qr", "type File\n");
    ProgressRecorder recorder;
    StandardLibraryBootstrap::ensure(recorder.callback());
    std::vector<std::string> progress;
    for (const std::string& entry : callLog()) {
        if (entry.rfind("progress ", 0) == 0) {
            progress.push_back(entry);
        }
    }
    EXPECT_EQ(progress, (std::vector<std::string>{
                            "progress Preparing 0/0 [] []",
                            "progress Compiling 1/2 [" + s(stdlib / "core.qr") + "] []",
                            "progress Compiling 2/2 [" + s(stdlib / "io" / "file.qr") + "] [io]",
                            "progress Finished 2/2 [] []"}));
}

TEST_F(BootstrapProgress, CallbackExceptionReachesCallerAndLeavesCacheNotReady) {
    ProgressRecorder recorder;
    recorder.extra = [](const StandardLibraryBootstrapProgress& progress) {
        if (progress.stage == StandardLibraryBootstrapStage::Compiling) {
            throw ScriptedFailure("callback refused");
        }
    };
    std::string caught;
    try {
        StandardLibraryBootstrap::ensure(recorder.callback());
    } catch (const ScriptedFailure& failure) {
        caught = failure.what();
    }
    EXPECT_EQ(caught, "callback refused");
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_FALSE(fs::exists(markerPath()));
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

TEST_F(BootstrapProgress, CallbackExceptionOnPreparingStopsBeforeBuild) {
    ProgressRecorder recorder;
    recorder.extra = [](const StandardLibraryBootstrapProgress&) {
        throw ScriptedFailure("not now");
    };
    std::string caught;
    try {
        StandardLibraryBootstrap::ensure(recorder.callback());
    } catch (const ScriptedFailure& failure) {
        caught = failure.what();
    }
    EXPECT_EQ(caught, "not now");
    const auto log = serviceLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Compiler::ensureObjectAbiCacheCurrent"), 0);
    EXPECT_EQ(precompileCallCount(), 0u);
    EXPECT_FALSE(lockHeldElsewhere(lockFile()));
}

} // namespace
} // namespace quor::testing
