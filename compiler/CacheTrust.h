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
        Directory, // must be a real directory; created when missing and preparing
        LockFile,  // opened with O_CREAT: a link, FIFO or device there is refused
        DataFile,  // read as a whole: when it is a regular file, it must be trusted
    };
    std::filesystem::path path;
    Kind kind = Kind::Directory;
};

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
