// One standard-library cache directory together with the identity its
// contents must carry (compiler version, object ABI number, library
// fingerprint). isReady() checks the directory's readiness marker against that
// identity; markReady() publishes a marker for it atomically.
//
// A plain value: it never changes after construction, keeps no cached answer
// and holds no lock, so any thread may use it.

#ifndef QUOR_COMPILER_STANDARDLIBRARYCACHESTATE_H
#define QUOR_COMPILER_STANDARDLIBRARYCACHESTATE_H

#include <cstdint>
#include <filesystem>
#include <string>

namespace quor::compiler {

class StandardLibraryCacheState {
public:
    // Touches no file. The marker is `cacheDirectory` / ".quor-stdlib-ready".
    StandardLibraryCacheState(std::filesystem::path cacheDirectory, std::string version,
                              int abiVersion, std::string fingerprint);

    // True only when the marker exists and validates for exactly this identity.
    // Never throws for file problems; they read as "not ready".
    bool isReady() const;

    // Creates the cache directory if needed, writes the marker to a temporary
    // sibling and renames it into place, replacing any previous marker. On
    // failure throws std::runtime_error and leaves the previous marker untouched.
    void markReady() const;

    // The marker file: the cache directory joined with ".quor-stdlib-ready".
    const std::filesystem::path& getMarkerPath() const { return markerPath; }

private:
    // The names the class is published with, not the underscore of the rest.
    // NOLINTBEGIN(readability-identifier-naming)
    std::filesystem::path markerPath;
    std::string version;
    std::int32_t abiVersion;
    std::string fingerprint;
    // NOLINTEND(readability-identifier-naming)
};

} // namespace quor::compiler

#endif
