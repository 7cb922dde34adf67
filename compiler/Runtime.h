// The compiler's process-wide runtime: where the standard library's sources
// live, where the caches go, and how many worker threads the compiler may use.
//
// Each setting resolves, first match wins: the configuration that the embedding
// program passed to configure(); then the environment (QUOR_STDLIB_PATH,
// QUOR_CACHE_DIR, QUOR_JOBS); then the defaults of the installation.

#ifndef QUOR_COMPILER_RUNTIME_H
#define QUOR_COMPILER_RUNTIME_H

#include <string>

namespace quor::compiler {

// Settings an embedding program may fix above the environment. An empty string
// or a zero leaves that setting to the environment and the defaults.
struct RuntimeConfiguration {
    std::string standardLibraryPath; // root of the standard library's ".qr" tree
    std::string cacheRoot;           // holds one cache directory per compiler version
    unsigned jobs = 0;               // precompiler worker threads
};

class Runtime {
public:
    // The process-wide runtime. Never fails.
    static Runtime& getInstance();

    // Replaces the embedding program's settings and resolves every path again,
    // reading the environment anew. Call it before other threads use the
    // runtime: the getters hand out references to the resolved strings.
    void configure(const RuntimeConfiguration& configuration);

    // This compiler build's cache directory: <cache root>/<compiler version>.
    const std::string& getCacheBranchPath() const;

    // The precompiled library's directory: <cache branch>/lib.
    const std::string& getLibCachePath() const;

    // The root of the standard library's source tree. It need not exist.
    std::string getStandardLibraryPath() const;

    // Worker threads for the precompiler; at least 1.
    unsigned getJobCount() const;

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

private:
    Runtime();
    void resolve();

    RuntimeConfiguration configuration_;
    std::string standardLibraryPath_;
    std::string cacheBranchPath_;
    std::string libCachePath_;
    unsigned jobCount_ = 1;
};

} // namespace quor::compiler

#endif
