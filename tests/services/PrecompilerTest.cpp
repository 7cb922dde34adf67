// The batch precompiler on real files: objects and their contents, progress,
// error positions, determinism across job counts, and how failures and
// progress exceptions stop the workers.

#include "compiler/Compiler.h"
#include "compiler/ObjectCache.h"
#include "compiler/Sha256.h"
#include "compiler/SourceManager.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <thread>

namespace {

using quor::compiler::Compiler;
using quor::compiler::Sha256;
using quor::compiler::SourceManager;
using namespace quor::test;

class PrecompilerTest : public testing::Test {
protected:
    void SetUp() override { SourceManager::instance().clear(); }
    void TearDown() override { SourceManager::instance().clear(); }

    fs::path library() const { return directory_.path() / "stdlib"; }
    fs::path cacheRoot() const { return directory_.path() / "cache"; }
    fs::path libCache() const { return cacheRoot() / QUOR_COMPILER_VERSION / "lib"; }

    std::string add(const std::string& relative, const std::string& text) {
        writeFile(library() / relative, text);
        return (library() / relative).native();
    }

    // Compiles `sources` with `jobs` workers into `cache`, recording progress.
    void compile(const std::vector<std::string>& sources, unsigned jobs,
                 const fs::path& cache = {}) {
        ScopedRuntime runtime(
            {library().native(), (cache.empty() ? cacheRoot() : cache).native(), jobs});
        reports_.clear();
        const quor::compiler::BuildSession::Scope scope(&session_);
        Compiler::precompileSources(
            sources, nullptr, [this](const Compiler::CompilationProgress& progress) {
                reports_.push_back({progress.completed, progress.total, progress.sourcePath,
                                    std::this_thread::get_id(), session_.reportedUnitSeconds()});
            });
    }

    // The message of the runtime_error that compiling one unit with `text` throws.
    std::string failureOf(const std::string& text, const std::string& name = "core/Bad.qr") {
        const std::string source = add(name, text);
        return runtimeErrorOf([&] { compile({source}, 1); });
    }

    struct Report {
        std::size_t completed;
        std::size_t total;
        std::string sourcePath;
        std::thread::id thread;
        double seconds; // the session's reportedUnitSeconds() during the report
    };

    TemporaryDirectory directory_;
    std::vector<Report> reports_;
    quor::compiler::BuildSession session_;
};

TEST_F(PrecompilerTest, WritesTheDeclarationsOfEachUnitBesideItsPath) {
    std::string text = "package collections.immutable\n"
                       "\n"
                       "use core.Option\n"
                       "use core.text.Format as Fmt\n"
                       "\n"
                       "/* A persistent stack. */\n"
                       "public sealed class Stack : Sized, Equatable<Stack> {\n"
                       "    let items: Array<Int> = [1, 2, 0x1F, 3.5e2]\n"
                       "    fn push(value: Int) -> Stack { return Stack() }\n"
                       "    struct Node { }\n"
                       "}\n"
                       "\n"
                       "public fn emptyStack<T>(\n"
                       "    capacity: Int,   label: String = \"a \\\"b\\\" // c\") -> Stack {\n"
                       "    return Stack()\n"
                       "}\n"
                       "extern fn stackDepth() -> Int\n";
    std::string source = add("collections/immutable/Stack.qr", text);
    compile({source}, 2);

    std::string expected = "QUOR-OBJECT\t" + std::to_string(Compiler::objectAbiVersion()) +
                           "\n"
                           "unit\tcollections/immutable/Stack.qr\n"
                           "source-size\t" +
                           std::to_string(text.size()) +
                           "\n"
                           "source-sha256\t" +
                           Sha256::hex(text) +
                           "\n"
                           "package\tcollections.immutable\n"
                           "use\t3\tcore.Option\t\n"
                           "use\t4\tcore.text.Format\tFmt\n"
                           "type\t7\tclass\tpublic\tsealed\tStack\t\tSized, Equatable<Stack>\t\n"
                           "type\t10\tstruct\t\t\tNode\t\t\t\n"
                           "fn\t13\temptyStack\tpublic fn emptyStack<T>( capacity: Int, label: "
                           "String = \"a \\\\\"b\\\\\" // c\") -> Stack\n"
                           "fn\t17\tstackDepth\textern fn stackDepth() -> Int\n";
    expected += "end\t6\t" + Sha256::hex(expected) + "\n";
    EXPECT_EQ(readFile(libCache() / "collections/immutable/Stack.qo"), expected);
    ASSERT_EQ(reports_.size(), 1u);
    EXPECT_EQ(reports_[0].sourcePath, source);
}

TEST_F(PrecompilerTest, ReportsEveryUnitOnTheCallingThreadCountingUp) {
    std::vector<std::string> sources;
    for (int i = 0; i < 25; ++i) {
        sources.push_back(add("pkg" + std::to_string(i % 3) + "/U" + std::to_string(i) + ".qr",
                              "package pkg" + std::to_string(i % 3) + "\nstruct U" +
                                  std::to_string(i) + " {}\n"));
    }
    compile(sources, 4);
    ASSERT_EQ(reports_.size(), sources.size());
    std::set<std::string> named;
    for (std::size_t i = 0; i < reports_.size(); ++i) {
        EXPECT_EQ(reports_[i].completed, i + 1);
        EXPECT_EQ(reports_[i].total, sources.size());
        EXPECT_EQ(reports_[i].thread, std::this_thread::get_id());
        named.insert(reports_[i].sourcePath);
        fs::path object =
            libCache() / fs::path(reports_[i].sourcePath).lexically_relative(library());
        EXPECT_TRUE(fs::is_regular_file(object.replace_extension(".qo"))) << object;
    }
    EXPECT_EQ(named, std::set<std::string>(sources.begin(), sources.end()));
}

// Each report can tell the unit's own time, compiled or kept, and only while
// it is being made.
TEST_F(PrecompilerTest, ReportsEachUnitsOwnTimeDuringItsReport) {
    std::vector<std::string> sources;
    for (int i = 0; i < 12; ++i) {
        sources.push_back(add("pkg/U" + std::to_string(i) + ".qr",
                              "package pkg\nstruct U" + std::to_string(i) + " {}\n"));
    }
    for (const char* run : {"compiled", "kept"}) {
        compile(sources, 2);
        ASSERT_EQ(reports_.size(), sources.size()) << run;
        for (const Report& report : reports_) {
            EXPECT_GT(report.seconds, 0.0) << run << " " << report.sourcePath;
            EXPECT_LT(report.seconds, 60.0) << run << " " << report.sourcePath;
        }
        EXPECT_EQ(session_.reportedUnitSeconds(), 0.0) << run;
    }
}

struct BadUnit {
    std::string text;
    std::string message; // after "path:"
};

// Names the case in test listings by its expected message.
void PrintTo(const BadUnit& unit, std::ostream* out) {
    *out << unit.message;
}

class PrecompilerErrors : public PrecompilerTest, public testing::WithParamInterface<BadUnit> {};

TEST_P(PrecompilerErrors, NameTheExactPosition) {
    std::string path = (library() / "core/Bad.qr").native();
    EXPECT_EQ(failureOf(GetParam().text), path + ":" + GetParam().message);
    EXPECT_FALSE(fs::exists(libCache() / "core/Bad.qo"));
    EXPECT_TRUE(findNames(cacheRoot(), ".tmp.").empty());
}

INSTANTIATE_TEST_SUITE_P(
    PrecompilerTest, PrecompilerErrors,
    testing::Values(
        BadUnit{"fn f() {\n  let s = \"abc\n}\n", "2:11: unterminated string literal"},
        BadUnit{"/* open\n\n", "1:1: unterminated block comment"},
        BadUnit{"let c = ''\n", "1:9: empty character literal"},
        BadUnit{"let c = 'ab'\n", "1:9: character literal holds more than one character"},
        BadUnit{"let c = 'a\n", "1:9: unterminated character literal"},
        BadUnit{"let c = '\\q'\n", "1:10: invalid escape sequence"},
        BadUnit{"let s = \"a\\u{}\"\n", "1:11: invalid escape sequence"},
        BadUnit{"let n = 12abc\n", "1:11: invalid character 'a' in number literal"},
        BadUnit{"let n = 0x\n", "1:9: hexadecimal literal without digits"},
        BadUnit{"let n = 0b102\n", "1:13: invalid character '2' in number literal"},
        BadUnit{"let n = 1e+\n", "1:9: exponent without digits in number literal"},
        BadUnit{"let x = a # b\n", "1:11: unexpected character '#'"},
        BadUnit{"let x = \xc3\xa9\n", "1:9: unexpected character 0xC3"},
        BadUnit{"let s = \"a\tb\x01\"\n", "1:13: control character 0x01 in string literal"},
        BadUnit{"fn f() {\n  g(1]\n}\n", "2:6: mismatched ']': expected ')' to close '(' at 2:4"},
        BadUnit{"fn f() {\n}\n}\n", "3:1: unexpected '}'"},
        BadUnit{"class Bad {\n  fn f() {\n}\n", "1:11: unclosed '{'"},
        BadUnit{"fn f() {\n  g(\n}\n", "3:1: mismatched '}': expected ')' to close '(' at 2:4"},
        BadUnit{"package core\nclass Bad<T> : {\n}\n", "2:1: malformed type header"},
        BadUnit{"  public sealed abstract class Bad {\n}\n", "1:3: malformed type header"},
        BadUnit{"class Bad\n{\n}\n", "1:1: malformed type header"},
        BadUnit{"let k = x.class\n", "1:11: 'class' may only begin a type header"},
        BadUnit{"use core.Option\npackage core\n",
                "2:1: the package line must come before every other declaration"},
        BadUnit{"package collections\n",
                "1:9: package 'collections' does not match the unit's folder 'core'"},
        BadUnit{"package core.\n", "1:1: expected a dotted name after 'package'"},
        BadUnit{"use core.Option extra\n", "1:17: unexpected 'extra' after the use line"},
        BadUnit{"class Bad {\n  use core.Option\n}\n", "2:3: 'use' lines must stand at top level"},
        BadUnit{"let use = 1\n", "1:5: 'use' may only begin a use line"},
        BadUnit{"fn (x: Int) {\n}\n", "1:4: expected a function name after 'fn'"},
        BadUnit{"public fn f -> Int {\n}\n", "1:13: expected '(' after the function name 'f'"}));

TEST_F(PrecompilerTest, AUnitInTheRootHasNoPackage) {
    std::string path = (library() / "Root.qr").native();
    EXPECT_EQ(failureOf("package core\n", "Root.qr"),
              path + ":1:9: a unit in the library root has no package; found 'core'");
    std::string good = add("Fine.qr", "fn main() {\r\n  print(\"ok\")\r\n}\r\n");
    EXPECT_NO_THROW(compile({good}, 1));
}

TEST_F(PrecompilerTest, UnitsOutsideTheLibraryOrNotQrAreRefused) {
    fs::path outside = directory_.path() / "elsewhere" / "Out.qr";
    writeFile(outside, "struct Out {}\n");
    try {
        compile({outside.native()}, 1);
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()),
                  outside.native() + ":1:1: the unit lies outside the standard library '" +
                      library().native() + "'");
    }
    std::string sneaky = (library() / ".." / "elsewhere" / "Out.qr").native();
    EXPECT_THROW(compile({sneaky}, 1), std::runtime_error);
    std::string text = add("core/Notes.txt", "x\n");
    EXPECT_THROW(compile({text}, 1), std::runtime_error);
    EXPECT_FALSE(fs::exists(libCache() / "elsewhere"));
}

TEST_F(PrecompilerTest, OutputIsByteIdenticalWhateverTheJobCount) {
    std::vector<std::string> sources;
    for (int i = 0; i < 40; ++i) {
        std::string n = std::to_string(i);
        sources.push_back(add("p" + std::to_string(i % 4) + "/q/T" + n + ".qr",
                              "package p" + std::to_string(i % 4) + ".q\n\npublic class T" + n +
                                  " : Base" + n + " {\n    fn get() -> Int { return " + n +
                                  " }\n}\nfn helper" + n + "(a: Int, b: T" + n +
                                  ") -> Int {\n}\n"));
    }
    compile(sources, 1, directory_.path() / "one");
    compile(sources, 2, directory_.path() / "two");
    auto one = snapshotTree(directory_.path() / "one");
    auto two = snapshotTree(directory_.path() / "two");
    EXPECT_EQ(one.size(), sources.size());
    EXPECT_EQ(one, two);
}

TEST_F(PrecompilerTest, EachUnitIsReadFromDiskOnce) {
    std::vector<std::string> sources;
    for (int i = 0; i < 10; ++i) {
        sources.push_back(
            add("r/R" + std::to_string(i) + ".qr", "struct R" + std::to_string(i) + " {}\n"));
    }
    OpenCounter opens(library());
    for (const std::string& source : sources) {
        ASSERT_TRUE(SourceManager::instance().contents(source)); // as the bootstrap's header test
    }
    compile(sources, 2);
    auto counts = opens.collect();
    EXPECT_EQ(counts.size(), sources.size());
    for (const auto& [name, count] : counts) {
        EXPECT_EQ(count, 1) << name;
    }
}

// Many units, the first of which is broken: the run stops at it.
std::vector<std::string> manyUnitsFirstBroken(const fs::path& library, std::size_t count) {
    std::vector<std::string> sources;
    for (std::size_t i = 0; i < count; ++i) {
        fs::path path = library / "m" / ("M" + std::to_string(1000 + i) + ".qr");
        writeFile(path, i == 0 ? std::string("fn f( {\n") : "package m\nstruct M {}\n");
        sources.push_back(path.native());
    }
    return sources;
}

// With two workers, each holds the open of its first unit at the gate. The
// worker that took the broken unit is let through and left to fail and exit;
// only then is the other one let through. Left to the scheduler, the failing
// worker could lose the processor before it had said stop, and the other would
// build the rest of the library meanwhile, so that whether the stop works
// could not be seen. Returns what went wrong, or "" when the two were held and
// let through as planned.
std::string failFirstThenLetTheOtherGo(OpenGate& gate, const std::string& broken,
                                       const std::atomic<bool>& finished) {
    constexpr auto patience = std::chrono::seconds(30);
    std::optional<OpenGate::HeldOpen> failing;
    std::optional<OpenGate::HeldOpen> other;
    std::string problem;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while ((!failing || !other) && std::chrono::steady_clock::now() < deadline &&
           !finished.load()) {
        std::optional<OpenGate::HeldOpen> held = gate.next(std::chrono::milliseconds(50));
        if (!held) {
            continue;
        }
        std::optional<OpenGate::HeldOpen>& slot = held->path == broken ? failing : other;
        if (slot) {
            problem += "a second open of " + held->path + " before the first went on\n";
            gate.allow(*held);
        } else {
            slot = std::move(held);
        }
    }
    if (!failing || !other) {
        problem += std::string("not held: ") + (failing ? "" : "the broken unit ") +
                   (other ? "" : "another worker's first unit");
    } else {
        gate.allow(*failing);
        while (taskIsLive(failing->tid) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (taskIsLive(failing->tid)) {
            problem += "the worker that failed is still running";
        }
    }
    if (other) {
        gate.allow(*other);
    }
    while (!finished.load()) {
        if (std::optional<OpenGate::HeldOpen> held = gate.next(std::chrono::milliseconds(50))) {
            gate.allow(*held);
        }
    }
    return problem;
}

TEST_F(PrecompilerTest, AFailureStopsTheRunAndLeavesNothingRunning) {
    auto sources = manyUnitsFirstBroken(library(), 400);
    std::size_t threadsBefore = threadCount();
    EXPECT_THROW(compile(sources, 1), std::runtime_error);
    // One worker takes the units in order, so nothing after the broken one is written.
    EXPECT_TRUE(findNames(libCache(), ".qo").empty());
    EXPECT_EQ(reports_.size(), 0u);

    OpenGate gate(library() / "m");
    if (!gate.active()) {
        GTEST_SKIP() << "without fanotify (" << gate.why()
                     << "), two workers cannot be held in order, so the stop between "
                        "them is not checked";
    }
    // Read from disk again, so that the worker that takes it opens it at the gate.
    SourceManager::instance().clear();
    std::atomic<bool> finished{false};
    std::string gateProblem;
    const std::string broken = fs::canonical(sources[0]).native(); // as the gate names it
    std::thread gatekeeper(
        [&] { gateProblem = failFirstThenLetTheOtherGo(gate, broken, finished); });
    try {
        compile(sources, 2);
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), sources[0] + ":1:7: unclosed '{'");
    } catch (...) {
        finished.store(true);
        gatekeeper.join();
        throw;
    }
    finished.store(true);
    gatekeeper.join();
    EXPECT_EQ(gateProblem, "");
    // The other worker was let through only after the failing one had left,
    // so it may finish the unit it held, and must take no other.
    EXPECT_LE(findNames(libCache(), ".qo").size(), 1u);
    EXPECT_LT(findNames(libCache(), ".qo").size(), sources.size() - 1);
    EXPECT_LT(reports_.size(), sources.size() - 1);
    EXPECT_TRUE(findNames(cacheRoot(), ".tmp.").empty());
    EXPECT_EQ(threadCount(), threadsBefore);
}

struct ProgressStop {
    int code;
};

TEST_F(PrecompilerTest, AProgressExceptionPropagatesUnchanged) {
    std::vector<std::string> sources;
    for (int i = 0; i < 50; ++i) {
        sources.push_back(add("s/S" + std::to_string(i) + ".qr", "package s\n"));
    }
    std::size_t threadsBefore = threadCount();
    ScopedRuntime runtime({library().native(), cacheRoot().native(), 2});
    std::size_t calls = 0;
    try {
        Compiler::precompileSources(sources, nullptr, [&](const Compiler::CompilationProgress& p) {
            ++calls;
            if (p.completed == 3) {
                throw ProgressStop{42};
            }
        });
        FAIL() << "no exception";
    } catch (const ProgressStop& stop) {
        EXPECT_EQ(stop.code, 42);
    }
    EXPECT_EQ(calls, 3u);
    EXPECT_EQ(threadCount(), threadsBefore);
    EXPECT_TRUE(findNames(cacheRoot(), ".tmp.").empty());

    try {
        Compiler::precompileSources(sources, nullptr, [](const Compiler::CompilationProgress&) {
            throw std::out_of_range("from the callback");
        });
        FAIL() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "from the callback");
    }
}

TEST_F(PrecompilerTest, AnUnreadableUnitFailsWithItsPath) {
    std::string missing = (library() / "gone" / "Gone.qr").native();
    fs::create_directories(library());
    try {
        compile({missing}, 1);
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), missing + ":1:1: unable to read the unit");
    }
}

TEST_F(PrecompilerTest, EachSessionKeepsTheFiguresOfItsOwnBuild) {
    std::vector<std::string> sources;
    for (int i = 0; i < 3; ++i) {
        sources.push_back(add("pkg/U" + std::to_string(i) + ".qr",
                              "package pkg\nstruct U" + std::to_string(i) + " {}\n"));
    }
    compile(sources, 2);
    EXPECT_EQ(session_.summary().compiled, 3u);
    EXPECT_EQ(session_.summary().reused, 0u);

    // A second build in the same process, under a session of its own: it
    // reuses every object, and the first session's figures stay its own.
    quor::compiler::BuildSession other;
    {
        ScopedRuntime runtime({library().native(), cacheRoot().native(), 2});
        const quor::compiler::BuildSession::Scope scope(&other);
        Compiler::precompileSources(sources, nullptr, {});
    }
    EXPECT_EQ(other.summary().reused, 3u);
    EXPECT_EQ(other.summary().compiled, 0u);
    EXPECT_EQ(session_.summary().compiled, 3u);
    EXPECT_EQ(session_.summary().reused, 0u);
}

TEST_F(PrecompilerTest, StoppingOneSessionsReadsLeavesAnothersAlone) {
    const std::string unit = add("pkg/Unit.qr", "package pkg\nstruct Unit {}\n");
    quor::compiler::BuildSession stopped;
    quor::compiler::BuildSession running;
    stopped.stopReads();
    SourceManager::instance().clear();
    // A thread of each session, at once.
    std::string seenByStopped;
    std::string seenByRunning;
    std::thread first([&] {
        const quor::compiler::BuildSession::Scope scope(&stopped);
        try {
            SourceManager::instance().contents(unit);
            seenByStopped = "read";
        } catch (const quor::compiler::ReadsStopped&) {
            seenByStopped = "stopped";
        }
    });
    std::thread second([&] {
        const quor::compiler::BuildSession::Scope scope(&running);
        const auto text = SourceManager::instance().contents(unit);
        seenByRunning = text ? "read" : "unreadable";
    });
    first.join();
    second.join();
    EXPECT_EQ(seenByStopped, "stopped");
    EXPECT_EQ(seenByRunning, "read");

    // The precompiler's workers read under the session of the caller: a
    // stopped build ends with ReadsStopped, as it was thrown.
    SourceManager::instance().clear();
    ScopedRuntime runtime({library().native(), cacheRoot().native(), 2});
    const quor::compiler::BuildSession::Scope scope(&stopped);
    EXPECT_THROW(Compiler::precompileSources({unit}, nullptr, {}), quor::compiler::ReadsStopped);
    stopped.resumeReads();
    EXPECT_NO_THROW(Compiler::precompileSources({unit}, nullptr, {}));
    EXPECT_EQ(stopped.summary().compiled, 1u);
}

TEST_F(PrecompilerTest, AnEmptyBatchLeavesNoObjectBehind) {
    compile({add("core/Int.qr", "package core\nstruct Int { }\n")}, 2);
    ASSERT_EQ(findNames(libCache(), ".qo").size(), 1u);
    compile({}, 2);
    EXPECT_TRUE(reports_.empty());
    EXPECT_TRUE(findNames(libCache(), ".qo").empty());
}

} // namespace
