// Read-only examination of the standard-library cache for `status` and `prune`:
// the running compiler's identity and where its fingerprint came from, the
// paths the bootstrap uses, why a marker does not validate, how many units a
// build would compile, and how much disk a directory takes.
//
// The bootstrap keeps these rules private, so they are reproduced here and must
// follow it exactly: the fingerprint files (first line only, trimmed of space,
// tab, CR and LF, exactly 64 hexadecimal digits, lower-cased; installed file
// first, then the build tree's, then "version-<v>-abi-<n>"), the state layout
// below the cache root, the marker's five positional lines, and the choice of
// compilable units. Both files are read as the bootstrap reads them: only a
// regular file counts (a FIFO, a device or a socket reads as no file, without
// waiting), and a line longer than 64 KiB fails its read. Whether the cache is
// ready is still asked of the bootstrap's own StandardLibraryCacheState; the
// diagnosis only explains its answer.

#ifndef QUOR_TOOLS_QUOR_STDLIB_CACHEPROBE_H
#define QUOR_TOOLS_QUOR_STDLIB_CACHEPROBE_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quor::stdlibtool {

// The compiler version this tool was built with; the bootstrap uses the same.
std::string_view compilerVersion();

enum class FingerprintSource { InstalledFile, BuildTreeFile, Fallback };

// "installed", "build-tree" or "fallback".
std::string_view fingerprintSourceName(FingerprintSource source);

struct Identity {
    std::string version;
    int abiVersion = 0;
    std::string fingerprint;
    FingerprintSource source = FingerprintSource::Fallback;
    std::filesystem::path fingerprintFile; // the file it was read from; empty for the fallback
};

struct CachePaths {
    std::filesystem::path library;        // standard-library root (need not exist)
    std::filesystem::path cacheRoot;      // parent of the cache branch
    std::filesystem::path cacheBranch;    // <root>/<version>
    std::filesystem::path libraryCache;   // <branch>/lib
    std::filesystem::path firstLaunch;    // <root>/.first-launch
    std::filesystem::path versionState;   // <root>/.first-launch/<version>
    std::filesystem::path stateDirectory; // <root>/.first-launch/<version>/<lib leaf>
    std::filesystem::path marker;         // <state directory>/.quor-stdlib-ready
    std::filesystem::path lockFile; // <root>/.first-launch/<version>/.stdlib-bootstrap-<leaf>.lock
};

// The fingerprint in `file` under the bootstrap's rules, or "" when the file
// gives none (missing, not a regular file, first line not 64 hexadecimal
// digits or longer than 64 KiB). Never blocks, and never throws for file
// trouble.
std::string readFingerprintFile(const std::filesystem::path& file);

// The fingerprint file a library carries for itself, which the bootstrap
// looks at first: <library>/.quor-stdlib-fingerprint.
std::filesystem::path installedFingerprintFile(const std::filesystem::path& library);

// The build tree whose generated fingerprint the bootstrap falls back to.
std::filesystem::path buildTreeFingerprintFile();

// The identity the bootstrap checks the marker against, computed from the
// configured Runtime and Compiler::objectAbiVersion().
Identity currentIdentity();

// The bootstrap's paths for the configured Runtime.
CachePaths currentPaths();

enum class MarkerVerdict {
    Valid,      // every line matches the identity
    Missing,    // no marker file
    Unreadable, // the path exists but is not a regular file, or cannot be opened or read
    Malformed,  // fewer than five lines, a wrong first line, or a line over 64 KiB
    Mismatch,   // well-formed, but recorded for another identity
};

// "valid", "missing", "unreadable", "malformed", "mismatch".
std::string_view markerVerdictName(MarkerVerdict verdict);

struct MarkerField {
    std::string name; // "format", "version", "abi" or "fingerprint"
    std::string expected;
    std::string found; // the trimmed value after "<name>="; "" when the key is absent
};

struct MarkerDiagnosis {
    MarkerVerdict verdict = MarkerVerdict::Missing;
    std::string detail;                   // a sentence for Unreadable and Malformed
    std::vector<MarkerField> differences; // every differing field, for Mismatch
};

// Reads the marker at `marker` the way the bootstrap validates it, but keeps
// going past the first difference so that every differing field is reported.
// Never blocks, and reads at most five lines of at most 64 KiB each.
MarkerDiagnosis diagnoseMarker(const std::filesystem::path& marker, const Identity& identity);

// Something below the library root that the bootstrap's walk passes over in
// silence: a ".qr" unit whose status cannot be read (its path is longer than
// the system allows, say) or a folder that may not be read.
struct UnreachableEntry {
    std::filesystem::path path;
    std::string reason; // the system's text: "File name too long", "Permission denied"
};

// Every unit file of the library, generic or not, sorted by path: regular
// ".qr" files below `root`, symbolic links skipped, folders that may not be
// read passed over. When `unreachable` is given, what the walk passes over is
// added to it. Throws std::runtime_error with the bootstrap's enumeration
// message when the walk fails.
std::vector<std::string> libraryUnitFiles(const std::filesystem::path& root,
                                          std::vector<UnreachableEntry>* unreachable = nullptr);

// The units a build would hand to the precompiler, sorted as the bootstrap sorts
// them: regular ".qr" files below `root` (symbolic links skipped) except those
// whose own type header is generic. When `unreachable` is given, what the walk
// passes over is added to it. Throws std::runtime_error with the bootstrap's
// enumeration message when the walk fails.
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
