// The standard-library bootstrap: on the first start of a compiler version it
// precompiles the Quor standard library into the library cache, certifies the
// result with a readiness marker bound to the compiler's identity, and lets
// concurrent compiler processes build it exactly once under a file lock. It
// also lists and prunes the caches that older compiler versions left behind.
//
// Every operation is static and runs on the calling thread; the bootstrap keeps
// nothing between calls. Failures are thrown as std::runtime_error.

#ifndef QUOR_COMPILER_STANDARDLIBRARYBOOTSTRAP_H
#define QUOR_COMPILER_STANDARDLIBRARYBOOTSTRAP_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace quor::compiler {

// The phase a progress report belongs to. Value 2 is reserved and never sent.
enum class StandardLibraryBootstrapStage : std::uint32_t {
    Preparing = 0, // the lock is held and a build is about to start
    Compiling = 1, // one report per unit the precompiler has finished
    Finished = 3,  // the readiness marker is published; the lock is still held
};

// One report to the caller's progress callback. The record lives only for the
// duration of the callback call; copy what you want to keep.
struct StandardLibraryBootstrapProgress {
    StandardLibraryBootstrapStage stage = StandardLibraryBootstrapStage::Preparing;
    std::size_t completed = 0; // units compiled so far
    std::size_t total = 0;     // units in this build
    std::string sourcePath;    // the unit's path as the precompiler gave it; Compiling only
    std::string displayName;   // dotted package of the unit ("collections.immutable")
};

// What ensure() did. bootstrapped is true only when this call compiled the
// library; completed and total hold the precompiler's last reported counts.
struct StandardLibraryBootstrapResult {
    bool bootstrapped = false;
    std::size_t completed = 0;
    std::size_t total = 0;
};

using StandardLibraryBootstrapCallback =
    std::function<void(const StandardLibraryBootstrapProgress&)>;

class StandardLibraryBootstrap {
public:
    StandardLibraryBootstrap() = delete;

    // True when a standard-library tree exists and the cache is not ready for
    // the running compiler. Takes no lock and creates nothing.
    static bool isRequired();

    // Makes the standard-library cache ready for the running compiler.
    // On the ready path this reads two small files and returns {false, 0, 0}.
    // Otherwise it takes the exclusive build lock (blocking, no time-out),
    // re-checks readiness, compiles the library, publishes the marker and
    // returns {true, completed, total}. Reports go to `progress` (which may be
    // empty) on the calling thread while the lock is held. Any failure is thrown;
    // the lock is released on every way out and no marker is written on failure.
    // Safe to call concurrently from several threads and processes.
    static StandardLibraryBootstrapResult ensure(const StandardLibraryBootstrapCallback& progress);

    // The lexically normalised paths of the version directories ("x.y.z") directly
    // under `cacheRoot` that are older than `currentVersion`, in path order.
    // Symbolic links and anything not named as an exact version are never listed.
    static std::vector<std::filesystem::path>
    olderCacheVersions(const std::filesystem::path& cacheRoot, const std::string& currentVersion);

    // The same for the running compiler's cache root and version.
    static std::vector<std::filesystem::path> olderCacheVersions();

    // Removes each older version directory together with its first-launch state
    // and returns how many were removed. A candidate that is no longer a real
    // directory directly under the root stops the run with an error; versions
    // removed before an error stay removed. Takes no lock.
    static std::size_t removeOlderCacheVersions(const std::filesystem::path& cacheRoot,
                                                const std::string& currentVersion);

    // The same for the running compiler's cache root and version.
    static std::size_t removeOlderCacheVersions();
};

} // namespace quor::compiler

#endif
