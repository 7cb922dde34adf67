// `quor-stdlib fingerprint`: the library fingerprint computed by the tool, the
// one the build writes with it, must be the one the documented shell command
// prints, on a tree with every kind of entry the recipe rules on; --write
// makes the bootstrap notice edits to a library the build never saw; `status`
// warns while the fingerprint in use describes another tree.

#include "quor/Config.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <sys/stat.h>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// What `command` prints on standard output, through /bin/sh.
std::string shellOutput(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return output;
    char buffer[4096];
    while (std::size_t got = fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, got);
    pclose(pipe);
    return output;
}

// The fingerprint by the shell command docs/stdlib-fingerprint.md gives.
std::string shellFingerprint(const fs::path& root) {
    return trimmed(
        shellOutput("cd " + shellQuoted(root.string()) +
                    " && find . -type f -name '*.qr' ! -name .qr -printf '%P\\0' | "
                    "LC_ALL=C sort -z | xargs -0r sha256sum -- | sha256sum | cut -c1-64"));
}

std::string toolFingerprint(const Sandbox& sandbox, const fs::path& root) {
    const ToolRun run = runTool({"fingerprint", root.string()}, sandbox.path());
    EXPECT_EQ(run.status, 0) << run.err;
    return trimmed(run.out);
}

// Every entry the recipe has a rule for: hidden names, hidden and nested
// folders, a file named exactly ".qr", other extensions, links to a unit and
// to a folder of units, an empty unit, a FIFO named like a unit, names that
// sort differently by bytes than by letters.
void plantEveryKindOfEntry(const fs::path& root) {
    writeFile(root / "a.qr", "package a\n");
    writeFile(root / "a" / "b.qr", "package a\n\npublic class b {\n}\n");
    writeFile(root / "Z.qr", "package z\n");
    writeFile(root / ".draft.qr", "draft\n");
    writeFile(root / ".hidden" / "Inside.qr", "inside\n");
    writeFile(root / ".qr", "not a unit\n");
    writeFile(root / "Notes.QR", "not a unit\n");
    writeFile(root / "list.qr.bak", "not a unit\n");
    writeFile(root / "with space.qr", "spaced\n");
    writeFile(root / "Empty.qr", "");
    writeFile(root / "deep" / "er" / "still" / "Deep.qr", "deep\n");
    fs::create_symlink("a.qr", root / "Link.qr");
    fs::create_directory_symlink("a", root / "linked");
    ASSERT_EQ(mkfifo((root / "Pipe.qr").c_str(), 0644), 0);
}

TEST(FingerprintCommand, AgreesWithTheShellCommand) {
    Sandbox sandbox;
    const fs::path root = sandbox.path() / "tricky";
    plantEveryKindOfEntry(root);

    const std::string tool = toolFingerprint(sandbox, root);
    EXPECT_EQ(tool.size(), 64u) << tool;
    EXPECT_EQ(tool, shellFingerprint(root));
    // And the sandbox's own library, links and other extensions included.
    EXPECT_EQ(toolFingerprint(sandbox, sandbox.library()), shellFingerprint(sandbox.library()));
}

TEST(FingerprintCommand, ChangesWithEveryEditRenameAdditionAndRemovalOnly) {
    Sandbox sandbox;
    const fs::path root = sandbox.library();
    const std::string before = toolFingerprint(sandbox, root);

    writeFile(root / "collections" / "Notes.QR", "still not a unit\n");
    writeFile(root / "README", "not a unit\n");
    chmod((root / "core" / "Object.qr").c_str(), 0600);
    EXPECT_EQ(toolFingerprint(sandbox, root), before);

    writeFile(root / "core" / "Text.qr", readFile(root / "core" / "Text.qr") + "\n");
    const std::string edited = toolFingerprint(sandbox, root);
    EXPECT_NE(edited, before);
    fs::rename(root / "core" / "Text.qr", root / "core" / "Texts.qr");
    const std::string renamed = toolFingerprint(sandbox, root);
    EXPECT_NE(renamed, edited);
    writeFile(root / "New.qr", "package new\n");
    const std::string added = toolFingerprint(sandbox, root);
    EXPECT_NE(added, renamed);
    fs::remove(root / "New.qr");
    EXPECT_EQ(toolFingerprint(sandbox, root), renamed);
}

TEST(FingerprintCommand, OfTheShippedLibraryIsTheBuildTreesFingerprint) {
    Sandbox sandbox;
    const ToolRun run = runTool({"fingerprint", QUOR_SOURCE_DIR "/stdlib"}, sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              readFile(fs::path(QUOR_BUILD_TREE_DIR) / "generated" / "quor-stdlib.fingerprint"));
    // It describes the library in use, so there is nothing to advise.
    EXPECT_EQ(run.err, "");
}

TEST(FingerprintCommand, WriteMakesTheBootstrapRebuildAnEditedLibrary) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"--quiet", "ensure"}), sandbox.path()).status, 0);
    writeFile(sandbox.library() / "core" / "Text.qr", "package core\n\nbroken {\n");
    // Judged by the build tree's fingerprint, the edited library looks ready.
    EXPECT_EQ(runTool(sandbox.arguments({"status", "--check"}), sandbox.path()).status, 0);
    const ToolRun advice = runTool(sandbox.arguments({"fingerprint"}), sandbox.path());
    EXPECT_EQ(advice.status, 0);
    EXPECT_NE(advice.err.find("the library has no fingerprint file, and the build tree's "
                              "describes another library; run 'quor-stdlib fingerprint --write " +
                              sandbox.library().string() + "' so that its changes cause a rebuild"),
              std::string::npos)
        << advice.err;

    const ToolRun write = runTool(sandbox.arguments({"fingerprint", "--write"}), sandbox.path());
    ASSERT_EQ(write.status, 0) << write.err;
    const fs::path file = sandbox.library() / ".quor-stdlib-fingerprint";
    EXPECT_EQ(write.err, "quor-stdlib: wrote " + file.string() + "\n");
    EXPECT_EQ(readFile(file), write.out);
    EXPECT_EQ(runTool(sandbox.arguments({"status", "--check"}), sandbox.path()).status, 1);
    const ToolRun build = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(build.status, 1);
    EXPECT_NE(build.err.find("Text.qr"), std::string::npos) << build.err;
}

TEST(FingerprintCommand, WriteLeavesAnUpToDateFileAsItIs) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"fingerprint", "--write"}), sandbox.path()).status, 0);
    const fs::path file = sandbox.library() / ".quor-stdlib-fingerprint";
    struct stat before {};
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    const ToolRun again = runTool(sandbox.arguments({"fingerprint", "--write"}), sandbox.path());
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.err, "quor-stdlib: " + file.string() + " is up to date\n");
    struct stat after {};
    ASSERT_EQ(stat(file.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
}

TEST(FingerprintCommand, JsonReportsTheValueTheFileAndWhatWasWritten) {
    Sandbox sandbox;
    const ToolRun run =
        runTool(sandbox.arguments({"--json", "fingerprint", "--write"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    const json report = json::parse(run.out);
    EXPECT_EQ(report["schema"], 1);
    EXPECT_EQ(report["library"], sandbox.library().string());
    EXPECT_EQ(report["units"], 5); // the generic one counts: it is part of the library
    EXPECT_EQ(report["file"], (sandbox.library() / ".quor-stdlib-fingerprint").string());
    EXPECT_EQ(report["recorded"], nullptr);
    EXPECT_EQ(report["written"], true);
    EXPECT_EQ(report["fingerprint"].get<std::string>() + "\n",
              readFile(sandbox.library() / ".quor-stdlib-fingerprint"));
}

TEST(FingerprintCommand, RefusesANameTheManifestCannotCarry) {
    Sandbox sandbox;
    writeFile(sandbox.library() / "back\\slash.qr", "package x\n");
    const ToolRun run = runTool(sandbox.arguments({"--json", "fingerprint"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quor-stdlib: error: Unable to fingerprint '" + sandbox.library().string() +
                           "': unsupported character in file name 'back\\slash.qr' (a line feed "
                           "or a backslash)\n");
    EXPECT_EQ(json::parse(run.out)["kind"], "io");
    EXPECT_FALSE(fs::exists(sandbox.library() / ".quor-stdlib-fingerprint"));
}

TEST(FingerprintCommand, MissingLibraryIsAnError) {
    Sandbox sandbox;
    const ToolRun run =
        runTool({"fingerprint", (sandbox.path() / "absent").string()}, sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("absent': No such file or directory"), std::string::npos) << run.err;
}

TEST(StatusCommand, WarnsWhileTheFingerprintInUseDescribesAnotherLibrary) {
    Sandbox sandbox;
    const ToolRun before = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(before.out.find("warning: the library has no fingerprint file, and the build "
                              "tree's describes another library; run 'quor-stdlib fingerprint "
                              "--write " +
                              sandbox.library().string() + "'"),
              std::string::npos)
        << before.out;
    const json warned =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    EXPECT_NE(warned["fingerprintWarning"], nullptr);
    EXPECT_NE(warned["libraryFingerprint"], warned["fingerprint"]);

    ASSERT_EQ(runTool(sandbox.arguments({"fingerprint", "--write"}), sandbox.path()).status, 0);
    const json quiet =
        json::parse(runTool(sandbox.arguments({"--json", "status"}), sandbox.path()).out);
    EXPECT_EQ(quiet["fingerprintWarning"], nullptr);
    EXPECT_EQ(quiet["libraryFingerprint"], quiet["fingerprint"]);
    EXPECT_EQ(runTool(sandbox.arguments({"status"}), sandbox.path()).out.find("warning:"),
              std::string::npos);

    // Edited after the file was written: the file is out of date.
    writeFile(sandbox.library() / "core" / "Object.qr", "package core\n\npublic class Object {}\n");
    const ToolRun stale = runTool(sandbox.arguments({"status"}), sandbox.path());
    EXPECT_NE(stale.out.find("warning: the library's fingerprint file is out of date"),
              std::string::npos)
        << stale.out;
    // --check costs what the ready path costs: no hashing, no warning.
    const json check = json::parse(
        runTool(sandbox.arguments({"--json", "status", "--check"}), sandbox.path()).out);
    EXPECT_EQ(check["libraryFingerprint"], nullptr);
}

} // namespace
} // namespace quor::tooltest
