// The bootstrap's own account of its decisions, for the tool and the fuzz
// targets: which identity it expects and where the fingerprint came from, the
// paths of the first-launch state, why a marker does or does not certify, which
// units a build compiles and what its walk passes over, whether a version
// directory may be removed, and what kind of failure one of its messages is.
//
// Every function here is defined in StandardLibraryBootstrap.cpp on the same
// reader and helpers that decide, so an explanation cannot drift from the
// decision it explains. Whether the cache is ready is still asked of
// StandardLibraryCacheState and StandardLibraryBootstrap::isRequired(); these
// functions say why.
//
// Internal: included by this project's tool, tests and fuzz targets, never
// installed. Like the rest of the bootstrap, they use only the service
// declarations the bootstrap already calls (Runtime, Compiler::objectAbiVersion,
// SourceManager, the type-header parser), never take the build lock and never
// write.

#ifndef QUOR_COMPILER_BOOTSTRAPEXPLANATION_H
#define QUOR_COMPILER_BOOTSTRAPEXPLANATION_H

#include <array>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler::explain {

// The compiler version the bootstrap was built with.
std::string_view compilerVersion();

// Where the fingerprint of the identity came from, in the order the bootstrap
// looks: the library's own file, the build tree's generated file, the fallback
// "version-<v>-abi-<n>", which no real fingerprint can look like.
enum class FingerprintSource { InstalledFile, BuildTreeFile, Fallback };

// "installed", "build-tree" or "fallback".
std::string_view fingerprintSourceName(FingerprintSource source);

// The identity a readiness marker must carry for the running compiler.
struct Identity {
    std::string version;
    int abiVersion = 0;
    std::string fingerprint;
    FingerprintSource source = FingerprintSource::Fallback;
    std::filesystem::path fingerprintFile; // the file it was read from; empty for the fallback
};

// The identity the bootstrap checks against now, computed by the same code as
// its ready path: the configured Runtime's library, Compiler::objectAbiVersion().
Identity currentIdentity();

// The fingerprint in `file` under the bootstrap's rules, or "" when the file
// gives none: missing, not a regular file (a FIFO reads as none without
// waiting), a first line that is not 64 hexadecimal digits after trimming
// space, tab, CR and LF, or one longer than 64 KiB. Lower-cased. Never throws
// for file trouble.
std::string readFingerprintFile(const std::filesystem::path& file);

// The fingerprint file a library carries for itself, looked at first:
// <library>/.quor-stdlib-fingerprint.
std::filesystem::path installedFingerprintFile(const std::filesystem::path& library);

// The build tree's generated fingerprint file, looked at second.
std::filesystem::path buildTreeFingerprintFile();

// The paths of the running compiler's first-launch state and where they come
// from, as the bootstrap composes them for the configured Runtime.
struct FirstLaunchPaths {
    std::filesystem::path library;        // standard-library root (need not exist)
    std::filesystem::path cacheRoot;      // parent of the cache branch
    std::filesystem::path cacheBranch;    // the Runtime's cache branch: <root>/<version>
    std::filesystem::path libraryCache;   // the Runtime's library cache
    std::filesystem::path firstLaunch;    // <root>/.first-launch
    std::filesystem::path versionState;   // <root>/.first-launch/<version>: the lock directory
    std::filesystem::path stateDirectory; // <version state>/<library cache leaf>
    std::filesystem::path marker;         // <state directory>/.quor-stdlib-ready
    std::filesystem::path lockFile;       // <version state>/.stdlib-bootstrap-<leaf>.lock
};
FirstLaunchPaths currentPaths();

// Why a marker does or does not certify an identity.
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
    std::string detail;                   // a sentence for every verdict but Valid and Mismatch
    std::vector<MarkerField> differences; // every differing field, for Mismatch
};

// Reads the marker at `marker` with the reader and the line rules that
// StandardLibraryCacheState::isReady() uses, and goes on past the first
// difference so that every differing field is reported. The verdict is Valid
// exactly when isReady() would be true for the same file and identity. Never
// blocks, and reads at most five lines of at most 64 KiB each.
MarkerDiagnosis diagnoseMarker(const std::filesystem::path& marker, const Identity& identity);

// Something below the library root that the bootstrap's walk passes over.
struct PassedOver {
    enum class Why {
        Generic,      // a unit whose own type header declares generic parameters
        Link,         // a ".qr" name that is a symbolic link: never followed
        NotRegular,   // a ".qr" name that is a FIFO, a device or a socket
        Unexaminable, // a ".qr" entry whose status cannot be read ("File name too long")
        ClosedFolder, // a folder the walk may not read: skipped with all below it
    };
    std::filesystem::path path;
    Why why = Why::Generic;
    std::string reason; // the system's text for Unexaminable and ClosedFolder, else ""
};

// "generic", "link", "not-regular", "unexaminable", "closed-folder".
std::string_view passedOverName(PassedOver::Why why);

// What the bootstrap's walk of a library finds.
struct UnitChoice {
    std::vector<std::string> units;     // what a build compiles, in the build's order
    std::vector<PassedOver> passedOver; // sorted by path
};

// The units a build of the library at `root` hands to the precompiler, by the
// walk and the type-header test the build runs, with what the walk passed over
// and why. Throws std::runtime_error with the bootstrap's own enumeration
// message when the walk fails.
UnitChoice chooseUnits(const std::filesystem::path& root);

// Every regular ".qr" file the walk reaches, generic or not, sorted: the files
// a library's fingerprint covers. `passedOver` (when given) receives what the
// walk passed over, less generic units. Throws as chooseUnits() does.
std::vector<std::string> libraryUnitFiles(const std::filesystem::path& root,
                                          std::vector<PassedOver>* passedOver = nullptr);

// What removeOlderCacheVersions() deletes for one version below `cacheRoot`:
// its cache directory <root>/<version> and its first-launch state
// <root>/.first-launch/<version>, the root taken lexically normal.
struct VersionDirectories {
    std::filesystem::path cache;
    std::filesystem::path firstLaunchState;
};
VersionDirectories versionDirectories(const std::filesystem::path& cacheRoot,
                                      std::string_view version);

// Whether removeOlderCacheVersions() would delete `candidate` below
// `cacheRoot` now, by the test it runs just before it deletes.
enum class RemovalVerdict {
    Remove, // a real directory directly under the root
    Gone,   // nothing there any more: passed over
    Refuse, // a link, anything not a directory, or not directly under the root
};
RemovalVerdict removalVerdict(const std::filesystem::path& cacheRoot,
                              const std::filesystem::path& candidate);

// What a failure the bootstrap throws is about, told by the fixed opening of
// its message.
enum class FailureCause {
    Lock,         // the build lock could not be taken
    FileSystem,   // a directory, the marker or the library could not be made or read
    UnsafePath,   // a removal refused because the path is not what it must be
    EmptyLibrary, // the library holds no unit to compile
};

// One of the bootstrap's messages: its fixed opening and what it is about.
struct FailureMessage {
    std::string_view opening;
    FailureCause cause;
};

// Every message the bootstrap throws, each exactly as its throw spells it.
std::span<const FailureMessage> failureMessages();

// The cause of `message` when it is one of the bootstrap's, else nothing.
std::optional<FailureCause> failureCauseOf(std::string_view message);

// The bootstrap's line helpers, for the fuzz targets: trim() strips space,
// tab, CR and LF at both ends; markerValue() gives the trimmed value after
// "key=" or ""; parseVersion() accepts exactly three runs of digits separated
// by dots, each within 64 bits.
std::string trim(std::string_view text);
std::string markerValue(std::string_view line, std::string_view key);
bool parseVersion(const std::string& text, std::array<unsigned long long, 3>& version);

} // namespace quor::compiler::explain

#endif
