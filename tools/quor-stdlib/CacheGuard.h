// What quor-stdlib does around the bootstrap to keep it from being turned
// against its user: it vouches for the cache root before a subcommand reads or
// writes it (compiler/CacheTrust.h), keeps the build lock of every version that
// `prune` removes while it removes it, and, when the bootstrap cannot take its
// lock, names the likely cause, since the bootstrap's own message cannot.

#ifndef QUOR_TOOLS_QUOR_STDLIB_CACHEGUARD_H
#define QUOR_TOOLS_QUOR_STDLIB_CACHEGUARD_H

#include "CacheProbe.h"
#include "Failure.h"
#include "LockHolder.h"

#include "compiler/CacheLayers.h"
#include "compiler/CacheTrust.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quor::stdlibtool {

enum class CacheUse {
    Inspect, // status: read only, nothing created
    Build,   // ensure: the layout directories are created when missing
    Prune,   // prune: removes older versions
};

// Checks the cache root of `paths` and the paths of its layout for `use`: for
// Inspect and Build, every path compiler::cacheLayoutToVerify() names with the
// first-launch state (set-aside area included); for Prune, .first-launch alone,
// which pruning deletes below. For Build it also narrows the umask so that
// nothing the bootstrap creates is writable by others. Returns the user's
// access; throws compiler::UntrustedCacheError (with what to fix) or
// std::runtime_error.
compiler::CacheAccess guardCache(const CachePaths& paths, CacheUse use);

// The cache layer a subcommand that reads a whole cache (verify, pack) works
// on: the one the compiler would use, chosen as the compiler chooses it
// (compiler/CacheLayers.h; `layers.ready` is the bootstrap's own state
// class's answer for it), with its paths and the identity.
struct LayerInUse {
    compiler::CacheLayerChoice layers;
    CachePaths paths;
    Identity identity;
};

// Chooses the layer for the configured runtime, vouches for it with
// guardCache(CacheUse::Inspect), and checks that the library is there.
// Throws what guardCache() throws, and ToolError (kind io) "Quor standard
// library '<path>' was not found".
LayerInUse openLayerInUse();

// The message for a build that a read-only system-wide cache needs.
std::string readOnlyCacheNotReady(const CachePaths& paths);

// Whether `name` is a build lock file as the bootstrap names them:
// ".stdlib-bootstrap-<leaf>.lock".
bool isBuildLockName(const std::string& name);

// Throws the refusal of `command` ("clean", "prune") when `paths` is the
// system cache and the user is not root: the system layer is never changed
// by a user's maintenance, however it is named.
void refuseSystemCache(const CachePaths& paths, std::string_view command);

// The refusal of `clean` on a cache that belongs to root.
std::string readOnlyCacheCannotBeCleaned(const CachePaths& paths);

// The refusal of `ensure --force` on a cache that belongs to root.
std::string readOnlyCacheCannotBeRebuilt(const CachePaths& paths);

// The message for pruning a read-only system-wide cache.
std::string readOnlyCacheCannotBePruned(const CachePaths& paths);

// One line on why the lock file could not be opened or locked: its owner, its
// permissions, no space or no inodes left, a path too long. Empty when none of
// these is seen.
std::string likelyLockFailureCause(const std::filesystem::path& lockFile);

// A version that is being built while `prune` wants to remove it.
struct BusyVersion {
    std::filesystem::path version; // the version's cache directory
    std::filesystem::path lockFile;
    std::optional<LockHolder> holder;
};

// The build locks of the versions `prune` is about to remove, held from
// acquire() until the object goes. Removing a version whose build is running
// would delete the lock it holds and the objects it is writing; holding the
// lock means no build of that version is running, and one that starts waits.
// A build that starts after the removal builds into fresh directories.
class VersionLocks {
public:
    VersionLocks() = default;
    ~VersionLocks();
    VersionLocks(const VersionLocks&) = delete;
    VersionLocks& operator=(const VersionLocks&) = delete;

    // Takes, without waiting, every build lock found in the first-launch state
    // of each version. Returns the first version whose lock another process
    // holds (keeping none of the locks then), or nothing when all were taken.
    std::optional<BusyVersion> acquire(const std::filesystem::path& cacheRoot,
                                       const std::vector<std::filesystem::path>& versions);

private:
    void release();

    std::vector<int> descriptors_;
};

// "Refusing to prune ...: version V is being built by ...".
// `command` is the subcommand that refuses: "prune" or "clean".
std::string busyVersionMessage(const BusyVersion& busy, std::string_view command = "prune");

// The failure a refusal for a running build ends with: kind "lock", with the
// holder ({"pid", "command"}) when it is known.
ToolError busyVersionError(const BusyVersion& busy, std::string_view command = "prune");

} // namespace quor::stdlibtool

#endif
