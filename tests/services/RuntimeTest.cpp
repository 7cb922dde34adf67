// The runtime's resolution order: configure() over the environment over the
// installation's defaults, for each setting on its own.

#include "compiler/Runtime.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using quor::compiler::Runtime;
using quor::compiler::RuntimeConfiguration;
using namespace quor::test;

std::string branchOf(const std::string& root) {
    return (fs::path(root) / QUOR_COMPILER_VERSION).native();
}

TEST(RuntimeTest, ConfigurationWinsOverEnvironment) {
    ScopedEnvironment library("QUOR_STDLIB_PATH", "/env/stdlib");
    ScopedEnvironment cache("QUOR_CACHE_DIR", "/env/cache");
    ScopedEnvironment jobs("QUOR_JOBS", "7");
    ScopedRuntime runtime({"/configured/stdlib", "/configured/cache", 3});
    const Runtime& r = Runtime::getInstance();
    EXPECT_EQ(r.getStandardLibraryPath(), "/configured/stdlib");
    EXPECT_EQ(r.getCacheBranchPath(), "/configured/cache/" QUOR_COMPILER_VERSION);
    EXPECT_EQ(r.getLibCachePath(), "/configured/cache/" QUOR_COMPILER_VERSION "/lib");
    EXPECT_EQ(r.getJobCount(), 3u);
}

TEST(RuntimeTest, EnvironmentWinsOverDefaultsAndFillsEmptyConfiguration) {
    ScopedEnvironment library("QUOR_STDLIB_PATH", "/env/stdlib");
    ScopedEnvironment cache("QUOR_CACHE_DIR", "/env/cache");
    ScopedEnvironment jobs("QUOR_JOBS", "7");
    ScopedRuntime runtime({"", "/configured/cache", 0});
    const Runtime& r = Runtime::getInstance();
    EXPECT_EQ(r.getStandardLibraryPath(), "/env/stdlib");
    EXPECT_EQ(r.getCacheBranchPath(), branchOf("/configured/cache"));
    EXPECT_EQ(r.getJobCount(), 7u);

    Runtime::getInstance().configure({});
    EXPECT_EQ(r.getCacheBranchPath(), branchOf("/env/cache"));
}

TEST(RuntimeTest, DefaultsUseXdgCacheHomeThenHome) {
    ScopedEnvironment library("QUOR_STDLIB_PATH", nullptr);
    ScopedEnvironment cache("QUOR_CACHE_DIR", nullptr);
    ScopedEnvironment jobs("QUOR_JOBS", nullptr);
    ScopedEnvironment home("HOME", "/home/someone");
    {
        ScopedEnvironment xdg("XDG_CACHE_HOME", "/xdg/cache");
        ScopedRuntime runtime({});
        EXPECT_EQ(Runtime::getInstance().getCacheBranchPath(), branchOf("/xdg/cache/quor"));
    }
    {
        // A relative XDG_CACHE_HOME is invalid by convention and ignored.
        ScopedEnvironment xdg("XDG_CACHE_HOME", "relative/cache");
        ScopedRuntime runtime({});
        EXPECT_EQ(Runtime::getInstance().getCacheBranchPath(),
                  branchOf("/home/someone/.cache/quor"));
    }
    {
        ScopedEnvironment xdg("XDG_CACHE_HOME", nullptr);
        ScopedRuntime runtime({});
        EXPECT_EQ(Runtime::getInstance().getCacheBranchPath(),
                  branchOf("/home/someone/.cache/quor"));
        EXPECT_EQ(Runtime::getInstance().getLibCachePath(),
                  branchOf("/home/someone/.cache/quor") + "/lib");
    }
}

TEST(RuntimeTest, DefaultJobCountIsHardwareConcurrencyAndBadValuesAreIgnored) {
    unsigned hardware = std::max(1u, std::thread::hardware_concurrency());
    for (const char* value :
         std::initializer_list<const char*>{"", "0", "-2", "four", "3x", nullptr}) {
        ScopedEnvironment jobs("QUOR_JOBS", value);
        ScopedRuntime runtime({});
        EXPECT_EQ(Runtime::getInstance().getJobCount(), hardware) << (value ? value : "unset");
    }
}

TEST(RuntimeTest, BuildTreeDefaultIsTheRepositoryLibrary) {
    // The test program runs from the build tree, with no installed library beside it.
    ScopedEnvironment library("QUOR_STDLIB_PATH", nullptr);
    ScopedRuntime runtime({});
    EXPECT_EQ(Runtime::getInstance().getStandardLibraryPath(),
              (fs::path(QUOR_TEST_SOURCE_DIR) / "stdlib").lexically_normal().native());
}

TEST(RuntimeTest, TheBuildTreeHasNoSystemCache) {
    // No cache a package left on this machine decides what a program of the
    // build tree sees.
    ScopedEnvironment system("QUOR_SYSTEM_CACHE_DIR", nullptr);
    ScopedRuntime runtime({});
    EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), "");
}

TEST(RuntimeTest, TheSystemCacheRootResolvesLikeTheOtherSettings) {
    {
        ScopedEnvironment system("QUOR_SYSTEM_CACHE_DIR", "/srv/site-cache");
        ScopedRuntime runtime({});
        EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), "/srv/site-cache");
    }
    {
        ScopedEnvironment system("QUOR_SYSTEM_CACHE_DIR", "/srv/site-cache");
        quor::compiler::RuntimeConfiguration configuration;
        configuration.systemCacheRoot = "/opt/image-cache";
        ScopedRuntime runtime(configuration);
        EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), "/opt/image-cache");
    }
}

TEST(RuntimeTest, UseCacheRootMovesTheCachePathsAndConfigureMovesThemBack) {
    ScopedRuntime runtime({"", "/home/user/.cache/quor", 1});
    Runtime& instance = Runtime::getInstance();
    instance.useCacheRoot("/usr/share/quor/stdlib-cache");
    instance.setAdoptionSource("/somewhere/lib");
    EXPECT_EQ(instance.getCacheRoot(), "/usr/share/quor/stdlib-cache");
    EXPECT_EQ(instance.getCacheBranchPath(),
              std::string("/usr/share/quor/stdlib-cache/") + QUOR_COMPILER_VERSION);
    EXPECT_EQ(instance.getLibCachePath(),
              std::string("/usr/share/quor/stdlib-cache/") + QUOR_COMPILER_VERSION + "/lib");
    EXPECT_EQ(instance.getUserCacheRoot(), "/home/user/.cache/quor");
    EXPECT_EQ(instance.getJobCount(), 1u);
    instance.configure({"", "/home/user/.cache/quor", 1});
    EXPECT_EQ(instance.getCacheRoot(), "/home/user/.cache/quor");
    EXPECT_EQ(instance.getAdoptionSource(), "");
}

// The installed case needs a program inside an installation prefix: a copy of
// this test program is placed in <prefix>/bin and runs the probe below, which
// checks the expectation handed over in QUOR_TEST_EXPECT_STDLIB.
TEST(RuntimeTest, InstalledDefaultIsTheLibraryBesideTheProgram) {
    TemporaryDirectory prefix;
    fs::path program = prefix.path() / "bin" / "quor_services_tests";
    fs::create_directories(program.parent_path());
    fs::copy_file("/proc/self/exe", program);
    fs::permissions(program, fs::perms::owner_all);
    fs::path installed = prefix.path() / "share" / "quor" / "stdlib";
    fs::create_directories(installed);

    // The default, then an empty QUOR_SYSTEM_CACHE_DIR: unlike the other
    // variables, a set but empty one is an answer, no system cache.
    const std::string besideLibrary = (prefix.path() / "share" / "quor" / "stdlib-cache").native();
    for (const char* system : {static_cast<const char*>(nullptr), ""}) {
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::setenv("QUOR_TEST_EXPECT_STDLIB", installed.c_str(), 1);
            ::setenv("QUOR_TEST_EXPECT_SYSTEM_CACHE", system ? "" : besideLibrary.c_str(), 1);
            ::unsetenv("QUOR_STDLIB_PATH");
            if (system == nullptr) {
                ::unsetenv("QUOR_SYSTEM_CACHE_DIR");
            } else {
                ::setenv("QUOR_SYSTEM_CACHE_DIR", system, 1);
            }
            ::execl(program.c_str(), program.c_str(), "--gtest_filter=RuntimeProbe.*", nullptr);
            ::_exit(127);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0) << (system ? "empty" : "unset");
    }
}

TEST(RuntimeProbe, StandardLibraryPathMatchesExpectation) {
    const char* expected = std::getenv("QUOR_TEST_EXPECT_STDLIB");
    if (expected == nullptr) {
        GTEST_SKIP() << "runs only as the child of InstalledDefaultIsTheLibraryBesideTheProgram";
    }
    EXPECT_EQ(Runtime::getInstance().getStandardLibraryPath(), expected);
    EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(),
              std::getenv("QUOR_TEST_EXPECT_SYSTEM_CACHE"));
}

} // namespace
