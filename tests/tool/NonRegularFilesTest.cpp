// FIFOs, devices and huge sparse files where the readiness marker, the
// installed fingerprint file or the object-ABI record belong. Every case runs
// the built tool as a child process with a kill deadline, so that a tool that
// blocks fails its test instead of stalling the suite, and checks the child's
// peak memory. The verdicts must be those of an ordinary file that reads the
// same: a FIFO, device or socket reads as absent, an over-long line fails its read.

#include "ToolTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace quor::tooltest {
namespace {

using nlohmann::json;

// Long enough for a cold build of the sandbox on a loaded machine, short
// enough that a tool waiting on a FIFO is caught quickly.
constexpr auto deadline = std::chrono::seconds(20);
// Far below what reading a 1 GiB file into memory would take.
constexpr long peakMemoryLimitKiB = 100 * 1024;
constexpr off_t hugeFileSize = off_t{1} << 30;

// Runs the tool with `arguments` on the sandbox, with standard input from
// /dev/null and the same clean environment as the other tool tests. A tool
// still running at the deadline is killed.
ToolRun runBounded(const Sandbox& sandbox, std::vector<std::string> arguments) {
    ProgramOptions options = toolOptions(sandbox.arguments(std::move(arguments)), sandbox.path());
    options.deadline = deadline;
    return runProgram(options);
}

// The run finished by itself, fast, in bounded memory.
void expectPrompt(const ToolRun& run) {
    EXPECT_FALSE(run.killed) << run;
    EXPECT_LT(run.peakKiB, peakMemoryLimitKiB) << run;
}

json statusJson(const Sandbox& sandbox) {
    const ToolRun run = runBounded(sandbox, {"status", "--json"});
    expectPrompt(run);
    EXPECT_EQ(run.status, 0) << run;
    try {
        return json::parse(run.out);
    } catch (const json::exception& error) {
        ADD_FAILURE() << "status printed no JSON: " << error.what() << "\n" << run;
        return json::object();
    }
}

int checkStatus(const Sandbox& sandbox) {
    const ToolRun run = runBounded(sandbox, {"status", "--check", "--quiet"});
    expectPrompt(run);
    return run.status;
}

void ensureSucceeds(const Sandbox& sandbox) {
    const ToolRun run = runBounded(sandbox, {"ensure", "--quiet"});
    expectPrompt(run);
    EXPECT_EQ(run.status, 0) << run;
}

void makeFifo(const fs::path& path) {
    fs::create_directories(path.parent_path());
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0) << path << ": " << std::strerror(errno);
}

// A file of `size` bytes, all zero, that takes no disk space.
void makeSparseFile(const fs::path& path, off_t size) {
    fs::create_directories(path.parent_path());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
    const int result = ftruncate(fd, size);
    const int error = errno;
    close(fd);
    ASSERT_EQ(result, 0) << path << ": " << std::strerror(error);
}

bool isRegularFile(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string markerFor(const json& status) {
    return "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=" +
           status["version"].get<std::string>() +
           "\nabi=" + std::to_string(status["abi"].get<int>()) +
           "\nfingerprint=" + status["fingerprint"].get<std::string>() + "\n";
}

// After the case's ensure: the marker is a regular file that certifies what
// status expects, and both the unit and the tool's diagnosis say ready.
void expectCertified(const Sandbox& sandbox) {
    // Reading a FIFO or device left in place would block or never end here.
    ASSERT_TRUE(isRegularFile(sandbox.marker()));
    const json status = statusJson(sandbox);
    EXPECT_EQ(status["ready"], true) << status.dump(2);
    EXPECT_TRUE(status["reason"].is_null()) << status.dump(2);
    EXPECT_EQ(readFile(sandbox.marker()), markerFor(status));
    EXPECT_EQ(checkStatus(sandbox), 0);
}

// The reason status gives for a marker that does not certify the cache, with
// the unit's verdict and the tool's diagnosis agreeing that it is not ready.
void expectNotReady(const Sandbox& sandbox, const std::string& kind, const std::string& message) {
    const json status = statusJson(sandbox);
    EXPECT_EQ(status["ready"], false) << status.dump(2);
    EXPECT_EQ(status["buildRequired"], true) << status.dump(2);
    EXPECT_EQ(status["reason"]["kind"], kind) << status.dump(2);
    EXPECT_EQ(status["reason"]["message"], message) << status.dump(2);
    EXPECT_EQ(checkStatus(sandbox), 1);
}

TEST(OddMarker, AFifoReadsAsUnreadableAndEnsureReplacesIt) {
    Sandbox sandbox;
    makeFifo(sandbox.marker());
    expectNotReady(sandbox, "unreadable", "the marker is not a regular file (a FIFO)");
    const ToolRun text = runBounded(sandbox, {"status"});
    expectPrompt(text);
    EXPECT_NE(text.out.find("not ready: the marker is not a regular file (a FIFO)"),
              std::string::npos)
        << text;
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
}

TEST(OddMarker, ALinkToDevZeroReadsAsUnreadableAndEnsureReplacesIt) {
    Sandbox sandbox;
    fs::create_directories(sandbox.stateDirectory());
    fs::create_symlink("/dev/zero", sandbox.marker());
    expectNotReady(sandbox, "unreadable", "the marker is not a regular file (a character device)");
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
    struct stat device {};
    ASSERT_EQ(stat("/dev/zero", &device), 0);
    EXPECT_TRUE(S_ISCHR(device.st_mode));
}

TEST(OddMarker, ASocketReadsAsUnreadableAndEnsureReplacesIt) {
    Sandbox sandbox;
    fs::create_directories(sandbox.stateDirectory());
    const std::string path = sandbox.marker().string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path) << path;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    const int bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    close(fd); // the socket file stays behind, which is all this case needs
    ASSERT_EQ(bound, 0) << std::strerror(error);
    expectNotReady(sandbox, "unreadable", "the marker is not a regular file (a socket)");
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
}

TEST(OddMarker, AHugeSparseMarkerIsMalformedAndEnsureReplacesIt) {
    Sandbox sandbox;
    makeSparseFile(sandbox.marker(), hugeFileSize);
    expectNotReady(sandbox, "malformed", "line 1 of the marker is longer than 65536 bytes");
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
}

TEST(OddMarker, ASaneMarkerKeepsItsVerdict) {
    Sandbox sandbox;
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
    const std::string certified = readFile(sandbox.marker());
    const ToolRun again = runBounded(sandbox, {"ensure"});
    expectPrompt(again);
    EXPECT_EQ(again.status, 0) << again;
    EXPECT_NE(again.out.find("already up to date"), std::string::npos) << again;
    EXPECT_EQ(readFile(sandbox.marker()), certified);

    // Values are trimmed whatever their length up to the bound: a fingerprint
    // line padded with blanks to exactly 65536 bytes still certifies.
    const json status = statusJson(sandbox);
    const std::string line = "fingerprint=" + status["fingerprint"].get<std::string>();
    const std::string padded = line + std::string(65536 - line.size(), ' ');
    editMarkerLine(sandbox.marker(), 4, padded);
    EXPECT_EQ(checkStatus(sandbox), 0);
    EXPECT_EQ(statusJson(sandbox)["ready"], true);

    // A marker one line short stays what it always was.
    writeFile(sandbox.marker(), certified.substr(0, certified.rfind("fingerprint=")));
    expectNotReady(sandbox, "malformed", "the marker has 4 of its 5 lines");
}

TEST(OddMarker, ALineOverTheBoundFailsInTheUnitAndTheToolAlike) {
    Sandbox sandbox;
    ensureSucceeds(sandbox);
    const json status = statusJson(sandbox);
    const std::string line = "fingerprint=" + status["fingerprint"].get<std::string>();
    editMarkerLine(sandbox.marker(), 4, line + std::string(65537 - line.size(), ' '));
    expectNotReady(sandbox, "malformed", "line 5 of the marker is longer than 65536 bytes");
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
}

// What status reports with no installed fingerprint file: the identity that a
// non-regular or unusable installed file must leave in place.
json baselineIdentity(const Sandbox& sandbox) {
    const json status = statusJson(sandbox);
    EXPECT_NE(status["fingerprintSource"], "installed");
    return status;
}

void expectInstalledFilePassedOver(const Sandbox& sandbox, const json& baseline) {
    const json status = statusJson(sandbox);
    EXPECT_EQ(status["fingerprint"], baseline["fingerprint"]);
    EXPECT_EQ(status["fingerprintSource"], baseline["fingerprintSource"]);
    EXPECT_EQ(status["fingerprintFile"], baseline["fingerprintFile"]);
    EXPECT_EQ(checkStatus(sandbox), 1);
    ensureSucceeds(sandbox);
    expectCertified(sandbox);
    // The marker certifies the fingerprint the installed file did not give.
    EXPECT_EQ(readFile(sandbox.marker()), markerFor(baseline));
}

TEST(OddFingerprintFile, AFifoIsPassedOver) {
    Sandbox sandbox;
    const json baseline = baselineIdentity(sandbox);
    makeFifo(sandbox.library() / ".quor-stdlib-fingerprint");
    expectInstalledFilePassedOver(sandbox, baseline);
}

TEST(OddFingerprintFile, AHugeSparseFileIsPassedOver) {
    Sandbox sandbox;
    const json baseline = baselineIdentity(sandbox);
    makeSparseFile(sandbox.library() / ".quor-stdlib-fingerprint", hugeFileSize);
    expectInstalledFilePassedOver(sandbox, baseline);
}

TEST(OddFingerprintFile, ALinkToDevZeroIsPassedOver) {
    Sandbox sandbox;
    const json baseline = baselineIdentity(sandbox);
    fs::create_symlink("/dev/zero", sandbox.library() / ".quor-stdlib-fingerprint");
    expectInstalledFilePassedOver(sandbox, baseline);
}

TEST(OddFingerprintFile, AFingerprintPaddedToTheBoundIsStillRead) {
    Sandbox sandbox;
    const std::string digits = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    const fs::path file = sandbox.library() / ".quor-stdlib-fingerprint";
    writeFile(file, digits + std::string(65536 - digits.size(), '\t') + "\n");
    json status = statusJson(sandbox);
    EXPECT_EQ(status["fingerprintSource"], "installed");
    EXPECT_EQ(status["fingerprint"], digits);
    ensureSucceeds(sandbox);
    expectCertified(sandbox);

    // Past the bound the file gives nothing, in the unit as in the tool: the
    // marker written for it no longer certifies the cache.
    writeFile(file, digits + std::string(65537 - digits.size(), '\t') + "\n");
    status = statusJson(sandbox);
    EXPECT_NE(status["fingerprintSource"], "installed");
    EXPECT_EQ(status["ready"], false);
    EXPECT_EQ(status["reason"]["kind"], "mismatch");
    EXPECT_EQ(checkStatus(sandbox), 1);
}

TEST(OddObjectAbiRecord, AFifoReadsAsNoRecordAndIsReplaced) {
    Sandbox sandbox;
    const fs::path record =
        sandbox.cacheRoot() / QUOR_COMPILER_VERSION / "lib" / ".quor-object-abi";
    makeFifo(record);
    const json status = statusJson(sandbox);
    EXPECT_EQ(status["ready"], false);
    EXPECT_EQ(checkStatus(sandbox), 1);
    ensureSucceeds(sandbox);
    ASSERT_TRUE(isRegularFile(record));
    EXPECT_EQ(readFile(record), std::to_string(status["abi"].get<int>()) + "\n");
    expectCertified(sandbox);
}

} // namespace
} // namespace quor::tooltest
