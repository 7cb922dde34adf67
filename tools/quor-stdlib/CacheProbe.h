// What the tool shows about the standard-library cache. The bootstrap's rules
// (the identity and where its fingerprint came from, the first-launch paths,
// why a marker does or does not certify, which units a build compiles, what
// may be removed) are asked of the bootstrap itself through
// compiler/BootstrapExplanation.h and only named here for the tool's use.
// What no rule of the bootstrap decides, sizes on disk, is measured here.

#ifndef QUOR_TOOLS_QUOR_STDLIB_CACHEPROBE_H
#define QUOR_TOOLS_QUOR_STDLIB_CACHEPROBE_H

#include "compiler/BootstrapExplanation.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quor::stdlibtool {

using compiler::explain::compilerVersion;
using compiler::explain::currentIdentity;
using compiler::explain::currentPaths;
using compiler::explain::diagnoseMarker;
using compiler::explain::FingerprintSource;
using compiler::explain::fingerprintSourceName;
using compiler::explain::Identity;
using compiler::explain::installedFingerprintFile;
using compiler::explain::MarkerDiagnosis;
using compiler::explain::MarkerField;
using compiler::explain::MarkerVerdict;
using compiler::explain::markerVerdictName;
using compiler::explain::readFingerprintFile;
using CachePaths = compiler::explain::FirstLaunchPaths;

// Something below the library root that the bootstrap's walk cannot look at:
// a ".qr" unit whose status cannot be read (its path is longer than the
// system allows, say) or a folder that may not be read.
struct UnreachableEntry {
    std::filesystem::path path;
    std::string reason; // the system's text: "File name too long", "Permission denied"
};

// Whether the walk passed over `entry` because trouble kept it from looking
// (a status that cannot be read, a folder that may not be read), rather than
// because the rules leave it out.
bool isUnreachable(const compiler::explain::PassedOver& entry);

// The bootstrap's libraryUnitFiles(): every unit file of the library, generic
// or not, sorted. When `unreachable` is given, what trouble kept the walk from
// looking at is added to it. Throws the bootstrap's enumeration failure.
std::vector<std::string> libraryUnitFiles(const std::filesystem::path& root,
                                          std::vector<UnreachableEntry>* unreachable = nullptr);

// The bootstrap's chooseUnits(): the units a build would hand to the
// precompiler, in its order, with what trouble kept the walk from looking at
// added to `unreachable` when it is given. Throws as the bootstrap does.
std::vector<std::string> compilableUnits(const std::filesystem::path& root,
                                         std::vector<UnreachableEntry>* unreachable = nullptr);

// What a tree takes: the bytes allocated on disk for `path` and everything
// below it, counted like du (links are not followed, entries that cannot be
// examined count as zero), and how many of the entries below it are not
// directories. The walk goes by descriptor, one directory relative to the
// next, stats each entry once by its name in its directory, and runs on as
// many threads as there are cores, up to four (one when no thread can be
// started).
struct TreeSize {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
};
TreeSize treeSize(const std::filesystem::path& path);

// What one compiler version takes below `cacheRoot`: its cache directory
// (<root>/<version>: library cache and set-aside objects) and its first-launch
// state (<root>/.first-launch/<version>), counted with treeSize(). `bytes` is
// the one size `status`, `prune` and `clean` show for a version; `cacheFiles`
// counts the files below its cache directory alone, which is what `prune`
// shows its progress in.
struct VersionSize {
    std::uint64_t bytes = 0;
    std::uint64_t cacheFiles = 0;
};
VersionSize versionSize(const std::filesystem::path& cacheRoot, const std::string& version);

// versionSize(cacheRoot, version).bytes.
std::uint64_t versionBytes(const std::filesystem::path& cacheRoot, const std::string& version);

} // namespace quor::stdlibtool

#endif
