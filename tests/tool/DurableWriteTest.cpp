// How a build writes the library cache, seen from inside the tool's process
// through the I/O shim (tests/support/IoShim.c, loaded with LD_PRELOAD): the
// objects are made durable by a syncfs() of the library cache after the last
// of them is in place and before the readiness marker is published, the
// withdrawal of an old marker is made durable before the first object, and a
// write or rename that fails leaves no temporary file in the cache. Neither
// shows in the files a build leaves behind: without its syncfs() the cache
// looks the same until the power fails, and a full disk cannot be had on
// demand.

#include "quor/Config.h"
#include "tests/tool/ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>
#include <sstream>

#ifndef QUOR_IO_SHIM_PATH
#error "QUOR_IO_SHIM_PATH must name the built I/O shim"
#endif

#if defined(__has_feature)
#define QUOR_TEST_HAS_FEATURE(feature) __has_feature(feature)
#else
#define QUOR_TEST_HAS_FEATURE(feature) 0
#endif

namespace quor::tooltest {
namespace {

// The sanitizers' runtimes must be the first library of the process and
// intercept write() and rename() themselves; a preloaded shim ahead of them
// stops the sanitized tool at its start.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) ||                               \
    QUOR_TEST_HAS_FEATURE(address_sanitizer) || QUOR_TEST_HAS_FEATURE(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

bool isInside(const fs::path& path, const fs::path& directory) {
    const fs::path relative = path.lexically_normal().lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

class DurableWrite : public ::testing::Test {
protected:
    void SetUp() override {
        if (kSanitized) {
            GTEST_SKIP() << "the I/O shim cannot be preloaded ahead of a sanitizer runtime; the "
                            "default build runs these tests";
        }
    }

    fs::path libCache() const { return sandbox_.cacheRoot() / QUOR_COMPILER_VERSION / "lib"; }
    fs::path ioLog() const { return sandbox_.path() / "io.log"; }

    // `quor-stdlib ensure` with the shim loaded and logging, plus `settings`
    // ("NAME=value") for it.
    ToolRun ensureThroughShim(std::vector<std::string> settings = {}) const {
        settings.push_back("LD_PRELOAD=" QUOR_IO_SHIM_PATH);
        settings.push_back("QUOR_IO_SHIM_LOG=" + ioLog().native());
        return runTool(sandbox_.arguments({"ensure", "--jobs", "2"}), sandbox_.path(), settings);
    }

    std::vector<std::string> logLines() const {
        std::istringstream text(readFile(ioLog()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }

    // Every file or directory below the cache root whose name marks it as a
    // temporary of the services or of the marker.
    std::vector<std::string> temporariesLeft() const {
        std::vector<std::string> found;
        if (!fs::exists(sandbox_.cacheRoot()))
            return found;
        for (const auto& entry : fs::recursive_directory_iterator(sandbox_.cacheRoot()))
            if (entry.path().filename().native().find(".tmp.") != std::string::npos)
                found.push_back(entry.path().native());
        return found;
    }

    // Runs a build in which the shim fails what `setting` selects, and checks
    // that it fails with `message` (a prefix of the error line after
    // "quor-stdlib: error: ") and leaves neither a temporary nor a marker.
    // Only the shim makes these calls fail, so the message also shows that
    // it was loaded.
    void expectFailureWithoutTemporary(const std::string& setting, const std::string& message) {
        const ToolRun run = ensureThroughShim({setting});
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_NE(run.err.find("quor-stdlib: error: " + message), std::string::npos) << run.err;
        EXPECT_EQ(temporariesLeft(), std::vector<std::string>{});
        EXPECT_FALSE(fs::exists(sandbox_.marker()));
    }

    Sandbox sandbox_;
};

TEST_F(DurableWrite, TheLibraryCacheIsSyncedAfterItsObjectsAndBeforeTheMarker) {
    const ToolRun run = ensureThroughShim();
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> lines = logLines();

    std::optional<std::size_t> lastIntoLibCache;
    std::optional<std::size_t> marker;
    std::vector<std::size_t> syncs;
    std::size_t objects = 0;
    const fs::path canonicalLibCache = fs::canonical(libCache());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::istringstream words(lines[i]);
        std::string call;
        words >> call;
        if (call == "syncfs") {
            std::string directory;
            words >> directory;
            if (fs::path(directory) == canonicalLibCache)
                syncs.push_back(i);
        } else if (call == "rename") {
            std::string from, to;
            words >> from >> to;
            if (fs::path(to).lexically_normal() == sandbox_.marker().lexically_normal())
                marker = i;
            if (isInside(to, libCache())) {
                lastIntoLibCache = i;
                objects += fs::path(to).extension() == ".qo" ? 1 : 0;
            }
        }
    }
    std::ostringstream shown;
    for (const std::string& line : lines)
        shown << line << '\n';

    EXPECT_EQ(objects, Sandbox::compilableUnits) << shown.str();
    ASSERT_TRUE(lastIntoLibCache.has_value()) << shown.str();
    ASSERT_TRUE(marker.has_value()) << shown.str();
    ASSERT_FALSE(syncs.empty()) << "no syncfs() of " << canonicalLibCache << ":\n" << shown.str();
    EXPECT_TRUE(
        std::any_of(syncs.begin(), syncs.end(),
                    [&](std::size_t sync) { return sync > *lastIntoLibCache && sync < *marker; }))
        << "no syncfs() of the library cache between its last rename and the marker's:\n"
        << shown.str();
}

// A build withdraws the marker of the library it replaces before it changes an
// object, and the withdrawal must survive a power cut as surely as the objects
// that follow: otherwise the old marker could come back after a reboot and
// vouch for a half-replaced cache. So the state directory is fsynced after the
// unlink and before the first object lands.
TEST_F(DurableWrite, TheStateDirectoryIsSyncedAfterTheMarkerIsWithdrawnAndBeforeTheFirstObject) {
    writeFile(sandbox_.library() / ".quor-stdlib-fingerprint", std::string(64, 'a') + "\n");
    ASSERT_EQ(runTool(sandbox_.arguments({"ensure", "--quiet"}), sandbox_.path()).status, 0);
    ASSERT_TRUE(fs::exists(sandbox_.marker()));
    // The next release changes one unit and says so in its fingerprint.
    writeFile(sandbox_.library() / "core" / "Text.qr",
              "package core\n\npublic sealed class Text : Object {\n}\n");
    writeFile(sandbox_.library() / ".quor-stdlib-fingerprint", std::string(64, 'b') + "\n");

    const ToolRun run = ensureThroughShim();
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> lines = logLines();

    const fs::path marker = sandbox_.marker().lexically_normal();
    const fs::path stateDirectory = fs::canonical(sandbox_.stateDirectory());
    std::optional<std::size_t> unlinked;
    std::optional<std::size_t> synced;
    std::optional<std::size_t> firstIntoLibCache;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::istringstream words(lines[i]);
        std::string call, path, to;
        words >> call >> path >> to;
        if (call == "unlink" && fs::path(path).lexically_normal() == marker && !unlinked)
            unlinked = i;
        else if (call == "fsync" && fs::path(path) == stateDirectory && unlinked && !synced)
            synced = i;
        else if (call == "rename" && isInside(to, libCache()) && !firstIntoLibCache)
            firstIntoLibCache = i;
    }
    std::ostringstream shown;
    for (const std::string& line : lines)
        shown << line << '\n';

    ASSERT_TRUE(unlinked.has_value()) << "the marker was never withdrawn:\n" << shown.str();
    ASSERT_TRUE(synced.has_value())
        << "no fsync() of " << stateDirectory << " after the withdrawal:\n"
        << shown.str();
    ASSERT_TRUE(firstIntoLibCache.has_value()) << shown.str();
    EXPECT_LT(*synced, *firstIntoLibCache)
        << "an object was written before the withdrawal was durable:\n"
        << shown.str();
    EXPECT_TRUE(fs::exists(sandbox_.marker()));
}

// The library cache is judged again after its syncfs(): what was made durable
// must still be the library cache the marker will vouch for. Here it is moved
// aside the moment the sync returns, after every check made before it, and
// another library cache with a current ABI record takes its place, so that
// only the directory's identity tells them apart.
TEST_F(DurableWrite, ALibraryCacheReplacedWhileItIsSyncedIsNotMarkedReady) {
    const fs::path replacement = libCache().native() + ".replacement";
    const ToolRun version = runTool({"--json", "--version"}, sandbox_.path());
    const int abi = nlohmann::json::parse(version.out)["objectAbi"].get<int>();
    writeFile(replacement / ".quor-object-abi", std::to_string(abi) + "\n");
    const ToolRun run =
        ensureThroughShim({"QUOR_IO_SHIM_REPLACE_AFTER_SYNCFS=" + libCache().native()});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_TRUE(run.err.ends_with("\nquor-stdlib: error: Quor library cache '" +
                                  libCache().native() +
                                  "' was removed or replaced while it was being built; build it "
                                  "again\n"))
        << run.err;
    EXPECT_FALSE(fs::exists(sandbox_.marker()));
    // The shim did replace it: the objects are in the directory moved aside.
    EXPECT_TRUE(fs::exists(libCache().native() + ".replaced/core/Text.qo"));
}

TEST_F(DurableWrite, AnObjectThatCannotBeWrittenLeavesNoTemporary) {
    expectFailureWithoutTemporary(
        "QUOR_IO_SHIM_FAIL_WRITE=.Text.qo.tmp.",
        (sandbox_.library() / "core" / "Text.qr").native() + ":1:1: unable to write its object '" +
            (libCache() / "core" / "Text.qo").native() + "': No space left on device\n");
    // Nor what was written of it before the disk filled up, in its place.
    EXPECT_FALSE(fs::exists(fs::symlink_status(libCache() / "core" / "Text.qo")));
}

TEST_F(DurableWrite, AnObjectThatCannotBeRenamedLeavesNoTemporary) {
    expectFailureWithoutTemporary(
        "QUOR_IO_SHIM_FAIL_RENAME=.Text.qo.tmp.",
        (sandbox_.library() / "core" / "Text.qr").native() + ":1:1: unable to write its object '" +
            (libCache() / "core" / "Text.qo").native() + "': Input/output error\n");
}

TEST_F(DurableWrite, AnAbiRecordThatCannotBeWrittenLeavesNoTemporary) {
    expectFailureWithoutTemporary("QUOR_IO_SHIM_FAIL_WRITE=.quor-object-abi.tmp.",
                                  "Unable to record Quor object ABI '" +
                                      (libCache() / ".quor-object-abi").native() +
                                      "': No space left on device\n");
}

TEST_F(DurableWrite, AnAbiRecordThatCannotBeRenamedLeavesNoTemporary) {
    expectFailureWithoutTemporary("QUOR_IO_SHIM_FAIL_RENAME=.quor-object-abi.tmp.",
                                  "Unable to record Quor object ABI '" +
                                      (libCache() / ".quor-object-abi").native() +
                                      "': Input/output error\n");
}

TEST_F(DurableWrite, AMarkerThatCannotBeWrittenLeavesNoTemporary) {
    expectFailureWithoutTemporary("QUOR_IO_SHIM_FAIL_WRITE=.quor-stdlib-ready.tmp.",
                                  "Unable to flush standard-library cache marker '" +
                                      sandbox_.marker().native() + ".tmp.");
}

TEST_F(DurableWrite, AMarkerThatCannotBeRenamedLeavesNoTemporary) {
    expectFailureWithoutTemporary("QUOR_IO_SHIM_FAIL_RENAME=.quor-stdlib-ready.tmp.",
                                  "Unable to publish standard-library cache marker: "
                                  "Input/output error\n");
}

} // namespace
} // namespace quor::tooltest
