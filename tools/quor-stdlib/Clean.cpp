// `quor-stdlib clean`: removes the running compiler version's cache (its
// library cache and set-aside objects) and its first-launch state, so that the
// next `ensure` builds from nothing, as `go clean -cache` or `pip cache purge`
// do for theirs. It holds the version's build lock while it removes, so that it
// never pulls a cache from under a build, and keeps the lock file itself: a
// build that starts meanwhile then waits on the same lock instead of making a
// new one beside a cache being removed.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <iomanip>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;

bool present(const fs::path& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

void removeAll(const fs::path& path) {
    std::error_code error;
    fs::remove_all(path, error);
    if (error)
        throw ToolError(kind::io,
                        "Unable to remove Quor cache '" + path.string() + "': " + error.message());
}

} // namespace

int runClean(const Invocation& invocation, Console& console) {
    try {
        configureRuntime(invocation);
        const CachePaths paths = currentPaths();
        const std::string version(compilerVersion());
        // Clean works on the user's cache: configureRuntime() leaves the
        // runtime there, and a system cache named as the cache root is refused.
        if (!invocation.clean.dryRun)
            refuseSystemCache(paths, "clean");
        // Removal goes by path: every directory of the layout must be a real
        // directory that only the user can change.
        if (guardCache(paths, CacheUse::Inspect) == compiler::CacheAccess::ReadOnly &&
            !invocation.clean.dryRun)
            throw ToolError(kind::untrusted, readOnlyCacheCannotBeCleaned(paths));
        // What is left after a clean, the lock file, is not a cache.
        bool found = present(paths.cacheBranch);
        std::error_code error;
        for (fs::directory_iterator entries(paths.versionState, error);
             !found && !error && entries != fs::directory_iterator(); entries.increment(error))
            found = !isBuildLockName(entries->path().filename().string());
        const std::uint64_t bytes = found ? versionBytes(paths.cacheRoot, version) : 0;

        const bool text = !invocation.global.json && !invocation.global.quiet;
        auto& out = console.out();
        if (text) {
            if (!found)
                out << "no cache of " << version << " under " << visible(paths.cacheRoot.string())
                    << std::endl;
            else
                out << "  " << std::left << std::setw(10) << version << std::right << std::setw(10)
                    << formatBytes(bytes) << "  " << visible(paths.cacheBranch.string()) << '\n'
                    << std::flush;
        }

        bool removed = false;
        if (found && !invocation.clean.dryRun) {
            VersionLocks locks;
            if (const auto busy = locks.acquire(paths.cacheRoot, {paths.cacheBranch}))
                throw busyVersionError(*busy, "clean");
            removeAll(paths.cacheBranch);
            for (fs::directory_iterator entries(paths.versionState, error);
                 !error && entries != fs::directory_iterator(); entries.increment(error))
                if (!isBuildLockName(entries->path().filename().string()))
                    removeAll(entries->path());
            removed = true;
        }

        if (invocation.global.json)
            out << jsonText(nlohmann::ordered_json{{"cacheRoot", paths.cacheRoot.string()},
                                                   {"version", version},
                                                   {"dryRun", invocation.clean.dryRun},
                                                   {"path", paths.cacheBranch.string()},
                                                   {"found", found},
                                                   {"bytes", bytes},
                                                   {"removed", removed},
                                                   {"bytesFreed", removed ? bytes : 0}},
                            2)
                << std::endl;
        else if (text && found)
            out << (removed ? "removed the cache of " + version + ", freed " + formatBytes(bytes)
                            : "would remove the cache of " + version + ", freeing " +
                                  formatBytes(bytes) + " (dry run: nothing removed)")
                << std::endl;
        return console.finish(ExitSuccess, "the clean report was cut short");
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
