// `cmake --install` into a scratch prefix: the library with its fingerprint,
// the headers, the static libraries and the CMake package; a consumer project
// built against that package; and the installed tool finding the installed
// library on its own.

#include "InstallTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>

namespace quor::tests {
namespace {

namespace fs = std::filesystem;

const fs::path sourceDir = QUOR_TEST_SOURCE_DIR;
const fs::path buildDir = QUOR_TEST_BUILD_DIR;
const fs::path libDir = QUOR_TEST_INSTALL_LIBDIR;

class InstallTest : public ::testing::Test {
protected:
    // One installation per test process; each test only reads it.
    static void SetUpTestSuite() {
        prefixDir_ = std::make_unique<ScratchDirectory>("install");
        install_ = runProcess({QUOR_TEST_CMAKE_COMMAND, "--install", buildDir.string(), "--prefix",
                               prefixDir_->path().string()});
    }

    static void TearDownTestSuite() { prefixDir_.reset(); }

    void SetUp() override { ASSERT_EQ(install_.exitCode, 0) << install_.output; }

    static fs::path prefix() { return prefixDir_->path(); }
    static fs::path stdlib() { return prefix() / "share" / "quor" / "stdlib"; }

    static inline std::unique_ptr<ScratchDirectory> prefixDir_;
    static inline ProcessResult install_;
};

TEST_F(InstallTest, InstallsEveryLibraryUnitInItsFolder) {
    const std::vector<std::string> units = libraryUnits(sourceDir / "stdlib");
    ASSERT_FALSE(units.empty());
    EXPECT_EQ(libraryUnits(stdlib()), units);
    for (const std::string& unit : units) {
        EXPECT_EQ(readFile(stdlib() / unit), readFile(sourceDir / "stdlib" / unit)) << unit;
    }
}

TEST_F(InstallTest, InstalledFingerprintDescribesTheInstalledLibrary) {
    const std::string installed = readFile(stdlib() / ".quor-stdlib-fingerprint");
    ASSERT_TRUE(std::regex_match(installed, std::regex("[0-9a-f]{64}\n"))) << installed;
    EXPECT_EQ(installed, readFile(buildDir / "generated" / "quor-stdlib.fingerprint"));
    ScratchDirectory scratch("install-fp");
    EXPECT_EQ(fingerprintWithScript(stdlib(), scratch.path() / "fp"), installed);
}

// The fingerprint is written by install code rather than copied, so it has to
// be added to the manifest by hand for uninstallers and packagers to see it.
// (The tests of this suite hold a resource lock: each installation rewrites
// the build tree's manifest.)
TEST_F(InstallTest, RecordsTheFingerprintInTheInstallManifest) {
    const std::string manifest = readFile(buildDir / "install_manifest.txt");
    EXPECT_NE(manifest.find((stdlib() / ".quor-stdlib-fingerprint").string() + "\n"),
              std::string::npos)
        << manifest;
}

TEST_F(InstallTest, InstallsThePublicHeaders) {
    const fs::path include = prefix() / "include" / "quor" / "compiler";
    for (const char* header :
         {"StandardLibraryBootstrap.h", "StandardLibraryCacheState.h", "Runtime.h", "Compiler.h",
          "SourceManager.h", "source/TypeHeader.h"}) {
        ASSERT_TRUE(fs::is_regular_file(include / header)) << header;
        EXPECT_EQ(readFile(include / header), readFile(sourceDir / "compiler" / header)) << header;
    }
    // Whatever an installed header includes from the project is installed too.
    const std::regex projectInclude("#include \"([^\"]+)\"");
    for (const auto& entry : fs::recursive_directory_iterator(include)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        const std::string text = readFile(entry.path());
        for (std::sregex_iterator it(text.begin(), text.end(), projectInclude), end; it != end;
             ++it) {
            EXPECT_TRUE(fs::is_regular_file(prefix() / "include" / "quor" / (*it)[1].str()))
                << entry.path() << " includes " << (*it)[1];
        }
    }
}

TEST_F(InstallTest, InstallsTheLibrariesAndThePackage) {
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "libquor_bootstrap.a"));
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "libquor_services.a"));
    const fs::path package = prefix() / libDir / "cmake" / "QuorBootstrap";
    EXPECT_TRUE(fs::is_regular_file(package / "QuorBootstrapConfig.cmake"));
    EXPECT_TRUE(fs::is_regular_file(package / "QuorBootstrapConfigVersion.cmake"));
    const std::string targets = readFile(package / "QuorBootstrapTargets.cmake");
    EXPECT_NE(targets.find("Quor::bootstrap"), std::string::npos);
    EXPECT_NE(targets.find("Quor::services"), std::string::npos);
}

// The acceptance test of the package: a separate project finds it, links the
// bootstrap and the services, and asks isRequired() against a fresh cache.
TEST_F(InstallTest, ConsumerProjectBuildsAndRunsAgainstThePackage) {
    ScratchDirectory scratch("consumer");
    const fs::path build = scratch.path() / "build";
    ProcessResult configure =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-S",
                    (sourceDir / "tests" / "install" / "consumer").string(), "-B", build.string(),
                    "-G", QUOR_TEST_CMAKE_GENERATOR, "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM,
                    "-DCMAKE_CXX_COMPILER=" QUOR_TEST_CXX_COMPILER,
                    "-DCMAKE_PREFIX_PATH=" + prefix().string()});
    ASSERT_EQ(configure.exitCode, 0) << configure.output;
    ProcessResult built = runProcess({QUOR_TEST_CMAKE_COMMAND, "--build", build.string()});
    ASSERT_EQ(built.exitCode, 0) << built.output;

    const fs::path cache = scratch.path() / "cache";
    ProcessResult run =
        runProcess({(build / "consumer").string()},
                   {{"QUOR_CACHE_DIR", cache.string()}, {"QUOR_STDLIB_PATH", std::nullopt}});
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("version=" QUOR_TEST_COMPILER_VERSION "\n"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("stdlib=" + stdlib().string() + "\n"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("required=1\n"), std::string::npos) << run.output;
    EXPECT_FALSE(fs::exists(cache / ".first-launch")) << "isRequired() must create nothing";
}

TEST_F(InstallTest, PackageRefusesAnotherMinorVersion) {
    ScratchDirectory scratch("consumer-version");
    ProcessResult configure = runProcess(
        {QUOR_TEST_CMAKE_COMMAND, "-S", (sourceDir / "tests" / "install" / "consumer").string(),
         "-B", (scratch.path() / "build").string(), "-G", QUOR_TEST_CMAKE_GENERATOR,
         "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM,
         "-DCMAKE_CXX_COMPILER=" QUOR_TEST_CXX_COMPILER, "-DCMAKE_PREFIX_PATH=" + prefix().string(),
         "-DQUOR_REQUIRED_VERSION=0.2"});
    EXPECT_NE(configure.exitCode, 0) << configure.output;
    EXPECT_NE(configure.output.find("QuorBootstrap"), std::string::npos) << configure.output;
}

// The installed tool finds the library installed beside it, with no variable
// pointing there, and certifies the cache with the installed fingerprint.
TEST_F(InstallTest, InstalledToolBuildsTheInstalledLibrary) {
    const fs::path tool = prefix() / "bin" / "quor-stdlib";
    if (!fs::exists(tool)) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    ScratchDirectory scratch("installed-tool");
    const fs::path cache = scratch.path() / "cache";
    ProcessResult run = runProcess({tool.string(), "ensure"},
                                   {{"QUOR_CACHE_DIR", cache.string()},
                                    {"QUOR_STDLIB_PATH", std::nullopt},
                                    {"XDG_CACHE_HOME", std::nullopt}},
                                   scratch.path());
    ASSERT_EQ(run.exitCode, 0) << run.output;
    const std::string marker = readFile(cache / ".first-launch" / QUOR_TEST_COMPILER_VERSION /
                                        "lib" / ".quor-stdlib-ready");
    const std::string installed = readFile(stdlib() / ".quor-stdlib-fingerprint");
    ASSERT_FALSE(installed.empty());
    EXPECT_NE(marker.find("\nfingerprint=" + installed), std::string::npos) << marker;
    EXPECT_NE(marker.find("\nversion=" QUOR_TEST_COMPILER_VERSION "\n"), std::string::npos)
        << marker;
}

} // namespace
} // namespace quor::tests
