// The runtime's settings resolution: configure() first, then the environment,
// then the defaults of the installation; for the library's location, those of
// the build tree or of the installed package (LibraryLocation.h). Every path is
// resolved once, when the runtime is created and on each configure(), so that
// the getters can hand out references to stable strings.

#include "compiler/Runtime.h"

#include "compiler/CacheLayout.h"
#include "compiler/LibraryLocation.h"
#include "quor/Config.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

// A set, non-empty environment variable, or an empty string.
std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

std::string homeDirectory() {
    std::string home = environment("HOME");
    if (!home.empty()) {
        return home;
    }
    // A service started without HOME still has a password-database entry.
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return {};
}

std::string defaultCacheRoot() {
    // The base-directory convention ignores relative values of XDG_CACHE_HOME.
    std::string xdg = environment("XDG_CACHE_HOME");
    if (!xdg.empty() && fs::path(xdg).is_absolute()) {
        return (fs::path(xdg) / "quor").native();
    }
    std::string home = homeDirectory();
    if (!home.empty()) {
        return (fs::path(home) / ".cache" / "quor").native();
    }
    std::error_code error;
    fs::path temporary = fs::temp_directory_path(error);
    if (error) {
        temporary = "/tmp";
    }
    return (temporary / ("quor-cache-" + std::to_string(getuid()))).native();
}

// A positive decimal job count, or 0 when `text` is not one.
unsigned parseJobs(const std::string& text) {
    unsigned value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return 0;
    }
    return value;
}

} // namespace

namespace location {

fs::path besideProgram() {
    std::error_code error;
    const fs::path executable = fs::read_symlink("/proc/self/exe", error);
    if (error || executable.empty()) {
        return {};
    }
    return (executable.parent_path() / ".." / "share" / "quor" / "stdlib").lexically_normal();
}

fs::path systemCacheBeside(const fs::path& library) {
    return (library.lexically_normal().parent_path() / QUOR_SYSTEM_CACHE_NAME).lexically_normal();
}

bool isDirectory(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

} // namespace location

Runtime& Runtime::getInstance() {
    static Runtime runtime;
    return runtime;
}

Runtime::Runtime() {
    resolve();
}

void Runtime::configure(const RuntimeConfiguration& configuration) {
    configuration_ = configuration;
    resolve();
}

const std::string& Runtime::getCacheBranchPath() const {
    return cacheBranchPath_;
}

const std::string& Runtime::getLibCachePath() const {
    return libCachePath_;
}

std::string Runtime::getStandardLibraryPath() const {
    return standardLibraryPath_;
}

unsigned Runtime::getJobCount() const {
    if (jobCount_ != 0) {
        return jobCount_;
    }
    // Asked of the system only when a build wants it: it reads a file of
    // /sys, which the ready path of every compiler start need not pay for.
    unsigned hardware = hardwareJobCount_.load(std::memory_order_relaxed);
    if (hardware == 0) {
        hardware = std::max(1u, std::thread::hardware_concurrency());
        hardwareJobCount_.store(hardware, std::memory_order_relaxed);
    }
    return hardware;
}

const std::string& Runtime::getCacheRoot() const {
    return cacheRoot_;
}

const std::string& Runtime::getUserCacheRoot() const {
    return userCacheRoot_;
}

const std::string& Runtime::getSystemCacheRoot() const {
    // The installation's default is found on the file system, which a start
    // served by the user's own cache never needs: it is looked for on the
    // first call, not by every configure().
    if (!systemCacheRootResolved_) {
        systemCacheRoot_ = location::defaultSystemCacheRoot();
        systemCacheRootResolved_ = true;
    }
    return systemCacheRoot_;
}

void Runtime::useCacheRoot(const std::string& cacheRoot) {
    cacheRoot_ = cacheRoot;
    cacheBranchPath_ = layout::cacheBranchPath(cacheRoot_, QUOR_COMPILER_VERSION);
    libCachePath_ = layout::libraryCachePath(cacheBranchPath_);
}

void Runtime::setAdoptionSource(const std::string& libraryCache) {
    adoptionSource_ = libraryCache;
}

const std::string& Runtime::getAdoptionSource() const {
    return adoptionSource_;
}

void Runtime::resolve() {
    standardLibraryPath_ = configuration_.standardLibraryPath;
    if (standardLibraryPath_.empty()) {
        standardLibraryPath_ = environment("QUOR_STDLIB_PATH");
    }
    if (standardLibraryPath_.empty()) {
        standardLibraryPath_ = location::defaultStandardLibraryPath();
    }

    userCacheRoot_ = configuration_.cacheRoot;
    if (userCacheRoot_.empty()) {
        userCacheRoot_ = environment("QUOR_CACHE_DIR");
    }
    if (userCacheRoot_.empty()) {
        userCacheRoot_ = defaultCacheRoot();
    }
    useCacheRoot(userCacheRoot_);
    adoptionSource_.clear();

    // Unlike the others, an empty value here is an answer: no system layer.
    systemCacheRootResolved_ = true;
    if (configuration_.systemCacheRoot) {
        systemCacheRoot_ = *configuration_.systemCacheRoot;
    } else if (const char* system = std::getenv("QUOR_SYSTEM_CACHE_DIR"); system != nullptr) {
        systemCacheRoot_ = system;
    } else {
        systemCacheRoot_.clear();
        systemCacheRootResolved_ = false; // the default: see getSystemCacheRoot()
    }

    // 0: one per hardware thread, counted when first asked for.
    jobCount_ = configuration_.jobs;
    if (jobCount_ == 0) {
        jobCount_ = parseJobs(environment("QUOR_JOBS"));
    }
}

} // namespace quor::compiler
