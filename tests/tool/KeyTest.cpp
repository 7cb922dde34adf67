// `quor-stdlib key`, run as the built tool: generate writes a key pair it
// never lets replace another, with the secret private whatever the umask;
// sign and verify round-trip a file, and verify refuses a file changed after
// it was signed, a key nobody listed, and a missing signature.

#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace quor::tooltest {
namespace {

using json = nlohmann::json;

mode_t modeOf(const fs::path& file) {
    struct stat status {};
    EXPECT_EQ(::lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

// The tool with `arguments` in `directory`, under `mask`.
ToolRun runIn(const fs::path& directory, const std::vector<std::string>& arguments,
              mode_t mask = 022) {
    ProgramOptions options = toolOptions(arguments, directory);
    options.workingDirectory = directory;
    const mode_t previous = ::umask(mask);
    ToolRun run = runProgram(options);
    ::umask(previous);
    return run;
}

TEST(KeyTool, GenerateWritesAPrivateSecretAndThePublicLine) {
    const TemporaryDirectory directory("key-tool");
    const ToolRun run = runIn(directory.path(), {"key", "generate", "fleet-1"}, 0);
    ASSERT_EQ(run.status, 0) << run;
    const fs::path secret = directory.path() / "fleet-1.secret";
    const fs::path publicFile = directory.path() / "fleet-1.public";
    // Umask 0 would have left both writable by everybody.
    EXPECT_EQ(modeOf(secret), mode_t(0600));
    EXPECT_EQ(modeOf(publicFile), mode_t(0644));
    EXPECT_EQ(run.out, readFile(publicFile));
    EXPECT_TRUE(run.out.starts_with("fleet-1:")) << run.out;
    EXPECT_NE(run.err.find("./fleet-1.secret"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("./fleet-1.public"), std::string::npos) << run.err;
}

TEST(KeyTool, GenerateRefusesToReplaceAKey) {
    const TemporaryDirectory directory("key-tool");
    ASSERT_EQ(runIn(directory.path(), {"key", "generate", "ci"}).status, 0);
    const std::string secret = readFile(directory.path() / "ci.secret");
    const ToolRun again = runIn(directory.path(), {"key", "generate", "ci", "--json"});
    EXPECT_EQ(again.status, 1) << again;
    EXPECT_NE(again.err.find("Refusing to replace the key file"), std::string::npos) << again;
    const json error = json::parse(again.out);
    EXPECT_EQ(error["kind"], "io");
    EXPECT_EQ(error["exitStatus"], 1);
    EXPECT_EQ(readFile(directory.path() / "ci.secret"), secret);
}

TEST(KeyTool, GenerateRefusesABadNameAsAUsageError) {
    const TemporaryDirectory directory("key-tool");
    for (const char* bad : {"a/b", ".hidden", "a:b"}) {
        const ToolRun run = runIn(directory.path(), {"key", "generate", bad});
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_NE(run.err.find("invalid key name"), std::string::npos) << run;
    }
    EXPECT_TRUE(fs::is_empty(directory.path()));
    EXPECT_EQ(runIn(directory.path(), {"key", "frobnicate", "x"}).status, 2);
    EXPECT_EQ(runIn(directory.path(), {"key", "generate"}).status, 2);
    EXPECT_EQ(runIn(directory.path(), {"key", "sign", "f"}).status, 2);
    EXPECT_EQ(runIn(directory.path(), {"key", "generate", "x", "--keys", "t"}).status, 2);
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST(KeyTool, GenerateWithJsonAndDir) {
    const TemporaryDirectory directory("key-tool");
    const fs::path keys = directory.path() / "keys";
    fs::create_directory(keys);
    const ToolRun run =
        runIn(directory.path(), {"key", "generate", "ci", "--dir", keys.string(), "--json"});
    ASSERT_EQ(run.status, 0) << run;
    const json result = json::parse(run.out);
    EXPECT_EQ(result["schema"], 1);
    EXPECT_EQ(result["name"], "ci");
    EXPECT_EQ(result["secretFile"], (keys / "ci.secret").string());
    EXPECT_EQ(result["publicFile"], (keys / "ci.public").string());
    EXPECT_EQ(result["publicKey"].get<std::string>() + "\n", readFile(keys / "ci.public"));
    EXPECT_EQ(modeOf(keys / "ci.secret"), mode_t(0600));
}

TEST(KeyTool, SignAndVerifyAFile) {
    const TemporaryDirectory directory("key-tool");
    const fs::path& here = directory.path();
    ASSERT_EQ(runIn(here, {"key", "generate", "old"}).status, 0);
    ASSERT_EQ(runIn(here, {"key", "generate", "new"}).status, 0);
    ASSERT_EQ(runIn(here, {"key", "generate", "stranger"}).status, 0);
    writeFile(here / "trusted", "# rotation: both for now\n" + readFile(here / "old.public") +
                                    "garbage line\n" + readFile(here / "new.public"));
    writeFile(here / "pack", "the bytes of a pack\n");

    EXPECT_EQ(runIn(here, {"key", "verify", "pack", "--keys", "trusted"}).status, 1) << "unsigned";
    for (const char* key : {"old.secret", "new.secret"}) {
        ASSERT_EQ(runIn(here, {"key", "sign", "pack", "--key", key}).status, 0);
        const ToolRun verified =
            runIn(here, {"key", "verify", "pack", "--keys", "trusted", "--json"});
        EXPECT_EQ(verified.status, 0) << verified;
        const json result = json::parse(verified.out);
        EXPECT_EQ(result["verdict"], "valid");
        ASSERT_EQ(result["problems"].size(), 1u);
        EXPECT_EQ(result["problems"][0]["line"], 3);
        EXPECT_NE(verified.err.find("trusted:3:"), std::string::npos) << verified;
    }

    writeFile(here / "pack", "the bytes of a pack, changed\n");
    ToolRun refused = runIn(here, {"key", "verify", "pack", "--keys", "trusted", "--json"});
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_EQ(json::parse(refused.out)["verdict"], "bad-signature");
    EXPECT_EQ(json::parse(refused.out)["kind"], "untrusted");

    ASSERT_EQ(runIn(here, {"key", "sign", "pack", "--key", "stranger.secret"}).status, 0);
    refused = runIn(here, {"key", "verify", "pack", "--keys", "trusted", "--json"});
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_EQ(json::parse(refused.out)["verdict"], "unknown-key");
}

// libcrypto is loaded by the first key operation or digest, never by the
// ready path every compiler start takes; the dynamic loader's own report
// (LD_DEBUG) says which libraries a run opened.
TEST(KeyTool, OnlyAKeyOperationLoadsLibcrypto) {
    const Sandbox sandbox;
    const fs::path& home = sandbox.path();
    ASSERT_EQ(runTool(sandbox.arguments({"ensure"}), home).status, 0);
    const ToolRun ready = runTool(sandbox.arguments({"ensure"}), home, {"LD_DEBUG=files"});
    ASSERT_EQ(ready.status, 0) << ready;
    ASSERT_NE(ready.err.find("file="), std::string::npos) << "LD_DEBUG gave no report";
    EXPECT_EQ(ready.err.find("libcrypto"), std::string::npos) << ready.err;

    const fs::path keys = home / "keys";
    fs::create_directory(keys);
    const ToolRun generated =
        runTool({"key", "generate", "ci", "--dir", keys.string()}, home, {"LD_DEBUG=files"});
    ASSERT_EQ(generated.status, 0) << generated;
    EXPECT_NE(generated.err.find("libcrypto"), std::string::npos) << generated.err;
}

} // namespace
} // namespace quor::tooltest
