// The library fingerprint as the build computes it (the built quor-stdlib,
// through cmake/WriteStdlibFingerprint.cmake) over scratch trees, its
// agreement with the shell command that docs/stdlib-fingerprint.md gives, the
// file the build writes, and its refresh by an ordinary build.

#include "InstallTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>

namespace quor::tests {
namespace {

namespace fs = std::filesystem;

const fs::path sourceDir = QUOR_TEST_SOURCE_DIR;
const fs::path buildDir = QUOR_TEST_BUILD_DIR;

// The shell command of the documentation, so that the document and the tool
// cannot drift apart unnoticed.
std::string documentedShellCommand() {
    std::istringstream doc(readFile(sourceDir / "docs" / "stdlib-fingerprint.md"));
    std::string line;
    while (std::getline(doc, line)) {
        if (line.rfind("cd \"$ROOT\"", 0) == 0) {
            return line;
        }
    }
    return {};
}

class FingerprintTest : public ::testing::Test {
protected:
    // A small library with nested folders, as the real one has.
    void SetUp() override {
        if (fingerprintTool().empty()) {
            GTEST_SKIP() << "this build has no quor-stdlib to fingerprint with";
        }
        writeFile(lib() / "core" / "Option.qr", "package core\npublic enum Option<T> {\n}\n");
        writeFile(lib() / "core" / "Sized.qr", "package core\npublic interface Sized {\n}\n");
        writeFile(lib() / "collections" / "immutable" / "Vector.qr",
                  "package collections.immutable\npublic class Vector<T> {\n}\n");
        writeFile(lib() / "Prelude.qr", "use core.Option\n");
    }

    fs::path lib() const { return scratch_.path() / "lib"; }
    fs::path out() const { return scratch_.path() / "out" / "quor-stdlib.fingerprint"; }

    // The build's value for the tree as it is now; fails the test if it fails.
    std::string fingerprint() {
        ProcessResult run;
        const std::string value = fingerprintAsTheBuildDoes(lib(), out(), &run);
        EXPECT_EQ(run.status, 0) << run.out;
        return value;
    }

    TemporaryDirectory scratch_{"fingerprint"};
};

TEST_F(FingerprintTest, WritesSixtyFourLowerCaseHexDigitsAndALineFeed) {
    EXPECT_TRUE(std::regex_match(fingerprint(), std::regex("[0-9a-f]{64}\n")));
}

TEST_F(FingerprintTest, ChangingAUnitChangesIt) {
    const std::string before = fingerprint();
    writeFile(lib() / "core" / "Sized.qr",
              "package core\npublic interface Sized {\n    fn count() -> Int\n}\n");
    EXPECT_NE(fingerprint(), before);
}

TEST_F(FingerprintTest, AddingAUnitChangesIt) {
    const std::string before = fingerprint();
    writeFile(lib() / "text" / "format" / "Template.qr", "package text.format\n");
    EXPECT_NE(fingerprint(), before);
}

TEST_F(FingerprintTest, RemovingAUnitChangesIt) {
    const std::string before = fingerprint();
    fs::remove(lib() / "core" / "Option.qr");
    EXPECT_NE(fingerprint(), before);
}

TEST_F(FingerprintTest, RenamingAUnitChangesIt) {
    const std::string before = fingerprint();
    fs::rename(lib() / "core" / "Sized.qr", lib() / "core" / "Counted.qr");
    EXPECT_NE(fingerprint(), before);
}

TEST_F(FingerprintTest, RestoringTheContentRestoresIt) {
    const std::string before = fingerprint();
    const std::string original = readFile(lib() / "Prelude.qr");
    writeFile(lib() / "Prelude.qr", original + "// more\n");
    ASSERT_NE(fingerprint(), before);
    writeFile(lib() / "Prelude.qr", original);
    EXPECT_EQ(fingerprint(), before);
}

TEST_F(FingerprintTest, LinksAndFilesThatAreNotUnitsDoNotCount) {
    const std::string before = fingerprint();
    fs::create_symlink(lib() / "core" / "Option.qr", lib() / "Linked.qr");
    writeFile(scratch_.path() / "elsewhere" / "Outside.qr", "package elsewhere\n");
    fs::create_directory_symlink(scratch_.path() / "elsewhere", lib() / "elsewhere");
    writeFile(lib() / "README.txt", "not a unit\n");
    writeFile(lib() / "core" / "Notes.QR", "upper-case extension\n");
    writeFile(lib() / "core" / "Option.qr.bak", "an editor backup\n");
    writeFile(lib() / ".qr", "a name without a stem has no extension\n");
    writeFile(lib() / ".quor-stdlib-fingerprint", "0000\n");
    fs::create_directories(lib() / "folder.qr");
    EXPECT_EQ(fingerprint(), before);
}

TEST_F(FingerprintTest, HiddenUnitsCountAsTheBootstrapSeesThem) {
    const std::string before = fingerprint();
    writeFile(lib() / ".draft" / "Draft.qr", "package draft\n");
    const std::string withHiddenFolder = fingerprint();
    EXPECT_NE(withHiddenFolder, before);
    writeFile(lib() / "core" / ".Scratch.qr", "package core\n");
    EXPECT_NE(fingerprint(), withHiddenFolder);
}

TEST_F(FingerprintTest, EmptyLibraryHasTheDigestOfAnEmptyManifest) {
    fs::remove_all(lib());
    fs::create_directories(lib());
    // SHA-256 of zero bytes.
    EXPECT_EQ(fingerprint(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n");
}

TEST_F(FingerprintTest, MatchesTheDocumentedShellCommand) {
    const std::string command = documentedShellCommand();
    ASSERT_FALSE(command.empty()) << "no shell command in docs/stdlib-fingerprint.md";
    // Names whose order differs between byte order and a locale's collation,
    // names with spaces, a prefix of a folder name, and files that do not count.
    writeFile(lib() / "a.qr", "a\n");
    writeFile(lib() / "a" / "b.qr", "ab\n");
    writeFile(lib() / "a-b.qr", "a-b\n");
    writeFile(lib() / "Z.qr", "Z\n");
    writeFile(lib() / "with space" / "Two Words.qr", "spaces\n");
    writeFile(lib() / ".hidden" / "H.qr", "hidden\n");
    writeFile(lib() / "Empty.qr", "");
    writeFile(lib() / "skip.txt", "no\n");
    fs::create_symlink(lib() / "a.qr", lib() / "Link.qr");

    ProcessResult shell = runShell(command, {{"ROOT", lib().string()}, {"LC_ALL", "en_US.UTF-8"}});
    ASSERT_EQ(shell.status, 0) << shell.out;
    EXPECT_EQ(fingerprint(), shell.out);
}

TEST_F(FingerprintTest, ShellCommandAgreesOnTheShippedLibrary) {
    const std::string command = documentedShellCommand();
    ASSERT_FALSE(command.empty());
    ProcessResult shell = runShell(command, {{"ROOT", (sourceDir / "stdlib").string()}});
    ASSERT_EQ(shell.status, 0) << shell.out;
    ProcessResult run;
    EXPECT_EQ(fingerprintAsTheBuildDoes(sourceDir / "stdlib", out(), &run), shell.out) << run.out;
}

TEST_F(FingerprintTest, LeavesAnUnchangedFileUntouched) {
    const std::string value = fingerprint();
    const auto past = fs::file_time_type::clock::now() - std::chrono::hours(24);
    fs::last_write_time(out(), past);
    EXPECT_EQ(fingerprint(), value);
    EXPECT_EQ(fs::last_write_time(out()), past);

    writeFile(lib() / "core" / "Sized.qr", "changed\n");
    EXPECT_NE(fingerprint(), value);
    EXPECT_NE(fs::last_write_time(out()), past);
}

TEST_F(FingerprintTest, ReplacesAStaleOrMalformedFile) {
    writeFile(out(), "not a fingerprint\n");
    const std::string value = fingerprint();
    EXPECT_TRUE(std::regex_match(value, std::regex("[0-9a-f]{64}\n")));
    for (const auto& entry : fs::directory_iterator(out().parent_path())) {
        EXPECT_EQ(entry.path().filename(), out().filename()) << "left behind: " << entry.path();
    }
}

// sha256sum escapes a name with a backslash or a line feed, so the shell
// command would print another value; the tool refuses such names instead.
TEST_F(FingerprintTest, RefusesNamesTheShellCommandWouldEscape) {
    for (const char* name : {"back\\slash.qr", "line\nfeed.qr"}) {
        SCOPED_TRACE(name);
        writeFile(lib() / name, "x\n");
        ProcessResult run;
        fingerprintAsTheBuildDoes(lib(), out(), &run);
        EXPECT_NE(run.status, 0);
        EXPECT_NE(run.out.find("unsupported character"), std::string::npos) << run.out;
        EXPECT_FALSE(fs::exists(out()));
        fs::remove(lib() / name);
    }
}

// Names that only a CMake list could not carry are units like any other.
TEST_F(FingerprintTest, TakesNamesTheShellCommandTakes) {
    const std::string command = documentedShellCommand();
    ASSERT_FALSE(command.empty());
    const std::string before = fingerprint();
    writeFile(lib() / "semi;colon.qr", "semicolon\n");
    writeFile(lib() / "brack[et].qr", "brackets\n");
    ProcessResult shell = runShell(command, {{"ROOT", lib().string()}});
    ASSERT_EQ(shell.status, 0) << shell.out;
    const std::string after = fingerprint();
    EXPECT_EQ(after, shell.out);
    EXPECT_NE(after, before);
}

// A failed computation leaves the file as it was rather than removing or
// emptying it.
TEST_F(FingerprintTest, AFailureLeavesThePreviousFile) {
    const std::string value = fingerprint();
    writeFile(lib() / "back\\slash.qr", "x\n");
    ProcessResult run;
    EXPECT_EQ(fingerprintAsTheBuildDoes(lib(), out(), &run), value);
    EXPECT_NE(run.status, 0);
}

TEST_F(FingerprintTest, FailsWithoutALibraryRoot) {
    ProcessResult run;
    fingerprintAsTheBuildDoes(scratch_.path() / "missing", out(), &run);
    EXPECT_NE(run.status, 0);
    EXPECT_FALSE(fs::exists(out()));
}

// The file the build wrote must describe the library as it is in the sources,
// by the documented recipe.
// A project of its own that takes the build's fingerprint rules
// (cmake/StandardLibrary.cmake) for the library at `lib`.
void writeProbeProject(const fs::path& project, const fs::path& lib) {
    writeFile(project / "CMakeLists.txt",
              "cmake_minimum_required(VERSION 3.25)\n"
              "project(FingerprintProbe NONE)\n"
              "set(QUOR_STDLIB_SOURCE_DIR \"" +
                  lib.string() +
                  "\")\n"
                  "include(\"" +
                  (sourceDir / "cmake" / "StandardLibrary.cmake").string() + "\")\n");
}

TEST(BuildTreeFingerprint, MatchesTheShippedLibrary) {
    if (fingerprintTool().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib to fingerprint with";
    }
    const std::string built = readFile(buildDir / "generated" / "quor-stdlib.fingerprint");
    ASSERT_TRUE(std::regex_match(built, std::regex("[0-9a-f]{64}\n")))
        << "missing or malformed build-tree fingerprint: '" << built << "'";
    const std::string command = documentedShellCommand();
    ASSERT_FALSE(command.empty());
    ProcessResult shell = runShell(command, {{"ROOT", (sourceDir / "stdlib").string()}});
    ASSERT_EQ(shell.status, 0) << shell.out;
    EXPECT_EQ(built, shell.out);
}

// An ordinary build refreshes the fingerprint after every kind of change, using
// the project's own build rules on a scratch library. The probe project makes
// no tool of its own, so it is given this build's, as a build without one would.
TEST(BuildTreeFingerprint, EveryBuildRefreshesIt) {
    if (fingerprintTool().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib to fingerprint with";
    }
    TemporaryDirectory scratch("fingerprint-build");
    const fs::path lib = scratch.path() / "lib";
    const fs::path project = scratch.path() / "project";
    const fs::path build = scratch.path() / "build";
    writeFile(lib / "core" / "Sized.qr", "package core\n");
    writeFile(lib / "collections" / "List.qr", "package collections\n");
    writeProbeProject(project, lib);
    ProcessResult configure =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-S", project.string(), "-B", build.string(), "-G",
                    QUOR_TEST_CMAKE_GENERATOR, "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM,
                    "-DQUOR_STDLIB_FINGERPRINT_TOOL=" + fingerprintTool()});
    ASSERT_EQ(configure.status, 0) << configure.out;
    const fs::path file = build / "generated" / "quor-stdlib.fingerprint";
    auto buildAndRead = [&]() {
        ProcessResult built = runProcess({QUOR_TEST_CMAKE_COMMAND, "--build", build.string()});
        EXPECT_EQ(built.status, 0) << built.out;
        return readFile(file);
    };

    const std::string first = buildAndRead();
    ASSERT_TRUE(std::regex_match(first, std::regex("[0-9a-f]{64}\n"))) << first;
    EXPECT_EQ(first, fingerprintAsTheBuildDoes(lib, scratch.path() / "expected"));

    const auto past = fs::file_time_type::clock::now() - std::chrono::hours(24);
    fs::last_write_time(file, past);
    EXPECT_EQ(buildAndRead(), first);
    EXPECT_EQ(fs::last_write_time(file), past) << "rewritten without a change";

    writeFile(lib / "core" / "Sized.qr", "package core\n// changed\n");
    const std::string changed = buildAndRead();
    EXPECT_NE(changed, first);

    writeFile(lib / "time" / "Duration.qr", "package time\n");
    const std::string added = buildAndRead();
    EXPECT_NE(added, changed);

    fs::remove(lib / "collections" / "List.qr");
    const std::string removed = buildAndRead();
    EXPECT_NE(removed, added);
    EXPECT_EQ(removed, fingerprintAsTheBuildDoes(lib, scratch.path() / "expected"));
}

// A build with no quor-stdlib to run says so, and leaves no fingerprint file:
// one from an earlier configuration would describe a library that may have
// changed since, where without one the bootstrap uses its fallback.
TEST(BuildTreeFingerprint, WithoutAToolThereIsNoFileToMislead) {
    TemporaryDirectory scratch("fingerprint-no-tool");
    const fs::path lib = scratch.path() / "lib";
    const fs::path project = scratch.path() / "project";
    const fs::path build = scratch.path() / "build";
    writeFile(lib / "core" / "Sized.qr", "package core\n");
    writeProbeProject(project, lib);
    ProcessResult configure =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-S", project.string(), "-B", build.string(), "-G",
                    QUOR_TEST_CMAKE_GENERATOR, "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM});
    ASSERT_EQ(configure.status, 0) << configure.out;
    EXPECT_NE(configure.out.find("QUOR_STDLIB_FINGERPRINT_TOOL"), std::string::npos)
        << configure.out;
    const fs::path file = build / "generated" / "quor-stdlib.fingerprint";
    writeFile(file, std::string(64, '0') + "\n");
    ProcessResult built = runProcess({QUOR_TEST_CMAKE_COMMAND, "--build", build.string()});
    EXPECT_EQ(built.status, 0) << built.out;
    EXPECT_FALSE(fs::exists(file));
}

} // namespace
} // namespace quor::tests
