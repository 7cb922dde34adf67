// The choice between the user's cache and the system cache (CacheLayers.h).
// The readiness of each is the bootstrap's own answer: its identity for the
// configured library and its StandardLibraryCacheState for the layer's state
// directory. The trust of the system cache is CacheTrust's. What is decided
// here is only the order of the layers and whether a ready system cache is
// still as its marker left it.

#include "compiler/CacheLayers.h"

#include "compiler/BootstrapExplanation.h"
#include "compiler/CacheTrust.h"
#include "compiler/Runtime.h"
#include "compiler/StandardLibraryCacheState.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

bool newer(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Closes a descriptor when it goes out of scope.
struct Descriptor {
    int fd;
    explicit Descriptor(int opened) : fd(opened) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

// The first entry below the open folder `fd` (whose path is `path`) that is
// neither a folder nor a regular file no newer than `limit`, as a reason; ""
// when there is none. Takes ownership of `fd`. Descends by descriptor, so
// that no link on the way is followed. Every compiler start of a fresh user
// pays for this walk, so it reads the folders with getdents64 itself, which
// costs one call per folder where opendir() costs three more, and asks for
// the status of the files alone, taking the kind of the rest from the entry.
std::string firstChangeBelow(int fd, const fs::path& path, const struct timespec& limit) {
    const Descriptor folder(fd);
    alignas(8) char buffer[16 * 1024];
    for (;;) {
        const long count = ::syscall(SYS_getdents64, folder.fd, buffer, sizeof buffer);
        if (count < 0) {
            return "'" + path.native() + "' cannot be listed: " + std::strerror(errno);
        }
        if (count == 0) {
            return {};
        }
        for (long offset = 0; offset < count;) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + offset);
            offset += entry->d_reclen;
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") {
                continue;
            }
            unsigned char type = entry->d_type;
            struct stat info {};
            if (type == DT_UNKNOWN || type == DT_REG) {
                if (::fstatat(folder.fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
                    return "'" + (path / name).native() +
                           "' cannot be examined: " + std::strerror(errno);
                }
                type = S_ISDIR(info.st_mode)   ? DT_DIR
                       : S_ISREG(info.st_mode) ? DT_REG
                       : S_ISLNK(info.st_mode) ? DT_LNK
                                               : DT_UNKNOWN;
            }
            if (type == DT_DIR) {
                const int child = ::openat(folder.fd, entry->d_name,
                                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (child < 0) {
                    return "'" + (path / name).native() +
                           "' cannot be listed: " + std::strerror(errno);
                }
                if (std::string change = firstChangeBelow(child, path / name, limit);
                    !change.empty()) {
                    return change;
                }
            } else if (type != DT_REG) {
                return "'" + (path / name).native() + "' is " +
                       (type == DT_LNK ? "a symbolic link" : "not a regular file");
            } else if (newer(info.st_mtim, limit)) {
                return "'" + (path / name).native() +
                       "' changed after the readiness marker was written";
            }
        }
    }
}

bool sameDirectory(const std::string& a, const std::string& b) {
    if (fs::path(a).lexically_normal() == fs::path(b).lexically_normal()) {
        return true;
    }
    struct stat first {};
    struct stat second {};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Whether the layer the runtime points at now is ready for `identity`.
bool layerReady(const explain::FirstLaunchPaths& paths, const explain::Identity& identity) {
    return StandardLibraryCacheState(paths.stateDirectory, identity.version, identity.abiVersion,
                                     identity.fingerprint)
        .isReady();
}

std::string notReadyReason(const explain::FirstLaunchPaths& paths,
                           const explain::Identity& identity) {
    struct stat info {};
    if (::lstat(paths.cacheRoot.c_str(), &info) != 0 && errno == ENOENT) {
        return "there is no cache at '" + paths.cacheRoot.native() + "'";
    }
    // Only on the way to a build: the bootstrap's diagnosis says which
    // field of the marker differs, at the cost of one more read.
    const explain::MarkerDiagnosis marker = explain::diagnoseMarker(paths.marker, identity);
    std::string why;
    switch (marker.verdict) {
    case explain::MarkerVerdict::Missing:
        why = "it has not been built for this compiler";
        break;
    case explain::MarkerVerdict::Mismatch:
        why = "its readiness marker was written for another";
        for (std::size_t i = 0; i < marker.differences.size(); ++i) {
            why += (i == 0                               ? " "
                    : i + 1 == marker.differences.size() ? " and "
                                                         : ", ") +
                   marker.differences[i].name;
        }
        break;
    default:
        why = marker.detail.empty() ? "its readiness marker does not vouch for it" : marker.detail;
        break;
    }
    return "'" + paths.cacheRoot.native() + "' is not ready for this compiler and library: " + why;
}

} // namespace

std::string_view cacheLayerName(CacheLayerKind kind) {
    return kind == CacheLayerKind::System ? "system" : "user";
}

std::string_view layerProblemName(LayerProblem problem) {
    switch (problem) {
    case LayerProblem::NotReady:
        return "not-ready";
    case LayerProblem::Untrusted:
        return "untrusted";
    case LayerProblem::Unreadable:
        return "unreadable";
    case LayerProblem::Changed:
        return "changed";
    }
    return "not-ready";
}

std::string libraryCacheChangeSinceMarker(const fs::path& libraryCache, const fs::path& marker) {
    struct stat markerInfo {};
    if (::lstat(marker.c_str(), &markerInfo) != 0) {
        return "'" + marker.native() + "' cannot be examined: " + std::strerror(errno);
    }
    const int fd = ::open(libraryCache.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return "'" + libraryCache.native() + "' cannot be listed: " + std::strerror(errno);
    }
    return firstChangeBelow(fd, libraryCache, markerInfo.st_mtim);
}

CacheLayerChoice chooseCacheLayer() {
    Runtime& runtime = Runtime::getInstance();
    const std::string userRoot = runtime.getUserCacheRoot();
    runtime.useCacheRoot(userRoot);
    runtime.setAdoptionSource({});

    CacheLayerChoice choice;
    choice.cacheRoot = userRoot;
    // The identity depends on the library alone, not on the layer.
    const explain::Identity identity = explain::currentIdentity();
    const explain::FirstLaunchPaths userPaths = explain::currentPaths();
    choice.ready = layerReady(userPaths, identity);
    if (choice.ready) {
        return choice; // the system cache is not even looked for
    }
    const std::string systemRoot = runtime.getSystemCacheRoot();
    if (systemRoot.empty() || sameDirectory(userRoot, systemRoot)) {
        return choice;
    }
    choice.passedOver.push_back({CacheLayerKind::User, userRoot, LayerProblem::NotReady,
                                 notReadyReason(userPaths, identity)});

    runtime.useCacheRoot(systemRoot);
    const explain::FirstLaunchPaths systemPaths = explain::currentPaths();
    PassedOverLayer system{CacheLayerKind::System, systemRoot, LayerProblem::NotReady, {}};
    bool trusted = false;
    try {
        verifyCacheRoot(systemPaths.cacheRoot,
                        cacheLayoutToVerify(systemPaths.cacheBranch, systemPaths.libraryCache,
                                            {systemPaths.firstLaunch, systemPaths.versionState,
                                             systemPaths.stateDirectory, systemPaths.lockFile,
                                             systemPaths.marker}),
                        false);
        trusted = true;
    } catch (const UntrustedCacheError& error) {
        system.problem = LayerProblem::Untrusted;
        system.reason = error.what();
    } catch (const std::exception& error) {
        system.problem = LayerProblem::Unreadable;
        system.reason = error.what();
    }
    struct stat library {};
    if (trusted &&
        (::stat(systemPaths.library.c_str(), &library) != 0 || !S_ISDIR(library.st_mode))) {
        // Without a library the identity is a fallback that names no units:
        // the bootstrap builds nothing then, and no cache can be ready for it.
        system.reason = "the standard library '" + systemPaths.library.native() + "' was not found";
    } else if (trusted) {
        if (!layerReady(systemPaths, identity)) {
            system.reason = notReadyReason(systemPaths, identity);
        } else if (std::string change =
                       libraryCacheChangeSinceMarker(systemPaths.libraryCache, systemPaths.marker);
                   !change.empty()) {
            system.problem = LayerProblem::Changed;
            system.reason = std::move(change);
        } else {
            choice.inUse = CacheLayerKind::System;
            choice.cacheRoot = systemRoot;
            choice.ready = true;
            return choice;
        }
    }
    // Not usable as it stands: the user's cache is built, and a system cache
    // that can be trusted still lends whatever objects of it are sound.
    runtime.useCacheRoot(userRoot);
    if (trusted) {
        choice.adoptionSource = systemPaths.libraryCache;
        runtime.setAdoptionSource(systemPaths.libraryCache.native());
    }
    choice.passedOver.push_back(std::move(system));
    return choice;
}

} // namespace quor::compiler

namespace quor::compiler {

bool isSystemCacheRoot(const fs::path& cacheRoot) {
    const std::string& system = Runtime::getInstance().getSystemCacheRoot();
    return !system.empty() && sameDirectory(cacheRoot.native(), system);
}

void buildInUserCache(CacheLayerChoice& choice) {
    Runtime& runtime = Runtime::getInstance();
    if (choice.inUse == CacheLayerKind::System) {
        choice.adoptionSource = explain::currentPaths().libraryCache;
        runtime.setAdoptionSource(choice.adoptionSource.native());
    }
    runtime.useCacheRoot(runtime.getUserCacheRoot());
    choice.inUse = CacheLayerKind::User;
    choice.cacheRoot = runtime.getUserCacheRoot();
    choice.ready = false;
}

} // namespace quor::compiler
