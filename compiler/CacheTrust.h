// Whether a cache root can be vouched for before anything in it is read as
// trusted or written.
//
// The bootstrap opens its lock file with O_CREAT, writes its marker and clears
// the library cache by path, so a symbolic link that someone else planted on
// one of those paths would turn the compiler's own writes and deletions against
// whoever runs it. The rule is the one ssh applies to its configuration files:
// every directory on the way to the cache root belongs to the running user or
// to root, and a directory that others may write to is sticky, so that nobody
// else can rename or replace what lies in it; the cache root itself, and every
// directory of the cache layout inside it, belongs to the running user (or to
// root) and is writable by nobody else. Then nobody but the user and root can
// plant anything where the compiler reads or writes.
//
// A cache root owned by root is usable by everyone else read-only: a
// system-wide prebuilt cache that an administrator maintains. Writing into it,
// building or pruning it, is left to root.
//
// Thread safety: the functions keep no state; they may run on any thread. They
// change nothing but the directories they are asked to create.

#ifndef QUOR_COMPILER_CACHETRUST_H
#define QUOR_COMPILER_CACHETRUST_H

#include "compiler/ServiceError.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace quor::compiler {

enum class CacheAccess {
    Writable, // the running user owns the cache root: it may be built and pruned
    ReadOnly, // root owns it and the running user is not root: use it as it stands
};

// A cache root, or something inside it, that cannot be vouched for. The message
// names the offending path, what is wrong with it and what to do.
class UntrustedCacheError : public ServiceError {
public:
    explicit UntrustedCacheError(const std::string& message)
        : ServiceError(Category::Untrusted, message) {}
};

// One path of the cache layout that is read or written below the cache root.
struct CacheLayoutEntry {
    enum class Kind {
        Directory,         // must be a real directory; created when missing and preparing
        ExistingDirectory, // must be a real directory when it exists; never created here
        LockFile,          // opened with O_CREAT: a link, FIFO or device there is refused
        DataFile,          // read as a whole: when it is a regular file, it must be trusted
    };
    std::filesystem::path path;
    Kind kind = Kind::Directory;
};

// The bootstrap's first-launch state of one library cache, as the bootstrap
// composes its paths.
struct FirstLaunchLayout {
    std::filesystem::path firstLaunch;    // <cache root>/.first-launch
    std::filesystem::path versionState;   // <cache root>/.first-launch/<version>
    std::filesystem::path stateDirectory; // <version state>/<library cache leaf>
    std::filesystem::path lockFile;       // <version state>/.stdlib-bootstrap-<leaf>.lock
    std::filesystem::path marker;         // <state directory>/.quor-stdlib-ready
};

// What the check covers below the cache root, in the order it is made: the
// cache branch `cacheBranch`, its library cache `libraryCache`, the object ABI
// record in it, and the set-aside area of the branch, whose objects a build
// moves back into the library cache and which must therefore be as trusted as
// the library cache itself. This is the list the services check before they
// change the library cache; every directory in it is created when missing.
std::vector<CacheLayoutEntry> cacheLayoutToVerify(const std::filesystem::path& cacheBranch,
                                                  const std::filesystem::path& libraryCache);

// The same paths, followed by the first-launch state `state`: .first-launch,
// the version's state and the state directory, the lock file, the marker.
// What quor-stdlib checks before a subcommand reads or writes the cache, and
// what a program that embeds the bootstrap checks before ensure(). The
// set-aside area is an ExistingDirectory here: the services, which fill it,
// create it; a check made before them only vouches for it where it exists.
std::vector<CacheLayoutEntry> cacheLayoutToVerify(const std::filesystem::path& cacheBranch,
                                                  const std::filesystem::path& libraryCache,
                                                  const FirstLaunchLayout& state);

// Checks `cacheRoot`, the directories that lead to it, and each entry of
// `layout` that exists, in order. With `prepare` and a cache root the user owns,
// missing directories (the root, its missing parents, the Directory entries)
// are created with mode 0755 first; nothing is created for a read-only cache.
// A cache root that does not exist (and is not prepared) is vouched for when
// the directories leading to it are.
//
// Returns the access the running user has. Throws UntrustedCacheError when a
// path is owned by another user, writable by others, a symbolic link where none
// may be, or not a directory; std::runtime_error when a path cannot be examined
// or created. Never follows a link that it has not checked first.
CacheAccess verifyCacheRoot(const std::filesystem::path& cacheRoot,
                            const std::vector<CacheLayoutEntry>& layout, bool prepare);

} // namespace quor::compiler

#endif
