// The ready path in process: isRequired() and ensure() on a cache that is
// already ready, with the real services, against the floor of what that path
// has to do on any implementation: open, read and close the library's
// fingerprint file and the readiness marker with plain system calls.
//
// Then the start of a fresh user served by a ready system cache: the layer
// choice (chooseCacheLayer()) followed by isRequired(), against the floor of
// any layered lookup: the fingerprint read, a failed open of the user's
// marker, the system cache's marker read.
//
// main() builds a one-unit library in a fresh temporary directory, makes its
// cache ready with a real ensure(), runs the benchmarks and removes the
// directory again. The workload script reads the JSON report and turns the
// medians into ratios; nothing here judges the figures.

#include "compiler/CacheLayers.h"
#include "compiler/CacheLayout.h"
#include "compiler/Runtime.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;
using quor::compiler::Runtime;
using quor::compiler::RuntimeConfiguration;
using quor::compiler::StandardLibraryBootstrap;

struct ReadyCache {
    fs::path directory;
    fs::path library;
    fs::path fingerprintFile;
    fs::path marker;
    fs::path systemRoot;   // the same library built as a system cache
    fs::path systemMarker; // its marker
    fs::path freshUser;    // a user cache root that does not exist
};

ReadyCache& readyCache() {
    static ReadyCache cache;
    return cache;
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream stream(path, std::ios::out | std::ios::trunc);
    stream << text;
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + path.native());
    }
}

// A library of one unit with an installed fingerprint, and its cache made
// ready by the real precompiler, so that the marker is the one a compiler
// start finds.
void prepareReadyCache() {
    ReadyCache& cache = readyCache();
    std::string pattern = (fs::temp_directory_path() / "quor-bench-ready-XXXXXX").native();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    cache.directory = pattern;
    cache.library = cache.directory / "stdlib";
    fs::create_directories(cache.library / "core");
    writeFile(cache.library / "core" / "Answer.qr",
              "package core\n\npublic struct Answer {\n    let value: Int = 42\n}\n");
    cache.fingerprintFile = cache.library / quor::compiler::layout::installedFingerprintFile;
    writeFile(cache.fingerprintFile,
              "5f0c2a4be1d36a8f9e7b1c0d2e3f4a5b6c7d8e9f00112233445566778899aabb\n");

    RuntimeConfiguration configuration;
    configuration.standardLibraryPath = cache.library.native();
    configuration.cacheRoot = (cache.directory / "cache").native();
    configuration.jobs = 1;
    Runtime::getInstance().configure(configuration);
    if (!StandardLibraryBootstrap::ensure({}).bootstrapped ||
        StandardLibraryBootstrap::isRequired()) {
        throw std::runtime_error("the cache did not become ready");
    }
    cache.marker = quor::compiler::layout::markerPath(
        configuration.cacheRoot, QUOR_COMPILER_VERSION,
        fs::path(Runtime::getInstance().getLibCachePath()).filename().native());
    if (!fs::is_regular_file(cache.marker)) {
        throw std::runtime_error("no marker at " + cache.marker.native());
    }

    cache.systemRoot = cache.directory / "system";
    cache.freshUser = cache.directory / "home" / ".cache" / "quor";
    configuration.cacheRoot = cache.systemRoot.native();
    configuration.systemCacheRoot = "";
    Runtime::getInstance().configure(configuration);
    if (!StandardLibraryBootstrap::ensure({}).bootstrapped) {
        throw std::runtime_error("the system cache was not built");
    }
    cache.systemMarker = quor::compiler::layout::markerPath(
        cache.systemRoot.native(), QUOR_COMPILER_VERSION,
        fs::path(Runtime::getInstance().getLibCachePath()).filename().native());
    // Back to the user's ready cache for the first benchmarks.
    configuration.cacheRoot = (cache.directory / "cache").native();
    Runtime::getInstance().configure(configuration);
}

// A fresh user's runtime: no cache of their own, the system cache under it.
void configureFreshUser() {
    RuntimeConfiguration configuration;
    configuration.standardLibraryPath = readyCache().library.native();
    configuration.cacheRoot = readyCache().freshUser.native();
    configuration.systemCacheRoot = readyCache().systemRoot.native();
    configuration.jobs = 1;
    Runtime::getInstance().configure(configuration);
}

// open, read, close: what reading one small file costs at least.
std::size_t readSmallFile(const char* path) {
    char buffer[4096];
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    ::close(fd); // read-only: nothing to lose
    benchmark::DoNotOptimize(buffer);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void BM_Floor_TwoFileReads(benchmark::State& state) {
    const std::string fingerprint = readyCache().fingerprintFile.native();
    const std::string marker = readyCache().marker.native();
    for (auto _ : state) {
        benchmark::DoNotOptimize(readSmallFile(fingerprint.c_str()));
        benchmark::DoNotOptimize(readSmallFile(marker.c_str()));
    }
}

// Not a goal's baseline: the floor plus the one stat() of the library root
// that isRequired() must make, to show how much of its ratio that call is.
void BM_Floor_TwoFileReadsAndStat(benchmark::State& state) {
    const std::string library = readyCache().library.native();
    const std::string fingerprint = readyCache().fingerprintFile.native();
    const std::string marker = readyCache().marker.native();
    for (auto _ : state) {
        struct stat status {};
        benchmark::DoNotOptimize(::stat(library.c_str(), &status));
        benchmark::DoNotOptimize(readSmallFile(fingerprint.c_str()));
        benchmark::DoNotOptimize(readSmallFile(marker.c_str()));
    }
}

void BM_IsRequired_Ready(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(StandardLibraryBootstrap::isRequired());
    }
}

void BM_Ensure_Ready(benchmark::State& state) {
    const quor::compiler::StandardLibraryBootstrapCallback none;
    for (auto _ : state) {
        benchmark::DoNotOptimize(StandardLibraryBootstrap::ensure(none));
    }
}

// The floor of a layered lookup: the fingerprint, the user's missing marker,
// the system cache's marker.
void BM_Floor_LayeredLookup(benchmark::State& state) {
    const std::string fingerprint = readyCache().fingerprintFile.native();
    const std::string userMarker =
        quor::compiler::layout::markerPath(readyCache().freshUser.native(), QUOR_COMPILER_VERSION,
                                           quor::compiler::layout::libraryCacheName);
    const std::string systemMarker = readyCache().systemMarker.native();
    for (auto _ : state) {
        benchmark::DoNotOptimize(readSmallFile(fingerprint.c_str()));
        benchmark::DoNotOptimize(readSmallFile(userMarker.c_str()));
        benchmark::DoNotOptimize(readSmallFile(systemMarker.c_str()));
    }
}

// What a fresh user's compiler start does before it compiles anything.
void BM_ChooseLayerAndIsRequired_FreshUser(benchmark::State& state) {
    configureFreshUser();
    for (auto _ : state) {
        const quor::compiler::CacheLayerChoice choice = quor::compiler::chooseCacheLayer();
        if (choice.inUse != quor::compiler::CacheLayerKind::System) {
            state.SkipWithError("the system cache was not chosen");
            break;
        }
        benchmark::DoNotOptimize(StandardLibraryBootstrap::isRequired());
    }
}

// isRequired() alone once the runtime points at the system cache.
void BM_IsRequired_SystemLayer(benchmark::State& state) {
    configureFreshUser();
    quor::compiler::chooseCacheLayer();
    for (auto _ : state) {
        benchmark::DoNotOptimize(StandardLibraryBootstrap::isRequired());
    }
}

BENCHMARK(BM_Floor_TwoFileReads);
BENCHMARK(BM_Floor_TwoFileReadsAndStat);
BENCHMARK(BM_IsRequired_Ready);
BENCHMARK(BM_Ensure_Ready);
BENCHMARK(BM_Floor_LayeredLookup);
BENCHMARK(BM_ChooseLayerAndIsRequired_FreshUser);
BENCHMARK(BM_IsRequired_SystemLayer);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    int status = 0;
    try {
        prepareReadyCache();
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quor-bench-ready: %s\n", error.what());
        status = 1;
    }
    benchmark::Shutdown();
    std::error_code ignored;
    fs::remove_all(readyCache().directory, ignored); // a leftover temp dir harms nothing
    return status;
}
