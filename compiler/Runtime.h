// The compiler's process-wide runtime: where the standard library's sources
// live, where the caches go, and how many worker threads the compiler may use.
//
// Each setting resolves, first match wins: the configuration that the embedding
// program passed to configure(); then the environment (QUOR_STDLIB_PATH,
// QUOR_CACHE_DIR, QUOR_SYSTEM_CACHE_DIR, QUOR_JOBS); then the defaults of the
// installation.
//
// Two caches may serve one compiler: the user's own, which the compiler builds
// and prunes, and a system cache, a read-only cache of the installed library
// that the package ships ready (docs/embedding.md, "The cache layers"). The
// runtime only resolves where both are; which one the cache getters point at is
// decided above it (compiler/CacheLayers.h), which asks the bootstrap whether
// a layer is ready and then calls useCacheRoot().

#ifndef QUOR_COMPILER_RUNTIME_H
#define QUOR_COMPILER_RUNTIME_H

#include <atomic>
#include <optional>
#include <string>

namespace quor::compiler {

// Settings an embedding program may fix above the environment. An empty string
// or a zero leaves that setting to the environment and the defaults.
struct RuntimeConfiguration {
    std::string standardLibraryPath; // root of the standard library's ".qr" tree
    std::string cacheRoot;           // holds one cache directory per compiler version
    unsigned jobs = 0;               // precompiler worker threads
    // The system cache root: a cache of the installed library that root
    // keeps, looked at under the user's. Unset: QUOR_SYSTEM_CACHE_DIR when it
    // is set, else the installation's default. An empty string turns the
    // system layer off, as an empty QUOR_SYSTEM_CACHE_DIR does.
    std::optional<std::string> systemCacheRoot = std::nullopt;
};

class Runtime {
public:
    // The process-wide runtime. Never fails.
    static Runtime& getInstance();

    // Replaces the embedding program's settings and resolves every path again,
    // reading the environment anew. Call it before other threads use the
    // runtime: the getters hand out references to the resolved strings.
    void configure(const RuntimeConfiguration& configuration);

    // This compiler build's cache directory: <cache root>/<compiler version>,
    // for the cache root in use (getCacheRoot()).
    const std::string& getCacheBranchPath() const;

    // The precompiled library's directory: <cache branch>/lib.
    const std::string& getLibCachePath() const;

    // The root of the standard library's source tree. It need not exist.
    std::string getStandardLibraryPath() const;

    // Worker threads for the precompiler; at least 1.
    unsigned getJobCount() const;

    // The cache root the cache getters use: the user's, until useCacheRoot().
    const std::string& getCacheRoot() const;

    // The user's cache root, as the settings resolve it: the one the compiler
    // builds into and prunes.
    const std::string& getUserCacheRoot() const;

    // The system cache root as the settings resolve it; empty when the system
    // layer is off. Whether anything is there is not checked. The first call
    // after configure() may look for the installation's default; same
    // threading rule as configure() for that call.
    const std::string& getSystemCacheRoot() const;

    // Points getCacheRoot(), getCacheBranchPath() and getLibCachePath() at
    // `cacheRoot`, leaving every other setting as it is. configure() points
    // them back at the user's cache root. Same threading rule as configure().
    void useCacheRoot(const std::string& cacheRoot);

    // A library cache that the precompiler may copy sound objects from instead
    // of compiling them (a system cache's, when the user's library differs
    // from the one it holds); empty: none. The precompiler checks that it can
    // be trusted and judges every object it takes; it never writes there.
    // configure() clears it. Same threading rule as configure().
    void setAdoptionSource(const std::string& libraryCache);
    const std::string& getAdoptionSource() const;

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

private:
    Runtime();
    void resolve();

    RuntimeConfiguration configuration_;
    std::string standardLibraryPath_;
    std::string userCacheRoot_;
    mutable std::string systemCacheRoot_;
    mutable bool systemCacheRootResolved_ = false; // false: the default, not looked for yet
    std::string cacheRoot_;
    std::string adoptionSource_;
    std::string cacheBranchPath_;
    std::string libCachePath_;
    unsigned jobCount_ = 0;                             // 0: the hardware's, see getJobCount()
    mutable std::atomic<unsigned> hardwareJobCount_{0}; // counted on the first need
};

} // namespace quor::compiler

#endif
