// `quor-stdlib prune`: lists the caches of older compiler versions with their
// size, and removes them through the bootstrap, which also removes their
// first-launch state and refuses anything that is not a real version directory
// directly under the cache root. On a terminal, a line shows the files going.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "Progress.h"
#include "TreeRemoval.h"

#include "compiler/StandardLibraryBootstrap.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <iomanip>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;

struct Candidate {
    fs::path path;
    std::uint64_t bytes = 0; // the version's cache and its first-launch state
};

std::string plural(std::size_t count, std::string_view one, std::string_view many) {
    return std::to_string(count) + " " + std::string(count == 1 ? one : many);
}

// Empties the cache directory of each candidate, in the bootstrap's order,
// counting the files as they go; the bootstrap's removeOlderCacheVersions
// then removes the emptied directories and their first-launch state.
//
// The bootstrap's removal reports nothing while it works, and a tree of tens
// of thousands of files takes a while; its rules must stay what decides. So
// the emptying here only goes ahead of it, under the build locks already
// held, and keeps to those rules: a candidate is touched only when the
// bootstrap's own test before deleting passes (compiler::explain::
// removalVerdict: a real directory, not a link, directly under the cache root
// as given), it is opened with O_NOFOLLOW
// relative to the root, and nothing below it is followed (TreeRemoval.h). At
// the first candidate that fails that test, or whose tree cannot be emptied
// entirely, the emptying stops and leaves the rest as it is: the bootstrap
// then meets that candidate itself and refuses it, or fails to remove it, in
// its own words, after removing the candidates before it, exactly as it does
// without this step. A candidate gone since the listing is passed over, as
// the bootstrap passes over it.
void emptyOlderVersions(const fs::path& root, const std::vector<Candidate>& candidates,
                        RemovalProgress& progress) {
    const fs::path normalRoot = root.lexically_normal();
    const int rootDirectory = ::open(normalRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootDirectory < 0)
        return;
    for (const auto& candidate : candidates) {
        const fs::path target = candidate.path.lexically_normal();
        const auto verdict = compiler::explain::removalVerdict(normalRoot, target);
        if (verdict == compiler::explain::RemovalVerdict::Gone)
            continue;
        if (verdict == compiler::explain::RemovalVerdict::Refuse)
            break;
        const int directory = ::openat(rootDirectory, target.filename().c_str(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (directory < 0)
            break;
        progress.removing(target.filename().string());
        if (!emptyDirectory(directory, [&progress] { progress.removedFile(); }))
            break;
    }
    ::close(rootDirectory); // opened read-only to work below it: closing loses nothing
}

} // namespace

int runPrune(const Invocation& invocation, Console& console) {
    try {
        configureRuntime(invocation);
        const CachePaths paths = currentPaths();
        // The root shown and locked; what is listed and removed is the
        // bootstrap's own choice, from the same runtime and compiled-in version.
        const fs::path root = paths.cacheRoot;
        // Prune works on the user's cache: configureRuntime() leaves the
        // runtime there, and a system cache named as the cache root is refused.
        if (!invocation.prune.dryRun)
            refuseSystemCache(paths, "prune");
        // Removal goes by path below the cache root: only a root that nobody
        // else can change may be pruned.
        if (guardCache(paths, CacheUse::Prune) == compiler::CacheAccess::ReadOnly &&
            !invocation.prune.dryRun)
            throw ToolError(kind::untrusted, readOnlyCacheCannotBePruned(paths));
        std::vector<Candidate> candidates;
        std::uint64_t listedBytes = 0;
        std::uint64_t listedFiles = 0;
        for (const auto& path : compiler::StandardLibraryBootstrap::olderCacheVersions()) {
            const VersionSize size = versionSize(root, path.filename().string());
            candidates.push_back({path, size.bytes});
            listedBytes += size.bytes;
            listedFiles += size.cacheFiles;
        }

        const bool text = !invocation.global.json && !invocation.global.quiet;
        auto& out = console.out();
        // The list goes out before anything is removed, so that a removal that
        // fails half-way still leaves the user knowing what was attempted.
        if (text) {
            if (candidates.empty())
                out << "no older versions under " << visible(root.string()) << std::endl;
            for (const auto& candidate : candidates)
                out << "  " << std::left << std::setw(10)
                    << visible(candidate.path.filename().string()) << std::right << std::setw(10)
                    << formatBytes(candidate.bytes) << "  " << visible(candidate.path.string())
                    << '\n';
            out.flush();
        }

        std::size_t removed = 0;
        std::uint64_t freed = 0;
        if (!invocation.prune.dryRun && !candidates.empty()) {
            VersionLocks locks;
            std::vector<fs::path> versions;
            versions.reserve(candidates.size());
            for (const auto& candidate : candidates)
                versions.push_back(candidate.path);
            if (const auto busy = locks.acquire(root, versions))
                throw busyVersionError(*busy);
            // Drawn as ensure's line is: on a terminal, for people. A failure
            // below erases it before the error is printed.
            RemovalProgress progress(console, text && console.errIsTerminal(), listedFiles);
            emptyOlderVersions(root, candidates, progress);
            removed = compiler::StandardLibraryBootstrap::removeOlderCacheVersions();
            progress.finish();
            for (const auto& candidate : candidates) {
                std::error_code error;
                if (!fs::exists(fs::symlink_status(candidate.path, error)))
                    freed += candidate.bytes;
            }
        }

        if (invocation.global.json) {
            nlohmann::ordered_json versions = nlohmann::ordered_json::array();
            for (const auto& candidate : candidates)
                versions.push_back({{"version", candidate.path.filename().string()},
                                    {"path", candidate.path.string()},
                                    {"bytes", candidate.bytes}});
            // The same names as in `status`: "version" is the running
            // compiler's, "olderVersions" what it would prune.
            out << jsonText(nlohmann::ordered_json{{"cacheRoot", root.string()},
                                                   {"version", compilerVersion()},
                                                   {"dryRun", invocation.prune.dryRun},
                                                   {"olderVersions", std::move(versions)},
                                                   {"olderVersionsBytes", listedBytes},
                                                   {"removed", removed},
                                                   {"bytesFreed", freed}},
                            2)
                << std::endl;
        } else if (text && !candidates.empty()) {
            if (invocation.prune.dryRun)
                out << "would remove "
                    << plural(candidates.size(), "older version", "older versions") << ", freeing "
                    << formatBytes(listedBytes) << " (dry run: nothing removed)" << std::endl;
            else
                out << "removed " << plural(removed, "older version", "older versions")
                    << ", freed " << formatBytes(freed) << std::endl;
        }
        // The removal is done whether or not anyone read about it.
        return console.finish(ExitSuccess,
                              invocation.prune.dryRun
                                  ? std::string("prune ran to its end (dry run: nothing removed)")
                                  : "prune ran to its end and removed " +
                                        plural(removed, "older version", "older versions"));
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
