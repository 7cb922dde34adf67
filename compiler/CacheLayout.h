// The names and numbers of the standard-library cache's layout and of the
// readiness marker, and how every path of that layout is composed, in one
// place. The bootstrap writes and reads by them; the services, the tool's
// explanations and its guards find the same files by them. Every rule built on
// these names (how the marker is validated, when an object is reused, whether
// a path can be trusted) stays with its owner; this header only keeps the
// sides from spelling a name, or putting a path together, differently. The
// records inside an object are the object format's (compiler/ObjectFormat.h).
//
// Internal: included by this project's sources, never installed.
//
// Below the cache root:
//     <version>/                                 the cache branch, one per version
//     <version>/lib/                             the library cache
//     <version>/lib/.quor-object-abi             the object ABI record
//     <version>/lib/<unit path, .qr -> .qo>      one object per unit
//     <version>/set-aside/<digest>.qo            objects a build displaced
//     .first-launch/<version>/<lib leaf>/.quor-stdlib-ready   the readiness marker
//     .first-launch/<version>/.stdlib-bootstrap-<lib leaf>.lock   the build lock
// Beside the library's units: .quor-stdlib-fingerprint. In the build tree:
// generated/quor-stdlib.fingerprint.
//
// The paths are composed as text, the way std::filesystem::path's operator/
// joins a relative name, so that the bootstrap's ready path can use them
// without building path objects.

#ifndef QUOR_COMPILER_CACHELAYOUT_H
#define QUOR_COMPILER_CACHELAYOUT_H

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace quor::compiler::layout {

// ---- The cache branch: the objects ----

// The library cache, inside the cache branch.
inline constexpr std::string_view libraryCacheName = "lib";

// Where a build keeps the sound objects it displaces: inside the cache branch,
// beside the library cache rather than in it, so that a build's sweep of the
// library cache leaves them alone.
inline constexpr std::string_view setAsideName = "set-aside";

// The file in the library cache that names the object ABI its objects were
// written for.
inline constexpr std::string_view abiRecordFileName = ".quor-object-abi";

// The extension of an object, in the library cache and in the set-aside area.
inline constexpr std::string_view objectExtension = ".qo";

// Hexadecimal digits of the digest that names a set-aside entry.
inline constexpr std::size_t setAsideKeyLength = 64;

// What the services' temporary files in the library cache are named, so that
// a sweep tells them from everything else: "." + the final name + this +
// <writer's process id> + "." + <counter>.
inline constexpr std::string_view temporaryMarker = ".tmp.";

// ---- The first-launch state ----

// The directory below the cache root holding each version's first-launch state.
inline constexpr std::string_view firstLaunchDirectory = ".first-launch";

// The readiness marker, inside the state directory, and its five lines:
//     QUOR_STANDARD_LIBRARY_CACHE
//     format=1
//     version=<compiler version>
//     abi=<object ABI number>
//     fingerprint=<library fingerprint>
inline constexpr std::string_view markerFileName = ".quor-stdlib-ready";
inline constexpr std::string_view markerHeader = "QUOR_STANDARD_LIBRARY_CACHE";
inline constexpr int markerFormat = 1;
inline constexpr std::size_t markerLineCount = 5;

// A marker or fingerprint line longer than this cannot certify anything; its
// read fails instead of growing without end.
inline constexpr std::size_t maxLineLength = std::size_t{64} * 1024;

// What a marker value and a fingerprint line are trimmed of; a vertical tab or
// a form feed is content.
inline constexpr std::string_view lineWhiteSpace = " \t\r\n";

// The build lock, beside the state directory: prefix + library cache leaf + suffix.
inline constexpr std::string_view lockFilePrefix = ".stdlib-bootstrap-";
inline constexpr std::string_view lockFileSuffix = ".lock";

// ---- The library's own files ----

// The fingerprint files: one the library carries for itself, read first, and
// the build tree's.
inline constexpr std::string_view installedFingerprintFile = ".quor-stdlib-fingerprint";
inline constexpr std::string_view generatedDirectory = "generated";
inline constexpr std::string_view buildTreeFingerprintFile = "quor-stdlib.fingerprint";
// Hexadecimal digits of a fingerprint read from a file.
inline constexpr std::size_t fingerprintLength = 64;

// The extension of a standard-library unit.
inline constexpr std::string_view sourceExtension = ".qr";

// ---- How the paths are composed ----

// Appends `element` to `path` with one '/' between them, none when `path` is
// empty or already ends in '/': what std::filesystem::path's operator/ does
// with a relative element. Every path below is joined by it.
inline void appendPathElement(std::string& path, std::string_view element) {
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    path += element;
}

// `base` with `element` appended.
inline std::string pathBelow(std::string_view base, std::string_view element) {
    std::string path;
    path.reserve(base.size() + 1 + element.size());
    path = base;
    appendPathElement(path, element);
    return path;
}

// <cache root>/<version>: one compiler version's cache branch.
inline std::string cacheBranchPath(std::string_view cacheRoot, std::string_view version) {
    return pathBelow(cacheRoot, version);
}

// <cache branch>/lib.
inline std::string libraryCachePath(std::string_view cacheBranch) {
    return pathBelow(cacheBranch, libraryCacheName);
}

// <cache branch>/set-aside.
inline std::string setAsideDirectoryPath(std::string_view cacheBranch) {
    return pathBelow(cacheBranch, setAsideName);
}

// <library cache>/.quor-object-abi.
inline std::string abiRecordPath(std::string_view libraryCache) {
    return pathBelow(libraryCache, abiRecordFileName);
}

// The object of the unit at `unitPath` below the library root ('/'
// separators, ending in ".qr"): the same path below the library cache, its
// extension replaced by ".qo".
inline std::filesystem::path objectPath(const std::filesystem::path& libraryCache,
                                        std::string_view unitPath) {
    std::filesystem::path object = libraryCache / unitPath;
    object.replace_extension(objectExtension);
    return object;
}

// The name of the set-aside entry whose key is `key` (setAsideKeyLength
// lower-case hexadecimal digits): <key>.qo.
inline std::string setAsideEntryName(std::string_view key) {
    std::string name(key);
    name += objectExtension;
    return name;
}

// Whether `name` is one that setAsideEntryName() gives; anything else in the
// set-aside area was not put there by a build.
inline bool isSetAsideEntryName(std::string_view name) {
    return name.size() == setAsideKeyLength + objectExtension.size() &&
           name.ends_with(objectExtension) &&
           std::all_of(name.begin(), name.begin() + setAsideKeyLength,
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// <cache root>/.first-launch.
inline std::string firstLaunchPath(std::string_view cacheRoot) {
    return pathBelow(cacheRoot, firstLaunchDirectory);
}

// <cache root>/.first-launch/<version>: one version's first-launch state.
inline std::string versionStatePath(std::string_view cacheRoot, std::string_view version) {
    std::string path = firstLaunchPath(cacheRoot);
    appendPathElement(path, version);
    return path;
}

// <cache root>/.first-launch/<version>/<library cache leaf>: the state
// directory of one library cache, the last element of its path.
inline std::string stateDirectoryPath(std::string_view cacheRoot, std::string_view version,
                                      std::string_view libraryCacheLeaf) {
    std::string path = versionStatePath(cacheRoot, version);
    appendPathElement(path, libraryCacheLeaf);
    return path;
}

// <state directory>/.quor-stdlib-ready.
inline std::string markerPath(std::string_view cacheRoot, std::string_view version,
                              std::string_view libraryCacheLeaf) {
    std::string path = stateDirectoryPath(cacheRoot, version, libraryCacheLeaf);
    appendPathElement(path, markerFileName);
    return path;
}

// .stdlib-bootstrap-<library cache leaf>.lock: the build lock of a state
// directory, named after it.
inline std::string lockFileName(std::string_view libraryCacheLeaf) {
    std::string name(lockFilePrefix);
    name += libraryCacheLeaf;
    name += lockFileSuffix;
    return name;
}

// Whether `name` is one that lockFileName() gives for a leaf that is not empty.
inline bool isLockFileName(std::string_view name) {
    return name.size() > lockFilePrefix.size() + lockFileSuffix.size() &&
           name.starts_with(lockFilePrefix) && name.ends_with(lockFileSuffix);
}

// <cache root>/.first-launch/<version>/.stdlib-bootstrap-<library cache leaf>.lock.
inline std::string lockFilePath(std::string_view cacheRoot, std::string_view version,
                                std::string_view libraryCacheLeaf) {
    return pathBelow(versionStatePath(cacheRoot, version), lockFileName(libraryCacheLeaf));
}

// <library>/.quor-stdlib-fingerprint: the fingerprint a library carries.
inline std::string installedFingerprintPath(std::string_view library) {
    return pathBelow(library, installedFingerprintFile);
}

// <build tree>/generated/quor-stdlib.fingerprint.
inline std::string buildTreeFingerprintPath(std::string_view buildTree) {
    return pathBelow(pathBelow(buildTree, generatedDirectory), buildTreeFingerprintFile);
}

} // namespace quor::compiler::layout

#endif
