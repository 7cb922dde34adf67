// `quor-stdlib pack`: writes the library cache in use as one pack file
// (compiler/LibraryPack.h), so that a fleet of machines can share one build.
// Only a cache that could serve a compiler as it stands is packed: its
// readiness marker is valid for this compiler and library, and every object of
// the units a build compiles is sound for the unit's bytes of today, judged by
// the precompiler's own rule. What goes into the pack is exactly the bytes
// that were judged. The file appears whole or not at all.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"

#include "compiler/CacheLayers.h"
#include "compiler/LibraryPack.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

// Writes `bytes` to `path` through a temporary beside it, synced before it is
// renamed over `path`, with mode 0644 whatever the umask: a pack is meant to be
// served to others. Returns 0 or the errno of the step that failed; no
// temporary is left behind either way.
int writePackFile(const fs::path& path, std::string_view bytes) {
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const fs::path temporary =
        folder / ("." + path.filename().native() + ".tmp." + std::to_string(::getpid()));
    const int fd =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return errno;
    }
    int error = ::fchmod(fd, 0644) == 0 ? 0 : errno;
    std::size_t written = 0;
    while (error == 0 && written < bytes.size()) {
        const ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (count < 0) {
            if (errno != EINTR) {
                error = errno;
            }
            continue;
        }
        written += static_cast<std::size_t>(count);
    }
    if (error == 0 && ::fsync(fd) != 0) {
        error = errno;
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
    }
    return error;
}

} // namespace

int runPack(const Invocation& invocation, Console& console) {
    try {
        configureRuntime(invocation);
        // The layer the compiler would use is the one packed.
        const LayerInUse layer = openLayerInUse();
        const compiler::CacheLayerChoice& layers = layer.layers;
        const CachePaths& paths = layer.paths;
        const Identity& identity = layer.identity;
        const bool ready = layers.ready;
        if (!ready)
            throw ToolError(kind::notReady, "Quor library cache '" + paths.libraryCache.string() +
                                                "' is not ready: no valid readiness marker "
                                                "vouches for it; run 'quor-stdlib ensure' first");
        const compiler::pack::CacheReading reading = compiler::pack::readLibraryCache(
            {identity.version, identity.abiVersion, identity.fingerprint},
            compilableUnits(paths.library));
        if (!reading.refused.empty()) {
            const auto& first = reading.refused.front();
            throw ToolError(kind::notReady, "Quor library cache '" + paths.libraryCache.string() +
                                                "' holds " +
                                                std::to_string(reading.refused.size()) +
                                                " objects that are not sound (first: '" +
                                                first.object.string() + "': " + first.problem +
                                                "); run 'quor-stdlib ensure --force' first");
        }
        const std::string bytes = compiler::pack::encode(reading.pack);
        const fs::path output =
            invocation.pack.output.empty()
                ? fs::path(identity.fingerprint + std::string(compiler::pack::fileExtension))
                : fs::path(invocation.pack.output);
        if (const int failure = writePackFile(output, bytes); failure != 0)
            throw ToolError(kind::io, "Unable to write Quor library pack '" + output.string() +
                                          "': " + std::strerror(failure));

        if (invocation.global.json) {
            console.out() << jsonText(json{{"layer", compiler::cacheLayerName(layers.inUse)},
                                           {"libraryCache", paths.libraryCache.string()},
                                           {"version", identity.version},
                                           {"abi", identity.abiVersion},
                                           {"fingerprint", identity.fingerprint},
                                           {"path", output.string()},
                                           {"units", reading.pack.units.size()},
                                           {"bytes", bytes.size()}},
                                      2)
                          << std::endl;
        } else if (!invocation.global.quiet) {
            const std::size_t units = reading.pack.units.size();
            console.out() << "packed " << units << (units == 1 ? " unit" : " units") << " ("
                          << bytes.size() << " bytes) of " << visible(paths.libraryCache.string())
                          << " into " << visible(output.string()) << '\n';
            console.out().flush();
        }
        return console.finish(ExitSuccess, "the pack report was cut short");
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
