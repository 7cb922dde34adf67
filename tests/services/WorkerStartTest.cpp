// The precompiler when worker threads cannot be started, and the bound on how
// many it starts. The thread-limit cases run in a forked child that becomes
// uid 65534 with a small RLIMIT_NPROC (root ignores that limit); the child
// first proves that its limit holds, then builds and reports back.

#include "compiler/Compiler.h"
#include "compiler/SourceManager.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"
#include "tests/support/Processes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

using quor::compiler::Compiler;
using quor::compiler::SourceManager;
using namespace quor::test;

constexpr auto childDeadline = std::chrono::seconds(60);

// The most worker threads a batch starts, as README.md documents it.
constexpr std::size_t documentedWorkerBound = 256;

class WorkerStartTest : public testing::Test {
protected:
    void SetUp() override { SourceManager::instance().clear(); }
    void TearDown() override { SourceManager::instance().clear(); }

    fs::path library() const { return directory_.path() / "stdlib"; }
    fs::path libCacheOf(const fs::path& cacheRoot) const {
        return cacheRoot / QUOR_COMPILER_VERSION / "lib";
    }

    // A small library in three packages, in the order the bootstrap hands it
    // over (bytewise).
    std::vector<std::string> smallLibrary(std::size_t count) {
        std::vector<std::string> sources;
        for (std::size_t i = 0; i < count; ++i) {
            const std::string package = "p" + std::to_string(i % 3);
            const std::string name = "T" + std::to_string(100 + i);
            const fs::path path = library() / package / (name + ".qr");
            writeFile(path, "package " + package + "\n\npublic class " + name +
                                " : Base {\n    fn size() -> Int { return " + std::to_string(i) +
                                " }\n}\nfn make" + name + "(n: Int) -> " + name + " {\n}\n");
            sources.push_back(path.native());
        }
        std::sort(sources.begin(), sources.end());
        return sources;
    }

    // Builds `sources` into `cacheRoot` the ordinary way, on worker threads.
    void referenceBuild(const std::vector<std::string>& sources, const fs::path& cacheRoot) {
        ScopedRuntime runtime({library().native(), cacheRoot.native(), 8});
        Compiler::precompileSources(sources, nullptr, nullptr);
        SourceManager::instance().clear();
    }

    TemporaryDirectory directory_;
};

// In the child: becomes uid 65534 with `processes` as its process limit and
// checks that the limit binds when it is 1. False, with the reason in
// `report`, otherwise.
bool limitThreads(rlim_t processes, std::string& report) {
    if (!becomeNobody(processes, report)) {
        return false;
    }
    if (processes <= 1) {
        try {
            std::thread([] {}).join();
            report += "a thread could still be started under RLIMIT_NPROC 1\n";
            return false;
        } catch (const std::system_error&) {
            // as intended: no thread can start
        }
    }
    return true;
}

// In the child: precompiles `sources` into `cacheRoot` with `jobs` workers and
// writes one line per progress report, "<completed> <total> <same thread>
// <source>", then "done" or "error <message>".
int buildAndReport(const fs::path& library, const fs::path& cacheRoot, unsigned jobs,
                   const std::vector<std::string>& sources, std::string& report) {
    SourceManager::instance().clear(); // read as the child's user, not from the parent's cache
    quor::compiler::Runtime::getInstance().configure({library.native(), cacheRoot.native(), jobs});
    const std::thread::id caller = std::this_thread::get_id();
    std::ostringstream lines;
    try {
        Compiler::precompileSources(sources, nullptr,
                                    [&](const Compiler::CompilationProgress& progress) {
                                        lines << progress.completed << ' ' << progress.total << ' '
                                              << (std::this_thread::get_id() == caller) << ' '
                                              << progress.sourcePath << '\n';
                                    });
        lines << "done\n";
    } catch (const std::runtime_error& error) {
        lines << "error " << error.what() << '\n';
    }
    report += lines.str();
    return 0;
}

struct Progress {
    std::size_t completed = 0;
    std::size_t total = 0;
    bool onCaller = false;
    std::string source;
};

// The progress lines of a child's report, and its last line.
std::vector<Progress> progressOf(const std::string& report, std::string& last) {
    std::vector<Progress> reports;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        Progress progress;
        if (fields >> progress.completed >> progress.total >> progress.onCaller) {
            fields.get();
            std::getline(fields, progress.source);
            reports.push_back(progress);
        } else {
            last = line;
        }
    }
    return reports;
}

class ThreadLimit : public WorkerStartTest, public testing::WithParamInterface<rlim_t> {};

TEST_P(ThreadLimit, TheBuildCompletesWithTheObjectsOfANormalBuild) {
    const std::vector<std::string> sources = smallLibrary(14);
    const fs::path reference = directory_.path() / "reference";
    referenceBuild(sources, reference);
    const fs::path limited = directory_.path() / "limited";
    giveToNobody(directory_.path().native());

    const rlim_t processes = GetParam();
    const ChildResult child = runInChild(
        [&](std::string& report) {
            if (!limitThreads(processes, report)) {
                return 2;
            }
            return buildAndReport(library(), limited, 8, sources, report);
        },
        childDeadline);
    ASSERT_EQ(child.status, 0) << child;

    std::string last;
    const std::vector<Progress> reports = progressOf(child.output, last);
    EXPECT_EQ(last, "done") << child;
    ASSERT_EQ(reports.size(), sources.size()) << child;
    std::set<std::string> named;
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].completed, i + 1);
        EXPECT_EQ(reports[i].total, sources.size());
        EXPECT_TRUE(reports[i].onCaller) << reports[i].source;
        named.insert(reports[i].source);
    }
    EXPECT_EQ(named, std::set<std::string>(sources.begin(), sources.end()));

    const auto expected = snapshotTree(libCacheOf(reference));
    EXPECT_EQ(expected.size(), sources.size());
    EXPECT_EQ(snapshotTree(libCacheOf(limited)), expected);
    EXPECT_TRUE(findNames(limited, ".tmp.").empty());
}

// 1: no thread at all can start; 3: at most two of the eight workers start.
INSTANTIATE_TEST_SUITE_P(WorkerStartTest, ThreadLimit, testing::Values(rlim_t{1}, rlim_t{3}));

TEST_F(WorkerStartTest, AFailingUnitWithoutThreadsThrowsItsPosition) {
    std::vector<std::string> sources = smallLibrary(6);
    // Sorted between the units of p0 and p1, so that units come before and after it.
    const fs::path broken = library() / "p0z" / "Broken.qr";
    writeFile(broken, "package p0z\n\nfn f( {\n");
    sources.push_back(broken.native());
    std::sort(sources.begin(), sources.end());
    const auto position = std::find(sources.begin(), sources.end(), broken.native());
    const std::size_t before = static_cast<std::size_t>(position - sources.begin());
    ASSERT_GT(before, 0u);
    ASSERT_LT(before + 1, sources.size());

    const fs::path cacheRoot = directory_.path() / "limited";
    giveToNobody(directory_.path().native());
    const ChildResult child = runInChild(
        [&](std::string& report) {
            if (!limitThreads(1, report)) {
                return 2;
            }
            return buildAndReport(library(), cacheRoot, 8, sources, report);
        },
        childDeadline);
    ASSERT_EQ(child.status, 0) << child;

    std::string last;
    const std::vector<Progress> reports = progressOf(child.output, last);
    EXPECT_EQ(last, "error " + broken.native() + ":3:7: unclosed '{'") << child;
    // The calling thread compiles in order and stops at the failure.
    ASSERT_EQ(reports.size(), before) << child;
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].completed, i + 1);
        EXPECT_EQ(reports[i].source, sources[i]);
    }
    EXPECT_EQ(findNames(libCacheOf(cacheRoot), ".qo").size(), before);
    EXPECT_TRUE(findNames(cacheRoot, ".tmp.").empty());
}

struct ProgressStop {
    int code;
};

TEST_F(WorkerStartTest, AProgressExceptionWithoutThreadsPropagates) {
    const std::vector<std::string> sources = smallLibrary(9);
    const fs::path cacheRoot = directory_.path() / "limited";
    giveToNobody(directory_.path().native());
    const ChildResult child = runInChild(
        [&](std::string& report) {
            if (!limitThreads(1, report)) {
                return 2;
            }
            SourceManager::instance().clear();
            quor::compiler::Runtime::getInstance().configure(
                {library().native(), cacheRoot.native(), 8});
            std::size_t calls = 0;
            try {
                Compiler::precompileSources(sources, nullptr,
                                            [&](const Compiler::CompilationProgress& progress) {
                                                ++calls;
                                                if (progress.completed == 4) {
                                                    throw ProgressStop{7};
                                                }
                                            });
                report += "no exception\n";
            } catch (const ProgressStop& stop) {
                report += "stopped " + std::to_string(stop.code) + " after " +
                          std::to_string(calls) + "\n";
            }
            return 0;
        },
        childDeadline);
    ASSERT_EQ(child.status, 0) << child;
    EXPECT_EQ(child.output, "stopped 7 after 4\n");
    EXPECT_EQ(findNames(libCacheOf(cacheRoot), ".qo").size(), 4u);
}

TEST_F(WorkerStartTest, NoMoreWorkersStartThanTheBound) {
    // More units than the bound, and a job count far above both.
    const std::size_t unitCount = documentedWorkerBound + 44;
    std::vector<std::string> sources;
    for (std::size_t i = 0; i < unitCount; ++i) {
        const fs::path path = library() / "b" / ("U" + std::to_string(1000 + i) + ".qr");
        writeFile(path, "package b\nstruct U" + std::to_string(i) + " {}\n");
        sources.push_back(path.native());
    }
    const std::size_t before = threadCount();
    ScopedRuntime runtime({library().native(), (directory_.path() / "cache").native(), 100000});

    // Where fanotify is available, every worker is held in the open of its
    // first unit until all that will start have started: the count is exact.
    OpenGate gate(library() / "b");
    std::atomic<bool> finished{false};
    std::size_t held = 0;
    std::size_t tasksWhileHeld = 0;
    std::thread gatekeeper;
    if (gate.active()) {
        gatekeeper = std::thread([&] {
            held = gate.run(
                unitCount, std::chrono::milliseconds(1000),
                [&] { tasksWhileHeld = liveTaskCount(); }, finished);
        });
    } else {
        std::cout << "without fanotify (" << gate.why()
                  << "), only the count during the first progress report is checked\n";
    }

    std::size_t tasksAtFirstReport = 0;
    try {
        Compiler::precompileSources(sources, nullptr,
                                    [&](const Compiler::CompilationProgress& progress) {
                                        if (progress.completed == 1) {
                                            tasksAtFirstReport = liveTaskCount();
                                        }
                                    });
    } catch (...) {
        finished.store(true);
        if (gatekeeper.joinable()) {
            gatekeeper.join();
        }
        throw;
    }
    finished.store(true);
    const std::size_t gatekeeperThreads = gatekeeper.joinable() ? 1 : 0;
    if (gatekeeper.joinable()) {
        gatekeeper.join();
    }

    EXPECT_LE(tasksAtFirstReport, before + gatekeeperThreads + documentedWorkerBound);
    if (gate.active()) {
        EXPECT_EQ(held, documentedWorkerBound);
        EXPECT_EQ(tasksWhileHeld, before + 1 + documentedWorkerBound);
    }
    EXPECT_EQ(findNames(directory_.path() / "cache", ".qo").size(), unitCount);
    EXPECT_EQ(threadCount(), before);
}

} // namespace
