// The cache-root check: the path to the cache root is resolved one component
// at a time, with lstat and readlink, so that every directory and every link on
// the way is judged before anything is looked up through it. Resolving first
// (realpath) and judging afterwards would leave the links themselves unjudged.

#include "compiler/CacheTrust.h"
#include "compiler/ServiceError.h"

#include "compiler/CacheLayout.h"

#include <cerrno>
#include <deque>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

// As many links as the kernel follows in one lookup (MAXSYMLINKS).
constexpr int maximumLinks = 40;

// Write permission for the group or for others.
constexpr mode_t othersMayWrite = S_IWGRP | S_IWOTH;

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

std::string quoted(const fs::path& path) {
    return "'" + path.native() + "'";
}

// Only the running user and root can vouch for what they own: root can change
// anything anyway. Root's is asked first: most of what lies on the way to a
// cache, and all of a system cache, is root's, and that needs no system call.
bool trustedOwner(const struct stat& info) {
    return info.st_uid == 0 || info.st_uid == ::geteuid();
}

class Verifier {
public:
    Verifier(const fs::path& cacheRoot, bool prepare) : root_(cacheRoot), prepare_(prepare) {}

    [[noreturn]] void refuse(const std::string& detail) const {
        throw UntrustedCacheError("Refusing to use Quor cache root " + quoted(root_) + ": " +
                                  detail);
    }

    [[noreturn]] void refuseOwner(const fs::path& path, const struct stat& info,
                                  const char* what) const {
        refuse(quoted(path) + " is " + what + " that belongs to uid " +
               std::to_string(info.st_uid) + "; choose a cache root that you own");
    }

    // lstat, with "missing" as an answer rather than an error.
    bool inspect(const fs::path& path, struct stat& info) const {
        if (::lstat(path.c_str(), &info) == 0) {
            return true;
        }
        if (errno == ENOENT) {
            return false;
        }
        throw CacheIoError("Unable to inspect Quor cache path " + quoted(path) + ": " +
                           systemMessage(errno));
    }

    // Creates `path` as a directory unless something already stands there, and
    // examines what then stands there. mkdir() never follows a link in the last
    // component, and 0755 stays closed to others whatever the umask says.
    bool create(const fs::path& path, struct stat& info) const {
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
            throw CacheIoError("Unable to create Quor cache directory " + quoted(path) + ": " +
                               systemMessage(errno));
        }
        return inspect(path, info);
    }

    // A directory on the way to the cache root: nobody but the user and root may
    // replace what lies in it. A sticky directory such as /tmp may be writable by
    // all, since its entries can then be renamed or removed only by their owners,
    // whose ownership the next step checks.
    void checkAncestor(const fs::path& path, const struct stat& info) const {
        if (!S_ISDIR(info.st_mode)) {
            refuse(quoted(path) + " is not a directory; remove it or choose another cache root");
        }
        if (!trustedOwner(info)) {
            refuseOwner(path, info, "a directory");
        }
        if ((info.st_mode & othersMayWrite) != 0 && (info.st_mode & S_ISVTX) == 0) {
            refuse(quoted(path) +
                   " is writable by other users and not sticky; choose a cache root that only "
                   "you can change");
        }
    }

    // A directory of the cache itself: the root or one of its layout folders.
    void checkOwnDirectory(const fs::path& path, const struct stat& info) const {
        if (S_ISLNK(info.st_mode)) {
            refuse(quoted(path) + " is a symbolic link; remove it");
        }
        if (!S_ISDIR(info.st_mode)) {
            refuse(quoted(path) + " is not a directory; remove it or choose another cache root");
        }
        if (!trustedOwner(info)) {
            refuseOwner(path, info, "a directory");
        }
        if ((info.st_mode & othersMayWrite) != 0) {
            refuse(quoted(path) +
                   " is writable by other users; remove their write permission (chmod go-w)");
        }
    }

    void checkOwnFile(const fs::path& path, const struct stat& info) const {
        if (!trustedOwner(info)) {
            refuseOwner(path, info, "a file");
        }
        if ((info.st_mode & othersMayWrite) != 0) {
            refuse(quoted(path) +
                   " is writable by other users; remove their write permission (chmod go-w)");
        }
    }

    // Follows the cache root's path from "/" and checks each directory and link
    // on the way. Returns false when the root does not exist (and is not to be
    // created); `rootInfo` then is untouched.
    bool walkToRoot(struct stat& rootInfo) {
        std::error_code error;
        const fs::path absolute = fs::absolute(root_, error);
        if (error) {
            throw CacheIoError("Unable to inspect Quor cache path " + quoted(root_) + ": " +
                               error.message());
        }
        std::deque<fs::path> pending(absolute.begin(), absolute.end());
        fs::path resolved = "/";
        struct stat info {};
        if (!inspect(resolved, info)) {
            return false;
        }
        // A directory is held to the rule for directories on the way only once
        // something is looked up in it: the last one is the cache root, held to
        // the stricter rule below.
        struct stat resolvedInfo = info;
        int links = 0;
        while (!pending.empty()) {
            const fs::path element = pending.front();
            pending.pop_front();
            if (element.empty() || element == "." || element == "/") {
                continue;
            }
            if (element == "..") {
                // `resolved` holds no link, so its parent is the physical one.
                resolved = resolved.parent_path();
                if (!inspect(resolved, resolvedInfo)) {
                    return false;
                }
                continue;
            }
            checkAncestor(resolved, resolvedInfo);
            const fs::path next = resolved / element;
            if (!inspect(next, info)) {
                if (!prepare_) {
                    return false;
                }
                if (!create(next, info)) {
                    throw CacheIoError("Unable to create Quor cache directory " + quoted(next) +
                                       ": " + systemMessage(ENOENT));
                }
            }
            if (S_ISLNK(info.st_mode)) {
                if (!trustedOwner(info)) {
                    refuseOwner(next, info, "a symbolic link");
                }
                if (++links > maximumLinks) {
                    refuse(quoted(next) + " leads through too many symbolic links");
                }
                std::error_code linkError;
                const fs::path target = fs::read_symlink(next, linkError);
                if (linkError) {
                    throw CacheIoError("Unable to inspect Quor cache path " + quoted(next) + ": " +
                                       linkError.message());
                }
                pending.insert(pending.begin(), target.begin(), target.end());
                if (target.is_absolute()) {
                    resolved = "/";
                    if (!inspect(resolved, resolvedInfo)) {
                        return false;
                    }
                }
                continue;
            }
            resolved = next;
            resolvedInfo = info;
        }
        // The last directory reached is the cache root, held to the stricter rule.
        if (!inspect(resolved, rootInfo)) {
            return false;
        }
        checkOwnDirectory(resolved, rootInfo);
        return true;
    }

    void checkEntry(const CacheLayoutEntry& entry, bool mayCreate) const {
        struct stat info {};
        bool exists = inspect(entry.path, info);
        if (!exists && mayCreate && entry.kind == CacheLayoutEntry::Kind::Directory) {
            exists = create(entry.path, info);
        }
        if (!exists) {
            return;
        }
        switch (entry.kind) {
        case CacheLayoutEntry::Kind::Directory:
        case CacheLayoutEntry::Kind::ExistingDirectory:
            checkOwnDirectory(entry.path, info);
            return;
        case CacheLayoutEntry::Kind::LockFile:
            if (S_ISLNK(info.st_mode)) {
                refuse(quoted(entry.path) + " is a symbolic link; remove it");
            }
            if (!S_ISREG(info.st_mode)) {
                refuse(quoted(entry.path) + " is not a regular file; remove it");
            }
            checkOwnFile(entry.path, info);
            return;
        case CacheLayoutEntry::Kind::DataFile:
            // A link, FIFO or device is judged by whoever reads it, as absent.
            if (S_ISREG(info.st_mode)) {
                checkOwnFile(entry.path, info);
            }
            return;
        }
    }

private:
    fs::path root_;
    bool prepare_;
};

// The paths of the cache branch, the set-aside area of kind `setAside`.
std::vector<CacheLayoutEntry> branchLayout(const fs::path& cacheBranch,
                                           const fs::path& libraryCache,
                                           CacheLayoutEntry::Kind setAside) {
    using Kind = CacheLayoutEntry::Kind;
    return {{cacheBranch, Kind::Directory},
            {libraryCache, Kind::Directory},
            {layout::abiRecordPath(libraryCache.native()), Kind::DataFile},
            {layout::setAsideDirectoryPath(cacheBranch.native()), setAside}};
}

} // namespace

std::vector<CacheLayoutEntry> cacheLayoutToVerify(const fs::path& cacheBranch,
                                                  const fs::path& libraryCache) {
    return branchLayout(cacheBranch, libraryCache, CacheLayoutEntry::Kind::Directory);
}

std::vector<CacheLayoutEntry> cacheLayoutToVerify(const fs::path& cacheBranch,
                                                  const fs::path& libraryCache,
                                                  const FirstLaunchLayout& state) {
    using Kind = CacheLayoutEntry::Kind;
    std::vector<CacheLayoutEntry> entries =
        branchLayout(cacheBranch, libraryCache, Kind::ExistingDirectory);
    entries.insert(entries.end(), {{state.firstLaunch, Kind::Directory},
                                   {state.versionState, Kind::Directory},
                                   {state.stateDirectory, Kind::Directory},
                                   {state.lockFile, Kind::LockFile},
                                   {state.marker, Kind::DataFile}});
    return entries;
}

CacheAccess verifyCacheRoot(const fs::path& cacheRoot, const std::vector<CacheLayoutEntry>& layout,
                            bool prepare) {
    // Whether the user owns the root decides whether anything may be created,
    // so the first pass creates nothing.
    Verifier inspecting(cacheRoot, false);
    struct stat rootInfo {};
    bool exists = inspecting.walkToRoot(rootInfo);
    if (!exists && prepare) {
        Verifier preparing(cacheRoot, true);
        exists = preparing.walkToRoot(rootInfo);
    }
    if (!exists) {
        return CacheAccess::Writable; // nothing below a missing root to judge yet
    }
    // Owned by root while the user is someone else: anyone else was refused.
    const CacheAccess access =
        rootInfo.st_uid == ::geteuid() ? CacheAccess::Writable : CacheAccess::ReadOnly;
    const bool creating = prepare && access == CacheAccess::Writable;
    for (const CacheLayoutEntry& entry : layout) {
        inspecting.checkEntry(entry, creating);
    }
    return access;
}

} // namespace quor::compiler
