// The objects of the library cache as the precompiler keeps them: which object
// belongs to which unit, whether the object on disk is sound for the unit's
// current bytes, and the set-aside area where a build keeps the sound objects
// it displaces, so that going back to an earlier library compiles nothing.
//
// Every object ends with a record that holds the SHA-256 of all the bytes
// before it (docs/object-format.md), so an object vouches for itself: one read
// and one hash tell a sound object from a truncated, edited or foreign one,
// without a manifest that would have to agree with the objects after a crash.
// judgeObject() is the one place that rule is written; the precompiler decides
// what to reuse with it, and `quor-stdlib verify` and `status` explain the
// cache with it.

#ifndef QUOR_COMPILER_OBJECTCACHE_H
#define QUOR_COMPILER_OBJECTCACHE_H

#include "compiler/BuildSession.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler {

// One unit of a batch: the path as the caller named it, the path below the
// library root that its object records, and where its object goes.
struct PlannedObject {
    std::string source;
    std::string unitPath;
    std::filesystem::path object;
};

// The objects of `sources` in the configured Runtime's library cache. Throws
// std::runtime_error ("<unit>:1:1: ...") for a unit that lies outside the
// standard library or whose name does not end in ".qr".
std::vector<PlannedObject> planObjects(const std::vector<std::string>& sources);

enum class ObjectVerdict {
    Sound,   // intact, of the current object ABI, of this unit, from these bytes
    Missing, // nothing at the object's path
    Damaged, // not an object that can be trusted: a link, not a regular file,
             // unreadable, truncated or edited, of another ABI or another unit
    Stale,   // intact and of this unit, but compiled from other bytes
};

// "sound", "missing", "damaged", "stale".
std::string_view objectVerdictName(ObjectVerdict verdict);

struct ObjectJudgement {
    ObjectVerdict verdict = ObjectVerdict::Missing;
    std::string problem; // for Damaged and Stale: what is wrong, as a phrase
    // The SHA-256 of the bytes the object was compiled from, when the object is
    // intact and of the current ABI and unit (Sound and Stale); "" otherwise.
    std::string compiledFrom;
    std::uint64_t bytes = 0; // the object's size, for a Sound one
};

// Judges the file at `object` as the object of `unitPath` (below the library
// root, '/' separators) whose current bytes are `sourceSize` long and hash to
// `sourceSha256` (lower-case hexadecimal). A symbolic link is never followed
// and a FIFO or device never blocks; both are Damaged. Never throws for file
// trouble. Safe from any thread.
// When `judged` is given, it receives the bytes that were judged for a Sound
// object (and is emptied otherwise), so that a caller who goes on to use the
// object uses what was judged, not what the file holds a moment later.
ObjectJudgement judgeObject(const std::filesystem::path& object, std::string_view unitPath,
                            std::uint64_t sourceSize, std::string_view sourceSha256,
                            std::string* judged = nullptr);

// judgeObject() for an object's bytes already in memory (a pack's, say): the
// same rules, less those about the file (Missing, links, special files).
ObjectJudgement judgeObjectText(std::string_view bytes, std::string_view unitPath,
                                std::uint64_t sourceSize, std::string_view sourceSha256);

// Where a build sets aside the sound objects it displaces, for the configured
// Runtime: layout::setAsideDirectoryPath() of its cache branch. Its entries are named for the unit
// and the bytes they were compiled from, so a later build of those bytes moves the object back
// instead of compiling it.
std::filesystem::path setAsideDirectory();

// The set-aside entry for the unit whose path, as an object records it
// (objectformat::escapedField()), is `unitField`, compiled from bytes hashing to
// `sourceSha256`. The recorded form is the one an object found on its own
// carries, so that the sweep and a build name the same entry.
std::filesystem::path setAsidePath(const std::filesystem::path& setAside,
                                   std::string_view unitField, std::string_view sourceSha256);

// What the library cache holds for one unit.
struct UnitObjectReport {
    PlannedObject planned;
    ObjectJudgement judgement;
    bool setAside = false; // a sound object for the unit's bytes waits in the set-aside area
    // The adoption source (Runtime::getAdoptionSource()) holds a sound object
    // for the unit's bytes; looked at only when neither of the above is sound.
    bool adoptable = false;
    bool unreadable = false; // the unit itself could not be read; judgement is Missing
};

struct LibraryCacheReport {
    std::vector<UnitObjectReport> units;        // in the order of `sources`
    std::vector<std::filesystem::path> orphans; // in the library cache, of no unit
    std::string abiRecord;                      // the ABI record's word, "" when there is none
    bool abiRecordCurrent = false;              // it names objectformat::abiVersion
};

// Examines the library cache for `sources` without changing anything: each
// unit's object judged against the unit's current bytes, whether the set-aside
// area or the adoption source could supply it, and every entry that belongs to
// no unit. Throws like
// planObjects(), and std::runtime_error when the library cache exists but
// cannot be listed.
LibraryCacheReport inspectLibraryCache(const std::vector<std::string>& sources);

// The first white-space-delimited word of the ABI record at `path`, or "" when
// there is no record. Only a regular file reached without a symbolic link is a
// record, and only its first 4096 bytes are read: a FIFO or a device put in its
// place neither blocks nor is read without end, and reads as no record. Never
// throws for file trouble.
std::string readAbiRecord(const std::filesystem::path& path);

// ---- Used by the precompiler (compiler/Compiler.cpp) ----

// Writes `data` to `path` through a temporary sibling, ".<name>.tmp.<pid>.<n>",
// and a rename, so that a reader sees the old file or the whole new one. Returns
// 0, or the errno of the step that failed, in which case no temporary remains.
int writeFileAtomically(const std::filesystem::path& path, std::string_view data);

// Clears the library cache `lib` of everything that is neither an object of
// `planned`, nor a folder on the way to one, nor the top-level file named
// `keepName`: sound objects of units no longer in the batch are set aside, and
// everything else (damaged objects, links, special files, foreign files, the
// temporaries of builds that are gone) is removed. Entries standing where an
// object or a folder of `planned` belongs but that are of the wrong kind go too,
// so that the build can put the right thing there. Returns how many entries went.
// Throws std::runtime_error when the cache cannot be listed or an entry cannot
// be removed.
std::size_t sweepLibraryCache(const std::filesystem::path& lib,
                              const std::vector<PlannedObject>& planned,
                              const std::filesystem::path& setAside, std::string_view keepName);

enum class ObjectOutcome {
    Kept,      // the object in place was sound
    MovedBack, // a sound object came back from the set-aside area
    Adopted,   // a sound object was copied from the adoption source
    Compiled,  // the unit was compiled
};

struct ObjectUpdate {
    ObjectOutcome outcome = ObjectOutcome::Compiled;
    std::uint64_t bytes = 0; // the object's size
    std::string object;      // for Compiled: the new object, for writeObject()
};

// Makes `planned.object` sound for the unit's current bytes under object ABI
// `abi`, compiling only when neither the object in place, nor a set-aside one,
// nor the adoption source's is: a sound object of other bytes is set aside
// first. `adoptionSource` is an open folder of another library cache (a system
// cache's), or -1 for none; see adoptObject(). A compiled object is returned,
// not written: the caller hands it to writeObject(), so that a worker can
// write several at once. Throws std::runtime_error whose message starts with
// "<unit>:<line>:<column>: ". Safe from several threads at once for different
// units.
ObjectUpdate updateObject(const PlannedObject& planned, const std::filesystem::path& setAside,
                          int abi, int adoptionSource = -1);

// Copies the object of `planned` from the library cache open as the folder
// `adoptionSource` into place, when that object is sound for the unit's bytes
// (`sourceSize` long, hashing to `sourceSha256`). The object is reached below
// that folder without following any link; it is cloned (FICLONE) where the
// file system can share the blocks, else copied, into a temporary beside
// `planned.object`, and the copy is judged with judgeObject() before it is
// renamed into place, so what is published is what was judged. Nothing is
// ever written in the adoption source. Returns the object's size, or nothing
// (and leaves no temporary) when there is no sound object to adopt.
std::optional<std::uint64_t> adoptObject(const PlannedObject& planned, int adoptionSource,
                                         std::uint64_t sourceSize, std::string_view sourceSha256);

// Publishes `object` as the object of `planned` (writeFileAtomically). Throws
// std::runtime_error "<unit>:1:1: unable to write its object '<path>': ...".
void writeObject(const PlannedObject& planned, std::string_view object);

// Keeps the set-aside area within `budget` bytes, removing its oldest objects
// first, and removes whatever else is there. Best effort: what cannot be
// removed costs space, never correctness.
void trimSetAside(const std::filesystem::path& setAside, std::uint64_t budget);

} // namespace quor::compiler

#endif
