// `cmake --install` into a scratch prefix: the library with its fingerprint,
// the headers, the static libraries, the CMake and pkg-config files, the tool's
// manual page and completion, and the documentation. Then the programs built
// against that prefix as a compiler project would build them (with
// find_package, with pkg-config, by hand), each run with no setting pointing at
// the library: they must find the installed one where the prefix lies now,
// whether it was installed there, copied there, staged with DESTDIR, or its
// source tree is gone. The installation's system cache, the library
// precompiled, serves those that choose a cache layer.

#include "InstallTestSupport.h"
#include "quor/Config.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace quor::tests {
namespace {

namespace fs = std::filesystem;

const fs::path sourceDir = QUOR_TEST_SOURCE_DIR;
const fs::path buildDir = QUOR_TEST_BUILD_DIR;
const fs::path libDir = QUOR_TEST_INSTALL_LIBDIR;

// The "key=value" lines of a consumer's output.
std::map<std::string, std::string> keyValues(const std::string& output) {
    std::map<std::string, std::string> values;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) {
            values[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return values;
}

// The environment of a program run by a user who set nothing for Quor: only
// the cache root is chosen, so that the test never touches a real cache.
std::map<std::string, std::optional<std::string>> freshCache(const fs::path& cache) {
    return {{"QUOR_CACHE_DIR", cache.string()},
            {"QUOR_STDLIB_PATH", std::nullopt},
            {"QUOR_SYSTEM_CACHE_DIR", std::nullopt},
            {"XDG_CACHE_HOME", std::nullopt}};
}

// The same with the system layer off, as an empty QUOR_SYSTEM_CACHE_DIR turns
// it off: the user's cache is the only one, as before any system cache.
std::map<std::string, std::optional<std::string>> userCacheOnly(const fs::path& cache) {
    auto environment = freshCache(cache);
    environment["QUOR_SYSTEM_CACHE_DIR"] = "";
    return environment;
}

fs::path markerOf(const fs::path& cache) {
    return cache / ".first-launch" / QUOR_COMPILER_VERSION / "lib" / ".quor-stdlib-ready";
}

// A copy of the consumer project outside the source tree, as a downstream
// project would have it.
fs::path copyConsumer(const fs::path& scratch) {
    const fs::path project = scratch / "consumer";
    fs::copy(sourceDir / "tests" / "install" / "consumer", project, fs::copy_options::recursive);
    return project;
}

// Configures and builds a CMake project against the package under `prefix`;
// empty on success, else what cmake said.
std::string buildWithCMake(const fs::path& project, const fs::path& build, const fs::path& prefix,
                           const std::vector<std::string>& extra = {}) {
    std::vector<std::string> configure = {QUOR_TEST_CMAKE_COMMAND,
                                          "-S",
                                          project.string(),
                                          "-B",
                                          build.string(),
                                          "-G",
                                          QUOR_TEST_CMAKE_GENERATOR,
                                          "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM,
                                          "-DCMAKE_CXX_COMPILER=" QUOR_TEST_CXX_COMPILER,
                                          "-DCMAKE_PREFIX_PATH=" + prefix.string()};
    configure.insert(configure.end(), extra.begin(), extra.end());
    ProcessResult configured = runProcess(configure);
    if (configured.status != 0) {
        return "configure: " + configured.out;
    }
    ProcessResult built = runProcess({QUOR_TEST_CMAKE_COMMAND, "--build", build.string()});
    if (built.status != 0) {
        return "build: " + built.out;
    }
    return {};
}

// Runs the consumer with `argument` ("" or "ensure") against a fresh cache
// and checks that it used the library of `prefix` and that the cache was not
// ready before.
void expectConsumerUsesTheLibraryOf(const fs::path& consumer, const fs::path& prefix,
                                    const fs::path& cache, bool ensure = false) {
    ProcessResult run = runProcess({consumer.string(), ensure ? "ensure" : ""}, freshCache(cache));
    ASSERT_EQ(run.status, 0) << run.out;
    const auto values = keyValues(run.out);
    EXPECT_EQ(values.count("stdlib") ? values.at("stdlib") : "",
              (prefix / "share" / "quor" / "stdlib").string())
        << run.out;
    EXPECT_EQ(values.count("branch") ? values.at("branch") : "",
              (cache / QUOR_COMPILER_VERSION).string())
        << run.out;
    EXPECT_EQ(values.count("required") ? values.at("required") : "", "1") << run.out;
    if (ensure) {
        EXPECT_EQ(values.count("bootstrapped") ? values.at("bootstrapped") : "", "1") << run.out;
        EXPECT_EQ(values.count("requiredAfter") ? values.at("requiredAfter") : "", "0") << run.out;
        const std::string installed =
            readFile(prefix / "share" / "quor" / "stdlib" / ".quor-stdlib-fingerprint");
        ASSERT_FALSE(installed.empty());
        EXPECT_NE(readFile(markerOf(cache)).find("\nfingerprint=" + installed), std::string::npos)
            << readFile(markerOf(cache));
    } else {
        EXPECT_FALSE(fs::exists(cache / ".first-launch")) << "isRequired() must create nothing";
    }
}

class InstallTest : public ::testing::Test {
protected:
    // One installation per test process; each test only reads it.
    static void SetUpTestSuite() {
        prefixDir_ = std::make_unique<TemporaryDirectory>("install");
        install_ = runProcess({QUOR_TEST_CMAKE_COMMAND, "--install", buildDir.string(), "--prefix",
                               prefixDir_->path().string()});
    }

    static void TearDownTestSuite() { prefixDir_.reset(); }

    void SetUp() override { ASSERT_EQ(install_.status, 0) << install_.out; }

    static fs::path prefix() { return prefixDir_->path(); }
    static fs::path stdlib() { return prefix() / "share" / "quor" / "stdlib"; }
    static fs::path systemCache() { return prefix() / "share" / "quor" / QUOR_SYSTEM_CACHE_NAME; }
    static fs::path tool() { return prefix() / "bin" / "quor-stdlib"; }
    static fs::path docs() { return prefix() / "share" / "doc" / "quor-bootstrap"; }

    static inline std::unique_ptr<TemporaryDirectory> prefixDir_;
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
    TemporaryDirectory scratch("install-fp");
    EXPECT_EQ(fingerprintAsTheBuildDoes(stdlib(), scratch.path() / "fp"), installed);
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

// The system cache is the installed library precompiled by the installation
// itself: certified for the installed fingerprint, an object for every unit
// the marker vouches for, without the build lock (a cache used read-only never
// takes it), readable by everyone, and every file of it in the manifest.
TEST_F(InstallTest, InstallsTheSystemCacheOfTheInstalledLibrary) {
    if (fingerprintTool().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib to precompile the library with";
    }
    const std::string installed = readFile(stdlib() / ".quor-stdlib-fingerprint");
    ASSERT_FALSE(installed.empty());
    const std::string marker = readFile(markerOf(systemCache()));
    EXPECT_NE(marker.find("\nfingerprint=" + installed), std::string::npos) << marker;
    EXPECT_NE(marker.find("\nversion=" QUOR_COMPILER_VERSION "\n"), std::string::npos) << marker;
    EXPECT_TRUE(fs::is_regular_file(systemCache() / QUOR_COMPILER_VERSION / "lib" / "Prelude.qo"));

    const std::string manifest = readFile(buildDir / "install_manifest.txt");
    std::size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(systemCache())) {
        if (entry.is_directory()) {
            continue;
        }
        ++files;
        EXPECT_TRUE(entry.is_regular_file()) << entry.path();
        EXPECT_FALSE(entry.path().filename().string().ends_with(".lock")) << entry.path();
        EXPECT_NE(manifest.find(entry.path().string() + "\n"), std::string::npos)
            << entry.path() << " is not in the install manifest";
    }
    EXPECT_GT(files, 2U);
}

// Every user reads the system cache, whatever the umask of whoever installed
// it: its folders are 0755 and its files 0644 even when the installation ran
// under a umask that keeps everything private.
TEST_F(InstallTest, SystemCacheIsReadableByAllWhateverTheUmask) {
    if (fingerprintTool().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib to precompile the library with";
    }
    TemporaryDirectory scratch("install-umask");
    const fs::path prefix = scratch.path() / "prefix";
    ProcessResult installed =
        runShell("umask 077 && '" QUOR_TEST_CMAKE_COMMAND "' --install '" + buildDir.string() +
                 "' --component stdlib --prefix '" + prefix.string() + "'");
    ASSERT_EQ(installed.status, 0) << installed.out;
    const fs::path cache = prefix / "share" / "quor" / QUOR_SYSTEM_CACHE_NAME;
    ASSERT_TRUE(fs::is_regular_file(markerOf(cache))) << installed.out;
    EXPECT_EQ(fs::status(cache).permissions(), fs::perms(0755));
    for (const auto& entry : fs::recursive_directory_iterator(cache)) {
        EXPECT_EQ(entry.symlink_status().permissions(),
                  entry.is_directory() ? fs::perms(0755) : fs::perms(0644))
            << entry.path();
    }
}

TEST_F(InstallTest, InstallsThePublicHeaders) {
    const fs::path include = prefix() / "include" / "quor" / "compiler";
    for (const char* header :
         {"StandardLibraryBootstrap.h", "StandardLibraryCacheState.h", "CacheLayers.h", "Runtime.h",
          "Compiler.h", "SourceManager.h", "CacheTrust.h", "source/TypeHeader.h"}) {
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
    // The default location is the services' own business.
    EXPECT_FALSE(fs::exists(include / "LibraryLocation.h"));
}

TEST_F(InstallTest, InstallsTheLibrariesAndThePackages) {
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "libquor_bootstrap.a"));
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "libquor_services.a"));
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "libquor_layers.a"));
    const fs::path package = prefix() / libDir / "cmake" / "QuorBootstrap";
    EXPECT_TRUE(fs::is_regular_file(package / "QuorBootstrapConfig.cmake"));
    EXPECT_TRUE(fs::is_regular_file(package / "QuorBootstrapConfigVersion.cmake"));
    const std::string targets = readFile(package / "QuorBootstrapTargets.cmake");
    EXPECT_NE(targets.find("Quor::bootstrap"), std::string::npos);
    EXPECT_NE(targets.find("Quor::services"), std::string::npos);
    EXPECT_NE(targets.find("Quor::layers"), std::string::npos);
    EXPECT_TRUE(fs::is_regular_file(prefix() / libDir / "pkgconfig" / "quor-bootstrap.pc"));
    // Beside the library, where the installed services look for it.
    EXPECT_EQ(readFile(prefix() / "share" / "quor" / "PackageLocation.cpp"),
              readFile(sourceDir / "compiler" / "package" / "PackageLocation.cpp"));
}

TEST_F(InstallTest, InstallsTheDocumentationAndTheExamples) {
    EXPECT_EQ(readFile(docs() / "README.md"), readFile(sourceDir / "README.md"));
    for (const auto& entry : fs::recursive_directory_iterator(sourceDir / "docs")) {
        if (entry.is_regular_file()) {
            const fs::path relative = fs::relative(entry.path(), sourceDir / "docs");
            EXPECT_EQ(readFile(docs() / relative), readFile(entry.path())) << relative;
        }
    }
    EXPECT_TRUE(fs::is_regular_file(docs() / "embedding.md"));
    EXPECT_EQ(readFile(docs() / "examples" / "driver" / "main.cpp"),
              readFile(sourceDir / "examples" / "driver" / "main.cpp"));
}

TEST_F(InstallTest, InstallsTheManualPageAndTheCompletion) {
    if (!fs::exists(tool())) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    const std::string page = readFile(prefix() / "share" / "man" / "man1" / "quor-stdlib.1");
    ASSERT_FALSE(page.empty());
    EXPECT_NE(page.find(".TH QUOR\\-STDLIB 1"), std::string::npos) << page;
    // What the tool's own help lists, the page lists.
    ProcessResult help = runProcess({tool().string(), "help"});
    ASSERT_EQ(help.status, 0) << help.out;
    for (const char* subcommand : {"status", "ensure", "prune", "help"}) {
        ASSERT_NE(help.out.find(std::string("  ") + subcommand + " "), std::string::npos);
        EXPECT_NE(page.find(std::string(".SS \"quor\\-stdlib ") + subcommand), std::string::npos)
            << subcommand;
    }
    for (const char* option : {"\\-\\-stdlib", "\\-\\-cache\\-root", "\\-\\-json", "\\-\\-timeout",
                               "\\-\\-check", "\\-\\-dry\\-run", "QUOR_CACHE_DIR"}) {
        EXPECT_NE(page.find(option), std::string::npos) << option;
    }
    EXPECT_NE(page.find(".SH EXIT STATUS\n.TP\n.B 0\n"), std::string::npos) << page;
    EXPECT_TRUE(fs::is_regular_file(prefix() / "share" / "bash-completion" / "completions" /
                                    "quor-stdlib"));
}

// The completion, sourced into bash as bash-completion would, answers the
// words a user has typed so far.
TEST_F(InstallTest, CompletionOffersSubcommandsOptionsAndValues) {
    const fs::path script = prefix() / "share" / "bash-completion" / "completions" / "quor-stdlib";
    if (!fs::exists(script)) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    TemporaryDirectory scratch("completion");
    fs::create_directories(scratch.path() / "libs" / "one");
    const auto complete = [&](const std::string& words) {
        ProcessResult run = runProcess(
            {"bash", "-c",
             "source \"$1\"; COMP_WORDS=($2); COMP_CWORD=$(( ${#COMP_WORDS[@]} - 1 )); "
             "[[ $2 == *' ' ]] && { COMP_WORDS+=(''); COMP_CWORD=$(( COMP_CWORD + 1 )); }; "
             "_quor_stdlib; printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '",
             "complete", script.string(), words},
            {}, scratch.path());
        EXPECT_EQ(run.status, 0) << run.out;
        return run.out;
    };
    EXPECT_EQ(complete("quor-stdlib ens"), "ensure ");
    EXPECT_EQ(complete("quor-stdlib pr"), "prune ");
    EXPECT_EQ(complete("quor-stdlib ensure --t"), "--timeout ");
    EXPECT_EQ(complete("quor-stdlib --json status --ch"), "--check ");
    EXPECT_EQ(complete("quor-stdlib --color "), "always auto never ");
    EXPECT_EQ(complete("quor-stdlib --stdlib libs/"), "libs/one ");
    EXPECT_EQ(complete("quor-stdlib --stdlib status ens"), "ensure ")
        << "an option's value is not the subcommand";
    EXPECT_EQ(complete("quor-stdlib help st"), "status ");
    EXPECT_EQ(complete("quor-stdlib prune --dry"), "--dry-run ");
}

// The zsh completion is generated from the same help: it names every
// subcommand and option the tool's help lists, and zsh reads it.
TEST_F(InstallTest, InstallsTheZshCompletion) {
    if (!fs::exists(tool())) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    const fs::path script = prefix() / "share" / "zsh" / "site-functions" / "_quor-stdlib";
    const std::string text = readFile(script);
    ASSERT_TRUE(text.starts_with("#compdef quor-stdlib\n")) << text;
    for (const char* word :
         {"'status:", "'ensure:", "'verify:", "'prune:", "'clean:", "'help:", "--stdlib",
          "--cache-root", "--json", "--timeout", "--check", "--dry-run", "--verbose",
          ":WHEN:(auto always never)", ":DIR:_files -/", "'1:subcommand:("}) {
        EXPECT_NE(text.find(word), std::string::npos) << word << "\n" << text;
    }
    if (runProcess({"sh", "-c", "command -v zsh"}).status != 0) {
        GTEST_SKIP() << "zsh is not installed; only the content was checked";
    }
    ProcessResult parsed = runProcess({"zsh", "-n", script.string()});
    EXPECT_EQ(parsed.status, 0) << parsed.out;
    // compinit finds it in the folder the prefix installs to, for the command.
    ProcessResult registered =
        runProcess({"zsh", "-f", "-c",
                    "fpath=(\"$1\" $fpath); autoload -U compinit; compinit -u -D; "
                    "print -r -- ${_comps[quor-stdlib]}",
                    "zsh", script.parent_path().string()});
    EXPECT_EQ(registered.status, 0) << registered.out;
    EXPECT_EQ(registered.out, "_quor-stdlib\n");
}

TEST_F(InstallTest, PackageRefusesAnotherMinorVersion) {
    TemporaryDirectory scratch("consumer-version");
    const std::string failure =
        buildWithCMake(copyConsumer(scratch.path()), scratch.path() / "build", prefix(),
                       {"-DQUOR_REQUIRED_VERSION=0.2"});
    EXPECT_NE(failure.find("configure:"), std::string::npos) << failure;
    EXPECT_NE(failure.find("QuorBootstrap"), std::string::npos) << failure;
}

// The acceptance test of the package: a project outside the source tree finds
// it, includes the headers in both forms, links the bootstrap and the
// services, and with no setting at all gets the installed library; its first
// ensure() builds that library and certifies it with the installed fingerprint.
TEST_F(InstallTest, ConsumerProjectDefaultsToTheInstalledLibrary) {
    TemporaryDirectory scratch("consumer");
    const fs::path build = scratch.path() / "build";
    ASSERT_EQ(buildWithCMake(copyConsumer(scratch.path()), build, prefix()), "");
    expectConsumerUsesTheLibraryOf(build / "consumer", prefix(), scratch.path() / "cache");
    expectConsumerUsesTheLibraryOf(build / "consumer", prefix(), scratch.path() / "cache-2", true);

    // Linked with Quor::layers, it finds the installation's system cache
    // beside the library, ready, and points the runtime at it: a fresh user's
    // cache is neither needed nor created.
    const fs::path cache = scratch.path() / "cache-3";
    ProcessResult layered =
        runProcess({(build / "consumer").string(), "layers"}, freshCache(cache));
    ASSERT_EQ(layered.status, 0) << layered.out;
    const auto values = keyValues(layered.out);
    EXPECT_EQ(values.count("layer") ? values.at("layer") : "", "system") << layered.out;
    EXPECT_EQ(values.count("branch") ? values.at("branch") : "",
              (systemCache() / QUOR_COMPILER_VERSION).string())
        << layered.out;
    EXPECT_EQ(values.count("required") ? values.at("required") : "", "0") << layered.out;
    EXPECT_FALSE(fs::exists(cache));
}

// A prefix copied elsewhere after its installation serves its consumers from
// where it lies now; the place it was installed to may be gone.
TEST_F(InstallTest, CopiedPrefixIsFoundWhereItNowLies) {
    TemporaryDirectory scratch("copied-prefix");
    const fs::path copy = scratch.path() / "elsewhere" / "quor";
    fs::create_directories(copy.parent_path());
    fs::copy(prefix(), copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const fs::path build = scratch.path() / "build";
    ASSERT_EQ(buildWithCMake(copyConsumer(scratch.path()), build, copy), "");
    expectConsumerUsesTheLibraryOf(build / "consumer", copy, scratch.path() / "cache", true);
}

// A packager's staged installation: DESTDIR in front of the prefix. Whoever
// builds against the staging tree gets the staged library.
TEST_F(InstallTest, StagedInstallationIsFoundWhereItLies) {
    TemporaryDirectory scratch("destdir");
    const fs::path stage = scratch.path() / "stage";
    const std::string finalPrefix = "/opt/quor-staged-" + scratch.path().filename().string();
    ProcessResult staged = runProcess(
        {QUOR_TEST_CMAKE_COMMAND, "--install", buildDir.string(), "--prefix", finalPrefix},
        {{"DESTDIR", stage.string()}});
    ASSERT_EQ(staged.status, 0) << staged.out;
    const fs::path stagedPrefix = stage / finalPrefix.substr(1);
    ASSERT_FALSE(fs::exists(finalPrefix)) << "DESTDIR was not honoured";
    EXPECT_EQ(readFile(stagedPrefix / "share" / "quor" / "stdlib" / ".quor-stdlib-fingerprint"),
              readFile(stdlib() / ".quor-stdlib-fingerprint"));
    const fs::path build = scratch.path() / "build";
    ASSERT_EQ(buildWithCMake(copyConsumer(scratch.path()), build, stagedPrefix), "");
    expectConsumerUsesTheLibraryOf(build / "consumer", stagedPrefix, scratch.path() / "cache");
}

// A consumer built by plain `c++ $(pkg-config --cflags --libs quor-bootstrap)`,
// then the example driver as examples/pkg-config/build.sh builds it.
TEST_F(InstallTest, PkgConfigConsumersBuildAndRun) {
    TemporaryDirectory scratch("pkg-config");
    const fs::path project = copyConsumer(scratch.path());
    const std::map<std::string, std::optional<std::string>> pkgConfig = {
        {"PKG_CONFIG_PATH", (prefix() / libDir / "pkgconfig").string()}};
    ProcessResult version = runShell("pkg-config --modversion quor-bootstrap && "
                                     "pkg-config --variable=stdlibdir quor-bootstrap && "
                                     "pkg-config --variable=systemcachedir quor-bootstrap",
                                     pkgConfig);
    ASSERT_EQ(version.status, 0) << version.out;
    std::istringstream lines(version.out);
    std::string modversion, stdlibdir, systemcachedir;
    std::getline(lines, modversion);
    std::getline(lines, stdlibdir);
    std::getline(lines, systemcachedir);
    EXPECT_EQ(modversion, QUOR_COMPILER_VERSION);
    EXPECT_EQ(fs::canonical(stdlibdir), fs::canonical(stdlib()));
    EXPECT_EQ(fs::weakly_canonical(systemcachedir), fs::weakly_canonical(systemCache()));

    ProcessResult built = runShell("cd '" + project.string() +
                                       "' && c++ -std=c++20 -Wall -Wextra -Wpedantic -o consumer "
                                       "main.cpp PrefixedIncludes.cpp "
                                       "$(pkg-config --cflags --libs quor-bootstrap)",
                                   pkgConfig);
    ASSERT_EQ(built.status, 0) << built.out;
    EXPECT_EQ(built.out, "") << "the package's flags bring warnings";
    expectConsumerUsesTheLibraryOf(project / "consumer", prefix(), scratch.path() / "cache", true);

    fs::copy(sourceDir / "examples", scratch.path() / "examples", fs::copy_options::recursive);
    ProcessResult driver = runProcess(
        {"sh", (scratch.path() / "examples" / "pkg-config" / "build.sh").string()}, pkgConfig);
    ASSERT_EQ(driver.status, 0) << driver.out;
    const fs::path quorc = scratch.path() / "examples" / "pkg-config" / "quorc";
    ProcessResult run = runProcess({quorc.string(), "--no-system-cache"},
                                   freshCache(scratch.path() / "driver-cache"));
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("quorc: standard library " + stdlib().string() + "\n"),
              std::string::npos)
        << run.out;
    EXPECT_TRUE(fs::is_regular_file(markerOf(scratch.path() / "driver-cache"))) << run.out;
    // With its defaults it starts from the system cache beside the library.
    ProcessResult layered = runProcess({quorc.string()}, freshCache(scratch.path() / "cache-2"));
    ASSERT_EQ(layered.status, 0) << layered.out;
    EXPECT_NE(layered.out.find("quorc: precompiled in " +
                               (systemCache() / QUOR_COMPILER_VERSION / "lib").string() +
                               " (system cache)\n"),
              std::string::npos)
        << layered.out;
    EXPECT_FALSE(fs::exists(scratch.path() / "cache-2"));
}

// The example driver of docs/embedding.md, built with its own build script
// against the installed package, with the system layer off: on a fresh cache
// it says why the start is slow, builds with a progress line and carries on;
// when another process holds the build lock it says that it waits; once the
// cache is ready it is silent.
TEST_F(InstallTest, ExampleDriverMakesAFreshCacheReady) {
    TemporaryDirectory scratch("driver");
    const fs::path examples = scratch.path() / "examples";
    fs::copy(sourceDir / "examples", examples, fs::copy_options::recursive);
    ProcessResult built = runProcess({"sh", (examples / "driver" / "build.sh").string()},
                                     {{"QUOR_PREFIX", prefix().string()}});
    ASSERT_EQ(built.status, 0) << built.out;
    const fs::path quorc = examples / "driver" / "build" / "quorc";
    const fs::path source = scratch.path() / "hello.qr";
    writeFile(source, "package hello\n");

    // Another process holds the build lock for a while.
    const fs::path cache = scratch.path() / "cache";
    const fs::path lockFile =
        cache / ".first-launch" / QUOR_COMPILER_VERSION / ".stdlib-bootstrap-lib.lock";
    fs::create_directories(lockFile.parent_path());
    const int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    std::thread release([fd] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        ::close(fd);
    });
    ProcessResult first =
        runProcess({quorc.string(), "--no-system-cache", source.string()}, freshCache(cache));
    release.join();
    ASSERT_EQ(first.status, 0) << first.out;
    const std::string& out = first.out;
    const std::size_t notice = out.find("quorc: first start of this compiler version");
    const std::size_t waiting = out.find("quorc: waiting for another process");
    const std::size_t building = out.find("quorc: building the standard library\n");
    const std::size_t ready = out.find("quorc: standard library ready: ");
    ASSERT_NE(notice, std::string::npos) << out;
    ASSERT_NE(waiting, std::string::npos) << out;
    ASSERT_NE(building, std::string::npos) << out;
    ASSERT_NE(ready, std::string::npos) << out;
    EXPECT_LT(notice, waiting);
    EXPECT_LT(waiting, building);
    EXPECT_LT(building, ready);
    // The last progress line shows every unit of the build done.
    std::smatch total;
    ASSERT_TRUE(std::regex_search(out, total, std::regex("standard library ready: ([0-9]+) units")))
        << out;
    EXPECT_NE(total[1].str(), "0");
    EXPECT_NE(out.find("quorc: compiled " + total[1].str() + "/" + total[1].str() + " "),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("quorc: standard library " + stdlib().string() + "\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("quorc: " + source.string() + ": 14 bytes read\n"), std::string::npos)
        << out;
    EXPECT_TRUE(fs::is_regular_file(markerOf(cache)));

    ProcessResult second = runProcess({quorc.string(), "--no-system-cache"}, freshCache(cache));
    ASSERT_EQ(second.status, 0) << second.out;
    EXPECT_EQ(second.out.find("first start"), std::string::npos) << second.out;
    EXPECT_EQ(second.out.find("building"), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("quorc: precompiled in " +
                              (cache / QUOR_COMPILER_VERSION / "lib").string() + " (user cache)\n"),
              std::string::npos)
        << second.out;
    // The user's ready cache comes first, even with the system layer on.
    ProcessResult third = runProcess({quorc.string()}, freshCache(cache));
    ASSERT_EQ(third.status, 0) << third.out;
    EXPECT_NE(third.out.find("quorc: precompiled in " +
                             (cache / QUOR_COMPILER_VERSION / "lib").string() + " (user cache)\n"),
              std::string::npos)
        << third.out;

    // A missing library is an error, not a silent start without one.
    // The system cache stays on: it must not serve a library that is not there.
    ProcessResult missing =
        runProcess({quorc.string(), "--stdlib", (scratch.path() / "no-such-library").string()},
                   freshCache(scratch.path() / "cache-missing"));
    EXPECT_EQ(missing.status, 1) << missing.out;
    EXPECT_NE(missing.out.find("quorc: error: Unable to enumerate Quor standard library"),
              std::string::npos)
        << missing.out;
}

// With its defaults the driver starts from the installation's system cache
// while the user's is not ready: no notice, no build, and nothing created in
// the user's cache. Given a copy of the library that differs from the
// installed one, it builds its user's cache, since the system cache holds
// the installed library's objects and not that copy's.
TEST_F(InstallTest, ExampleDriverStartsFromTheSystemCache) {
    if (!fs::exists(tool())) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    TemporaryDirectory scratch("driver-system");
    const fs::path examples = scratch.path() / "examples";
    fs::copy(sourceDir / "examples", examples, fs::copy_options::recursive);
    ProcessResult built = runProcess({"sh", (examples / "driver" / "build.sh").string()},
                                     {{"QUOR_PREFIX", prefix().string()}});
    ASSERT_EQ(built.status, 0) << built.out;
    const fs::path quorc = examples / "driver" / "build" / "quorc";

    const fs::path cache = scratch.path() / "cache";
    ProcessResult ready = runProcess({quorc.string()}, freshCache(cache));
    ASSERT_EQ(ready.status, 0) << ready.out;
    EXPECT_EQ(ready.out.find("first start"), std::string::npos) << ready.out;
    EXPECT_EQ(ready.out.find("building"), std::string::npos) << ready.out;
    EXPECT_NE(ready.out.find("quorc: precompiled in " +
                             (systemCache() / QUOR_COMPILER_VERSION / "lib").string() +
                             " (system cache)\n"),
              std::string::npos)
        << ready.out;
    EXPECT_FALSE(fs::exists(cache)) << "the system cache served, yet the user's was touched";

    // A system cache named in the configuration wins over the environment's
    // word that there is none.
    ProcessResult named = runProcess({quorc.string(), "--system-cache", systemCache().string()},
                                     userCacheOnly(cache));
    ASSERT_EQ(named.status, 0) << named.out;
    EXPECT_NE(named.out.find(" (system cache)\n"), std::string::npos) << named.out;
    EXPECT_FALSE(fs::exists(cache));

    // An edited copy of the library, fingerprinted anew.
    const fs::path copy = scratch.path() / "edited-stdlib";
    fs::copy(stdlib(), copy, fs::copy_options::recursive);
    writeFile(copy / "Prelude.qr", readFile(copy / "Prelude.qr") + "\n// edited\n");
    ProcessResult fingerprinted =
        runProcess({tool().string(), "--quiet", "fingerprint", "--write", copy.string()});
    ASSERT_EQ(fingerprinted.status, 0) << fingerprinted.out;
    ProcessResult edited =
        runProcess({quorc.string(), "--stdlib", copy.string()}, freshCache(cache));
    ASSERT_EQ(edited.status, 0) << edited.out;
    EXPECT_NE(edited.out.find("quorc: first start of this compiler version"), std::string::npos)
        << edited.out;
    EXPECT_NE(edited.out.find("quorc: precompiled in " +
                              (cache / QUOR_COMPILER_VERSION / "lib").string() + " (user cache)\n"),
              std::string::npos)
        << edited.out;
    const std::string marker = readFile(markerOf(cache));
    EXPECT_NE(marker.find("\nfingerprint=" + readFile(copy / ".quor-stdlib-fingerprint")),
              std::string::npos)
        << marker;
}

// The installed tool finds the library installed beside it, with no variable
// pointing there, and certifies the cache with the installed fingerprint. The
// system layer is off, so that the cache it builds is the user's.
TEST_F(InstallTest, InstalledToolBuildsTheInstalledLibrary) {
    if (!fs::exists(tool())) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    TemporaryDirectory scratch("installed-tool");
    const fs::path cache = scratch.path() / "cache";
    ProcessResult run =
        runProcess({tool().string(), "ensure"}, userCacheOnly(cache), scratch.path());
    ASSERT_EQ(run.status, 0) << run.out;
    const std::string marker = readFile(markerOf(cache));
    const std::string installed = readFile(stdlib() / ".quor-stdlib-fingerprint");
    ASSERT_FALSE(installed.empty());
    EXPECT_NE(marker.find("\nfingerprint=" + installed), std::string::npos) << marker;
    EXPECT_NE(marker.find("\nversion=" QUOR_COMPILER_VERSION "\n"), std::string::npos) << marker;
}

// With its defaults the installed tool, like a compiler, finds the system
// cache beside the installed library ready: ensure compiles nothing and
// creates nothing in the user's cache, and status names the system layer.
TEST_F(InstallTest, InstalledToolUsesTheSystemCache) {
    if (!fs::exists(tool())) {
        GTEST_SKIP() << "the tool is not part of this installation";
    }
    TemporaryDirectory scratch("installed-tool-system");
    const fs::path cache = scratch.path() / "cache";
    ProcessResult ensure =
        runProcess({tool().string(), "--json", "ensure"}, freshCache(cache), scratch.path());
    ASSERT_EQ(ensure.status, 0) << ensure.out;
    EXPECT_NE(ensure.out.find("\"compiled\":0,"), std::string::npos) << ensure.out;
    EXPECT_NE(ensure.out.find("\"layer\":\"system\""), std::string::npos) << ensure.out;
    ProcessResult status =
        runProcess({tool().string(), "--json", "status"}, freshCache(cache), scratch.path());
    ASSERT_EQ(status.status, 0) << status.out;
    EXPECT_TRUE(std::regex_search(
        status.out, std::regex(R"("layer":\s*\{\s*"name":\s*"system",\s*"cacheRoot":\s*")" +
                               systemCache().string() + "\"")))
        << status.out;
    EXPECT_FALSE(fs::exists(cache)) << "the system cache served, yet the user's was touched";
}

// The case the installed package exists for: the package is built from a
// source tree, installed, and the source tree goes away (moved, deleted, or
// on another machine). A consumer built afterwards, with find_package or by
// hand with -l flags only, still defaults to the installed library. This test
// builds its own copy of the sources, so that it can move them away; that copy
// makes no tool, so it is given this build's to fingerprint its library with.
TEST(InstalledPackage, OutlivesItsSourceTree) {
    if (fingerprintTool().empty()) {
        GTEST_SKIP() << "this build has no quor-stdlib to fingerprint the library with";
    }
    TemporaryDirectory scratch("moved-source");
    const fs::path source = scratch.path() / "source";
    const fs::path build = scratch.path() / "build";
    const fs::path prefix = scratch.path() / "prefix";
    fs::create_directories(source);
    for (const char* entry :
         {"CMakeLists.txt", "README.md", "cmake", "compiler", "docs", "examples", "stdlib"}) {
        fs::copy(sourceDir / entry, source / entry, fs::copy_options::recursive);
    }
    ProcessResult configured =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-S", source.string(), "-B", build.string(), "-G",
                    QUOR_TEST_CMAKE_GENERATOR, "-DCMAKE_MAKE_PROGRAM=" QUOR_TEST_MAKE_PROGRAM,
                    "-DCMAKE_CXX_COMPILER=" QUOR_TEST_CXX_COMPILER, "-DCMAKE_BUILD_TYPE=Debug",
                    "-DQUOR_BUILD_TESTS=OFF", "-DQUOR_BUILD_TOOLS=OFF",
                    "-DQUOR_STDLIB_FINGERPRINT_TOOL=" + fingerprintTool(),
                    "-DCMAKE_INSTALL_PREFIX=" + prefix.string()});
    ASSERT_EQ(configured.status, 0) << configured.out;
    ProcessResult built = runProcess({QUOR_TEST_CMAKE_COMMAND, "--build", build.string()});
    ASSERT_EQ(built.status, 0) << built.out;
    ProcessResult installed = runProcess({QUOR_TEST_CMAKE_COMMAND, "--install", build.string()});
    ASSERT_EQ(installed.status, 0) << installed.out;

    fs::rename(source, scratch.path() / "source-moved-away");
    fs::remove_all(build);

    const fs::path project = copyConsumer(scratch.path());
    const fs::path consumerBuild = scratch.path() / "consumer-build";
    ASSERT_EQ(buildWithCMake(project, consumerBuild, prefix), "");
    expectConsumerUsesTheLibraryOf(consumerBuild / "consumer", prefix, scratch.path() / "cache",
                                   true);

    // Without the package's flags, the services fall back to the location
    // they were configured to be installed to.
    const fs::path include = prefix / "include";
    ProcessResult byHand = runShell(
        "cd '" + project.string() + "' && c++ -std=c++20 -o by-hand main.cpp PrefixedIncludes.cpp" +
        " -I'" + (include / "quor").string() + "' -I'" + include.string() + "' -L'" +
        (prefix / libDir).string() +
        "' -lquor_layers -lquor_bootstrap -lquor_services -lcrypto -pthread");
    ASSERT_EQ(byHand.status, 0) << byHand.out;
    expectConsumerUsesTheLibraryOf(project / "by-hand", prefix, scratch.path() / "cache-by-hand");

    // And once the prefix has moved too, such a program installed in its bin
    // folder uses the library beside it.
    const fs::path moved = scratch.path() / "moved-prefix";
    fs::rename(prefix, moved);
    fs::create_directories(moved / "bin");
    fs::copy_file(project / "by-hand", moved / "bin" / "by-hand");
    expectConsumerUsesTheLibraryOf(moved / "bin" / "by-hand", moved,
                                   scratch.path() / "cache-moved");
}

} // namespace
} // namespace quor::tests
