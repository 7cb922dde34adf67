// The running compiler's first-launch state: which fingerprint file wins, how
// it is read and normalised, the fallback fingerprint, where the state
// directory lies, and the order of the service calls that compute it. The
// state is observed through the marker ensure() publishes and through
// isRequired().

#include "tests/bootstrap/BootstrapFixture.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>

namespace quor::testing {
namespace {

using compiler::StandardLibraryBootstrap;
using compiler::StandardLibraryCacheState;

const std::string kUpper = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF";
const std::string kOther = "FEDCBA9876543210FEDCBA9876543210FEDCBA9876543210FEDCBA9876543210";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

class FirstLaunchState : public BootstrapTest {
protected:
    void SetUp() override {
        BootstrapTest::SetUp();
        writeUnit("core.qr", "type Core\n");
    }

    // The fingerprint that ends up in the marker when the installed file holds `bytes`.
    std::string fingerprintFor(const std::string& bytes) {
        installFingerprint(bytes);
        StandardLibraryBootstrap::ensure({});
        return markerFingerprintLine();
    }
};

TEST_F(FirstLaunchState, BlanksAroundUpperCaseFingerprintAreTrimmedAndLowered) {
    EXPECT_EQ(fingerprintFor("  " + kUpper + "\r"), "fingerprint=" + lower(kUpper));
}

TEST_F(FirstLaunchState, CarriageReturnLineFeedAfterFingerprintIsTrimmed) {
    EXPECT_EQ(fingerprintFor("  " + kUpper + "\r\n"), "fingerprint=" + lower(kUpper));
}

TEST_F(FirstLaunchState, TabsAroundFingerprintAreTrimmed) {
    EXPECT_EQ(fingerprintFor("\t" + kFingerprint + "\t\n"), "fingerprint=" + kFingerprint);
}

TEST_F(FirstLaunchState, MixedCaseFingerprintIsLowered) {
    const std::string mixed = "aBcDeF" + kFingerprint.substr(6);
    EXPECT_EQ(fingerprintFor(mixed + "\n"), "fingerprint=" + lower(mixed));
}

TEST_F(FirstLaunchState, FingerprintWithoutFinalLineFeedIsAccepted) {
    EXPECT_EQ(fingerprintFor(kFingerprint), "fingerprint=" + kFingerprint);
}

TEST_F(FirstLaunchState, LinesAfterTheFirstAreIgnored) {
    EXPECT_EQ(fingerprintFor(kFingerprint + "\nnot a fingerprint\n"),
              "fingerprint=" + kFingerprint);
}

TEST_F(FirstLaunchState, EmptyFirstLineHidesFingerprintOnSecondLine) {
    EXPECT_EQ(fingerprintFor("\n" + kFingerprint + "\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, SixtyThreeDigitsAreIgnored) {
    EXPECT_EQ(fingerprintFor(kFingerprint.substr(1) + "\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, SixtyFiveDigitsAreIgnored) {
    EXPECT_EQ(fingerprintFor(kFingerprint + "0\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, NonHexadecimalCharacterIsIgnored) {
    EXPECT_EQ(fingerprintFor("g" + kFingerprint.substr(1) + "\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, ByteOrderMarkBeforeDigitsIsIgnored) {
    EXPECT_EQ(fingerprintFor("\xEF\xBB\xBF" + kFingerprint + "\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, TrailingVerticalTabIsNotTrimmed) {
    EXPECT_EQ(fingerprintFor(kFingerprint + "\v\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, TrailingFormFeedIsNotTrimmed) {
    EXPECT_EQ(fingerprintFor(kFingerprint + "\f"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, InteriorSpaceMakesFingerprintInvalid) {
    EXPECT_EQ(fingerprintFor(kFingerprint.substr(0, 32) + " " + kFingerprint.substr(33) + "\n"),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, EmptyFingerprintFileIsIgnored) {
    EXPECT_EQ(fingerprintFor(""),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, DirectoryInPlaceOfFingerprintFileIsIgnored) {
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    fs::create_directories(stdlib / ".quor-stdlib-fingerprint");
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(),
              "fingerprint=" + BuildTreeFingerprint::whenInstalledFileGivesNone(3));
}

TEST_F(FirstLaunchState, ChangedFingerprintFileTakesEffectAtNextCall) {
    StandardLibraryBootstrap::ensure({});
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
    installFingerprint(lower(kOther) + "\n");
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=" + lower(kOther));
}

TEST_F(FirstLaunchState, MarkerCarriesVersionAndAbi) {
    setObjectAbiVersion(42);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(readFile(markerPath()), "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=" + kVersion +
                                          "\nabi=42\nfingerprint=" + kFingerprint + "\n");
}

TEST_F(FirstLaunchState, StateDirectoryLiesUnderFirstLaunchOfCacheRoot) {
    const fs::path base = root / "c" / "cache";
    setCacheBranchPath((base / "main").native());
    setLibCachePath((base / "main" / "lib").native());
    StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(StandardLibraryCacheState(base / ".first-launch" / kVersion / "lib", kVersion, 3,
                                          kFingerprint)
                    .isReady());
    EXPECT_TRUE(fs::exists(base / ".first-launch" / kVersion / ".stdlib-bootstrap-lib.lock"));
    EXPECT_FALSE(fs::exists(base / "main"));
}

TEST_F(FirstLaunchState, HandWrittenMarkerInStateDirectoryMakesCacheReady) {
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    expectedState().markReady();
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(FirstLaunchState, LibCacheLeafIsOnlyTheLastComponent) {
    setLibCachePath((root / "elsewhere" / "store").native());
    StandardLibraryBootstrap::ensure({});
    EXPECT_TRUE(
        fs::exists(cacheRoot / ".first-launch" / kVersion / "store" / ".quor-stdlib-ready"));
    EXPECT_TRUE(
        fs::exists(cacheRoot / ".first-launch" / kVersion / ".stdlib-bootstrap-store.lock"));
}

TEST_F(FirstLaunchState, EmptyLibCachePathPutsMarkerInVersionDirectory) {
    setLibCachePath("");
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(pathsBelow(cacheRoot),
              (std::set<std::string>{".first-launch", ".first-launch/" + kVersion,
                                     ".first-launch/" + kVersion + "/.quor-stdlib-ready",
                                     ".first-launch/.stdlib-bootstrap-" + kVersion + ".lock"}));
    EXPECT_TRUE(
        StandardLibraryCacheState(cacheRoot / ".first-launch" / kVersion, kVersion, 3, kFingerprint)
            .isReady());
}

TEST_F(FirstLaunchState, LibCachePathEndingInSeparatorPutsMarkerInVersionDirectory) {
    setLibCachePath(lib.native() + "/");
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(pathsBelow(cacheRoot),
              (std::set<std::string>{".first-launch", ".first-launch/" + kVersion,
                                     ".first-launch/" + kVersion + "/.quor-stdlib-ready",
                                     ".first-launch/.stdlib-bootstrap-" + kVersion + ".lock"}));
    EXPECT_FALSE(StandardLibraryBootstrap::isRequired());
}

TEST_F(FirstLaunchState, SingleRelativeBranchComponentGivesRelativeStateDirectory) {
    const fs::path work = root / "work";
    fs::create_directories(work);
    const fs::path previous = fs::current_path();
    fs::current_path(work);
    setCacheBranchPath("main");
    setLibCachePath("main/lib");
    std::string failure;
    try {
        StandardLibraryBootstrap::ensure({});
    } catch (const std::exception& error) {
        failure = error.what();
    }
    fs::current_path(previous);
    EXPECT_EQ(failure, "");
    EXPECT_EQ(pathsBelow(work),
              (std::set<std::string>{".first-launch", ".first-launch/" + kVersion,
                                     ".first-launch/" + kVersion + "/lib",
                                     ".first-launch/" + kVersion + "/lib/.quor-stdlib-ready",
                                     ".first-launch/" + kVersion + "/.stdlib-bootstrap-lib.lock"}));
}

TEST_F(FirstLaunchState, ServiceCallsComeInFixedOrderWithInstalledFingerprint) {
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    EXPECT_EQ(serviceLog(), (std::vector<std::string>{
                                "Runtime::getStandardLibraryPath", // isRequired's own look
                                "Runtime::getStandardLibraryPath", "Compiler::objectAbiVersion",
                                "Runtime::getCacheBranchPath", "Runtime::getLibCachePath"}));
}

TEST_F(FirstLaunchState, RuntimeIsAskedAgainBeforeEachGetter) {
    StandardLibraryBootstrap::isRequired();
    const std::vector<std::string> log = callLog();
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i].rfind("Runtime::get", 0) == 0 && log[i] != "Runtime::getInstance") {
            ASSERT_GT(i, 0u);
            EXPECT_EQ(log[i - 1], "Runtime::getInstance") << "before " << log[i] << " at " << i;
        }
    }
}

// Tests that set the build tree's fingerprint file themselves.
class FirstLaunchFallback : public FirstLaunchState {
protected:
    BuildTreeFingerprint::Mode buildTreeMode() const override {
        return BuildTreeFingerprint::Mode::Exclusive;
    }
};

TEST_F(FirstLaunchFallback, InvalidInstalledFileFallsBackToBuildTreeFile) {
    buildTree->write("  " + kOther + "\n");
    EXPECT_EQ(fingerprintFor(kFingerprint + "0\n"), "fingerprint=" + lower(kOther));
}

TEST_F(FirstLaunchFallback, MissingInstalledFileFallsBackToBuildTreeFile) {
    buildTree->write(lower(kOther));
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=" + lower(kOther));
}

TEST_F(FirstLaunchFallback, ValidInstalledFileWinsOverBuildTreeFile) {
    buildTree->write(lower(kOther) + "\n");
    EXPECT_EQ(fingerprintFor(kFingerprint + "\n"), "fingerprint=" + kFingerprint);
}

// Drains `fd` and reports whether some IN_OPEN event arrived.
bool openedSinceLastDrain(int fd) {
    bool opened = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            return opened;
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            opened = opened || (event->mask & IN_OPEN) != 0;
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

TEST_F(FirstLaunchFallback, ValidInstalledFileMeansBuildTreeFileIsNeverOpened) {
    buildTree->write(lower(kOther) + "\n");
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_GE(inotify_add_watch(fd, BuildTreeFingerprint::file().c_str(), IN_OPEN), 0);
    openedSinceLastDrain(fd);

    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    StandardLibraryBootstrap::ensure({});
    EXPECT_FALSE(openedSinceLastDrain(fd));

    // The same watch does see the open once the installed file gives nothing.
    installFingerprint("invalid\n");
    StandardLibraryBootstrap::isRequired();
    EXPECT_TRUE(openedSinceLastDrain(fd));
    close(fd);
}

TEST_F(FirstLaunchFallback, FallbackFingerprintForAbiThree) {
    buildTree->remove();
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    setObjectAbiVersion(3);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=version-" + kVersion + "-abi-3");
}

TEST_F(FirstLaunchFallback, FallbackFingerprintForAbiZero) {
    buildTree->remove();
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    setObjectAbiVersion(0);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=version-" + kVersion + "-abi-0");
}

TEST_F(FirstLaunchFallback, FallbackFingerprintForAbiMinusOne) {
    buildTree->remove();
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    setObjectAbiVersion(-1);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=version-" + kVersion + "-abi--1");
    EXPECT_NE(readFile(markerPath()).find("\nabi=-1\n"), std::string::npos);
}

TEST_F(FirstLaunchFallback, FallbackFingerprintForLowestAbi) {
    buildTree->remove();
    fs::remove(stdlib / ".quor-stdlib-fingerprint");
    setObjectAbiVersion(INT_MIN);
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(),
              "fingerprint=version-" + kVersion + "-abi-" + std::to_string(INT_MIN));
}

TEST_F(FirstLaunchFallback, MalformedBuildTreeFileFallsBackToVersionAndAbi) {
    buildTree->write(kFingerprint + "0\n");
    installFingerprint("nope\n");
    StandardLibraryBootstrap::ensure({});
    EXPECT_EQ(markerFingerprintLine(), "fingerprint=version-" + kVersion + "-abi-3");
}

TEST_F(FirstLaunchFallback, ServiceCallsComeInFixedOrderWithFallback) {
    // Both files exist and are malformed, so both are opened before the ABI
    // number is asked for the fallback.
    buildTree->write("malformed\n");
    installFingerprint("malformed\n");
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int installedWatch =
        inotify_add_watch(fd, (stdlib / ".quor-stdlib-fingerprint").c_str(), IN_OPEN);
    const int buildTreeWatch = inotify_add_watch(fd, BuildTreeFingerprint::file().c_str(), IN_OPEN);
    ASSERT_GE(installedWatch, 0);
    ASSERT_GE(buildTreeWatch, 0);
    setObjectAbiVersionHook([&] {
        alignas(inotify_event) char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
            for (ssize_t offset = 0; offset < got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                logCall(event->wd == installedWatch ? "opened installed fingerprint"
                                                    : "opened build-tree fingerprint");
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
    });
    EXPECT_TRUE(StandardLibraryBootstrap::isRequired());
    close(fd);
    EXPECT_EQ(serviceLog(),
              (std::vector<std::string>{
                  "Runtime::getStandardLibraryPath", "Runtime::getStandardLibraryPath",
                  "opened installed fingerprint", "opened build-tree fingerprint",
                  "Compiler::objectAbiVersion", "Compiler::objectAbiVersion",
                  "Runtime::getCacheBranchPath", "Runtime::getLibCachePath"}));
}

} // namespace
} // namespace quor::testing
