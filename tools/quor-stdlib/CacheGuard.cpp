// The tool's guard around the bootstrap: the cache-root check for each
// subcommand, the build locks that `prune` holds, and the likely cause of a
// lock failure.

#include "CacheGuard.h"

#include "compiler/CacheLayers.h"
#include "compiler/CacheLayout.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace fs = std::filesystem;
using compiler::CacheAccess;
using compiler::CacheLayoutEntry;

bool isBuildLockName(const std::string& name) {
    return compiler::layout::isLockFileName(name);
}

namespace {

std::string octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

} // namespace

CacheAccess guardCache(const CachePaths& paths, CacheUse use) {
    using Kind = CacheLayoutEntry::Kind;
    std::vector<CacheLayoutEntry> layout;
    if (use == CacheUse::Prune) {
        // Pruning deletes below .first-launch by path: it must be a real directory.
        layout = {{paths.firstLaunch, Kind::Directory}};
    } else {
        // The services' list, and the bootstrap's state with it: the tool
        // vouches for no less than a build does.
        layout =
            compiler::cacheLayoutToVerify(paths.cacheBranch, paths.libraryCache,
                                          {paths.firstLaunch, paths.versionState,
                                           paths.stateDirectory, paths.lockFile, paths.marker});
    }
    if (use == CacheUse::Build) {
        // The bootstrap creates its marker with the default mode: with a loose
        // umask, others could then edit what vouches for the cache.
        ::umask(::umask(077) | 022);
    }
    const fs::path root = paths.cacheRoot.empty() ? fs::path(".") : paths.cacheRoot;
    return compiler::verifyCacheRoot(root, layout, use == CacheUse::Build);
}

LayerInUse openLayerInUse() {
    LayerInUse layer;
    layer.layers = compiler::chooseCacheLayer();
    layer.paths = currentPaths();
    guardCache(layer.paths, CacheUse::Inspect);
    layer.identity = currentIdentity();
    std::error_code error;
    if (!fs::is_directory(layer.paths.library, error))
        throw ToolError(kind::io, "Quor standard library '" + layer.paths.library.string() +
                                      "' was not found");
    return layer;
}

void refuseSystemCache(const CachePaths& paths, std::string_view command) {
    if (::geteuid() == 0 || !compiler::isSystemCacheRoot(paths.cacheRoot))
        return;
    throw ToolError(kind::untrusted,
                    "Quor cache root '" + paths.cacheRoot.native() +
                        "' is the system cache, which only root changes; 'quor-stdlib " +
                        std::string(command) +
                        "' works on your own cache: leave out --cache-root and QUOR_CACHE_DIR");
}

std::string readOnlyCacheNotReady(const CachePaths& paths) {
    return "Quor cache root '" + paths.cacheRoot.native() +
           "' belongs to root and is read-only for you, and it is not ready for this compiler; "
           "ask an administrator to run 'quor-stdlib ensure --cache-root " +
           paths.cacheRoot.native() + "', or choose a cache root that you own";
}

std::string readOnlyCacheCannotBeRebuilt(const CachePaths& paths) {
    return "Quor cache root '" + paths.cacheRoot.native() +
           "' belongs to root and is read-only for you; only root can rebuild it with "
           "'quor-stdlib ensure --force'";
}

std::string readOnlyCacheCannotBeCleaned(const CachePaths& paths) {
    return "Quor cache root '" + paths.cacheRoot.native() +
           "' belongs to root and is read-only for you; only root can clean it";
}

std::string readOnlyCacheCannotBePruned(const CachePaths& paths) {
    return "Quor cache root '" + paths.cacheRoot.native() +
           "' belongs to root and is read-only for you; only root can prune it";
}

std::string likelyLockFailureCause(const fs::path& lockFile) {
    const fs::path directory = lockFile.parent_path();
    if (lockFile.native().size() >= PATH_MAX || lockFile.filename().native().size() > NAME_MAX)
        return "the lock file's path is longer than the system allows";
    struct stat info {};
    if (::lstat(lockFile.c_str(), &info) == 0) {
        if (info.st_uid != ::geteuid())
            return "the lock file belongs to uid " + std::to_string(info.st_uid) +
                   "; give each user a cache root of their own";
        if (!S_ISREG(info.st_mode))
            return "the lock file is not a regular file";
        if (::access(lockFile.c_str(), R_OK | W_OK) != 0)
            return "the lock file is not readable and writable for you (mode " +
                   octal(info.st_mode) + ")";
        return {};
    }
    if (errno != ENOENT)
        return {};
    // Nothing there: creating it failed.
    struct statvfs space {};
    if (::statvfs(directory.c_str(), &space) == 0) {
        if (space.f_files > 0 && space.f_favail == 0)
            return "the file system holding '" + directory.native() + "' has no free inodes";
        const auto blocks = ::geteuid() == 0 ? space.f_bfree : space.f_bavail;
        if (blocks == 0)
            return "the file system holding '" + directory.native() + "' has no free space";
    }
    if (::access(directory.c_str(), W_OK | X_OK) != 0 && errno == EACCES) {
        struct stat owner {};
        const std::string whose = ::lstat(directory.c_str(), &owner) == 0
                                      ? " (it belongs to uid " + std::to_string(owner.st_uid) +
                                            ", mode " + octal(owner.st_mode) + ")"
                                      : std::string();
        return "you may not create files in '" + directory.native() + "'" + whose;
    }
    return {};
}

VersionLocks::~VersionLocks() {
    release();
}

void VersionLocks::release() {
    for (int fd : descriptors_) {
        ::flock(fd, LOCK_UN);
        ::close(fd); // opened only to lock: nothing written through it
    }
    descriptors_.clear();
}

std::optional<BusyVersion> VersionLocks::acquire(const fs::path& cacheRoot,
                                                 const std::vector<fs::path>& versions) {
    const std::string root = cacheRoot.lexically_normal().native();
    for (const fs::path& version : versions) {
        const fs::path state =
            compiler::layout::versionStatePath(root, version.filename().native());
        std::error_code error;
        fs::directory_iterator entries(state, error);
        for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
            const std::string name = entries->path().filename().native();
            if (!isBuildLockName(name))
                continue;
            // No O_CREAT, no link followed, no wait on a FIFO: only a lock file
            // that a build made is of interest here.
            const int fd = ::open(entries->path().c_str(),
                                  O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
            if (fd < 0)
                continue; // not ours to lock; the removal decides what happens to it
            struct stat info {};
            if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
                ::close(fd);
                continue;
            }
            if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
                const int failure = errno;
                ::close(fd);
                if (failure != EWOULDBLOCK)
                    continue; // cannot be locked at all, so no build holds it either
                release();
                return BusyVersion{version, entries->path(),
                                   findLockHolder(entries->path(), ::getpid())};
            }
            descriptors_.push_back(fd);
        }
    }
    return std::nullopt;
}

std::string busyVersionMessage(const BusyVersion& busy, std::string_view command) {
    return "Refusing to " + std::string(command) + " Quor cache '" + busy.version.native() +
           "': version " + busy.version.filename().native() + " is being built by " +
           (busy.holder ? describe(*busy.holder) : std::string("another process")) +
           " (it holds '" + busy.lockFile.native() + "'); run " + std::string(command) +
           " again when that build has finished";
}

ToolError busyVersionError(const BusyVersion& busy, std::string_view command) {
    nlohmann::ordered_json extra = nlohmann::ordered_json::object();
    if (busy.holder)
        extra["holder"] = {{"pid", busy.holder->pid}, {"command", busy.holder->command}};
    return ToolError(kind::lock, busyVersionMessage(busy, command), std::move(extra));
}

} // namespace quor::stdlibtool
