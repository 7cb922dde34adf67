// The names and numbers of the standard-library cache's layout and of the
// readiness marker, in one place. The bootstrap writes and reads by them; the
// services, the tool's explanations and its guards find the same files by
// them. Every rule built on these names (how the marker is validated, where
// the state directory lies) stays with the bootstrap; this header only keeps
// the two sides from spelling a name differently.
//
// Internal: included by this project's sources, never installed.
//
// Below the cache root:
//     <version>/                                      one cache directory per version
//     .first-launch/<version>/<lib leaf>/.quor-stdlib-ready   the readiness marker
//     .first-launch/<version>/.stdlib-bootstrap-<lib leaf>.lock   the build lock
// Beside the library's units: .quor-stdlib-fingerprint. In the build tree:
// generated/quor-stdlib.fingerprint.

#ifndef QUOR_COMPILER_CACHELAYOUT_H
#define QUOR_COMPILER_CACHELAYOUT_H

#include <cstddef>
#include <string_view>

namespace quor::compiler::layout {

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

// The fingerprint files: one the library carries for itself, read first, and
// the build tree's.
inline constexpr std::string_view installedFingerprintFile = ".quor-stdlib-fingerprint";
inline constexpr std::string_view generatedDirectory = "generated";
inline constexpr std::string_view buildTreeFingerprintFile = "quor-stdlib.fingerprint";
// Hexadecimal digits of a fingerprint read from a file.
inline constexpr std::size_t fingerprintLength = 64;

// The extension of a standard-library unit.
inline constexpr std::string_view sourceExtension = ".qr";

} // namespace quor::compiler::layout

#endif
