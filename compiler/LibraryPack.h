// The pack of a ready library cache: one file that carries every object a
// build of the library would leave, with the identity they were built for, so
// that many machines can share one build instead of each compiling the
// library. This module is the one owner of the pack's bytes: the writer and
// the reader live side by side and are built on the same names, and nothing
// else composes or takes apart a pack.
//
// A pack is text up to its objects, then the objects' own bytes:
//
//     QUOR_STDLIB_PACK\n
//     format=1\n
//     version=<compiler version>\n
//     abi=<object ABI>\n
//     fingerprint=<library fingerprint>\n
//     units=<count>\n
//     unit\t<unit path>\t<source size>\t<source sha256>\t<object size>\t<object sha256>\n
//     ... one line per unit, sorted by unit path (bytewise) ...
//     objects\n
//     <the objects' bytes, one after the other, in the order of the unit lines>
//
// Everything before the objects is the signed text: a signature over it binds
// the identity and, through each object's SHA-256, every object. The bytes
// depend only on the library and on the objects the compiler wrote for it: no
// time, host, user or file-system order is recorded, so two builds of the same
// library give the same pack.
//
// The objects are stored as they are, not compressed: they are text and zstd
// would make a pack about a third of its size (docs/performance.md), but the
// compressed bytes are those of the compressor's version, and a pack's bytes,
// like its signed text, are to depend on nothing but the library and the
// compiler. A transport may compress the file; the pack itself does not.
//
// The reader takes hostile input: every size is bounded and checked against
// the bytes actually there before anything is allocated for it, and a refusal
// is a reason, never an exception.
//
// Internal: included by this project's sources, never installed.

#ifndef QUOR_COMPILER_LIBRARYPACK_H
#define QUOR_COMPILER_LIBRARYPACK_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler::pack {

// The first line of every pack, and the number of the format below it. Raise
// the number whenever a reader of an older pack would misread a newer one.
inline constexpr std::string_view header = "QUOR_STDLIB_PACK";
inline constexpr int formatNumber = 1;

// The extension of a pack file, and the name `quor-stdlib pack` gives one by
// default: <fingerprint>.qpack.
inline constexpr std::string_view fileExtension = ".qpack";

// Limits the reader holds a pack to, whatever its length fields claim: the
// whole pack, one object, and the number of units. A library many times the
// largest we build stays well inside them.
inline constexpr std::uint64_t maxPackBytes = std::uint64_t{1} << 30;
inline constexpr std::uint64_t maxObjectBytes = std::uint64_t{64} << 20;
inline constexpr std::uint64_t maxUnits = std::uint64_t{1} << 20;
// The longest unit path and identity value the reader accepts.
inline constexpr std::size_t maxPathBytes = 4096;
inline constexpr std::size_t maxIdentityValueBytes = 256;

// What the objects were built for: the readiness marker's identity.
struct Identity {
    std::string version;     // the compiler version
    int abi = 0;             // the object ABI
    std::string fingerprint; // the library fingerprint
    bool operator==(const Identity&) const = default;
};

// One unit of the library and its object.
struct Unit {
    std::string path; // below the library root, '/' separators, ending ".qr"
    std::uint64_t sourceSize = 0;
    std::string sourceSha256; // 64 lower-case hexadecimal digits
    std::uint64_t objectSize = 0;
    std::string objectSha256; // 64 lower-case hexadecimal digits
    bool operator==(const Unit&) const = default;
};

// A whole pack: the identity, the units sorted by path, and each unit's object
// bytes at the same index.
struct Pack {
    Identity identity;
    std::vector<Unit> units;
    std::vector<std::string> objects;
    bool operator==(const Pack&) const = default;
};

// "" when `path` may name a unit in a pack, else why not: it must be relative,
// at most maxPathBytes long, made of '/'-separated components none of which is
// empty, "." or "..", hold no backslash and no NUL, and end in ".qr". The
// reader refuses what this refuses and the writer never writes it, so that a
// consumer may join the path below its library cache without escaping it.
std::string unitPathProblem(std::string_view path);

// "" when `identity` can be written: version and fingerprint of 1 to
// maxIdentityValueBytes printable ASCII characters other than space, and an
// ABI of at least 1.
std::string identityProblem(const Identity& identity);

// "" when `pack` can be written as it is: identityProblem() and
// unitPathProblem() find nothing, the units are sorted by path with no path
// twice, there is one object per unit whose size and SHA-256 are the unit's,
// the digests are lower-case hexadecimal, and the limits above hold. Hashes
// every object.
std::string packProblem(const Pack& pack);

// The unit with `path`, its object and its source recorded: computes the
// object's size and SHA-256 and adds both to `pack`, keeping the units sorted.
// Does not check anything; packProblem() does.
void addUnit(Pack& pack, std::string path, std::uint64_t sourceSize, std::string sourceSha256,
             std::string object);

// The signed text of `pack`: the header, the identity and the manifest, every
// byte before the objects, exactly as encode() writes it. Expects a pack that
// packProblem() accepts.
std::string signedText(const Pack& pack);

// The pack's bytes: signedText() followed by the objects in order. Throws
// std::invalid_argument with packProblem()'s reason when the pack cannot be
// written, so that nothing unreadable ever leaves the writer.
std::string encode(const Pack& pack);

// Reads `bytes` as a pack. Returns "" and fills `pack` when it is one that
// encode() could have written, byte for byte; otherwise returns why not, as a
// phrase, and leaves `pack` in an unspecified state. Checks every bound before
// allocating, every unit path, the order of the units, that the objects add up
// to exactly the bytes after the manifest, and every object's SHA-256.
std::string decode(std::string_view bytes, Pack& pack);

// The length of the signed text at the start of `bytes`, which decode()
// accepted: where the objects begin. A verifier checks a signature over
// bytes.substr(0, signedLength(bytes)).
std::size_t signedLength(std::string_view bytes);

// A pack of the configured Runtime's library cache, and the units whose
// objects could not go into it.
struct CacheReading {
    Pack pack;
    struct Refusal {
        std::string unitPath;         // below the library root
        std::filesystem::path object; // where its object lies
        std::string problem;          // the object's verdict and what is wrong, as a phrase
    };
    std::vector<Refusal> refused; // in the order of `sources`; empty when the pack is whole
};

// Reads the object of each of `sources` (the units a build compiles, as the
// bootstrap names them) from the configured Runtime's library cache and
// judges it against the unit's bytes of today with judgeObject(), taking into
// the pack exactly the bytes that were judged. A unit whose object is not
// sound, or whose path unitPathProblem() refuses, is listed in `refused`
// instead. Throws like planObjects().
CacheReading readLibraryCache(const Identity& identity, const std::vector<std::string>& sources);

// What a consumer of a pack needs for one unit before it installs the unit's
// object into the configured Runtime's library cache.
struct InstallCheck {
    std::string unitPath;
    std::filesystem::path object; // layout::objectPath(library cache, unit path)
    // The configured library holds this unit with exactly the pack's bytes
    // (same size and SHA-256), and the pack's object is sound for them by
    // judgeObject()'s rules (its own checksum, the current ABI, this unit,
    // these bytes).
    bool installable = false;
    std::string problem; // why not, when not installable
};

// For each unit of `pack`, in its order, whether its object may be installed
// into the configured Runtime's library cache: the unit's bytes of today are
// read from the library and compared with the pack's, and the pack's object is
// judged against them. Writes nothing. Never throws for file trouble.
std::vector<InstallCheck> checkInstall(const Pack& pack);

} // namespace quor::compiler::pack

#endif
