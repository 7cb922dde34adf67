// `quor-stdlib status`: what the bootstrap would decide right now, and why.
// Readiness itself is the bootstrap's answer (StandardLibraryCacheState and
// isRequired); the marker diagnosis and the unit count only explain it. Which
// cache layer it answers for is the layer choice's (compiler/CacheLayers.h),
// made here as the compiler makes it, with the layers it passed over and why.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "LibraryFingerprint.h"

#include "compiler/CacheLayers.h"
#include "compiler/ObjectCache.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "compiler/StandardLibraryCacheState.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <iomanip>
#include <optional>
#include <set>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

struct OlderVersion {
    fs::path path;
    std::uint64_t bytes = 0;
};

struct StatusReport {
    compiler::CacheLayerChoice layers; // the layer in use and those passed over
    Identity identity;
    CachePaths paths;
    bool libraryFound = false;
    bool ready = false;
    bool buildRequired = false;
    compiler::CacheAccess access = compiler::CacheAccess::Writable;
    std::string refusal; // why the cache root cannot be vouched for; empty when it can
    // When something other than a directory stands where the cache root or a
    // folder on the way to it must be: what stands there. Then `refusal` holds
    // the guard's words for it too, but this is what is wrong.
    std::string blockedRoot;
    // Why `ensure` would fail, when status can already tell; empty otherwise.
    std::string ensureFailure;
    MarkerDiagnosis marker;
    std::optional<std::size_t> units;
    std::string unitsError;
    // When not ready: how many units the next build would compile, and how
    // many it would take as they are (sound in place, or set aside earlier).
    std::optional<std::size_t> wouldCompile;
    std::optional<std::size_t> wouldReuse;
    std::optional<std::size_t> wouldAdopt; // copied from the system cache

    std::vector<UnreachableEntry> unreachable; // what the build's walk cannot look at
    // Everything the build's walk passes over, with the bootstrap's reason.
    std::vector<compiler::explain::PassedOver> passedOver;
    std::vector<OlderVersion> olderVersions;
    std::vector<OlderVersion> newerVersions; // never pruned; shown for their space
    bool checkOnly = false;                  // --check: units and older versions were not looked at
    std::uint64_t currentVersionBytes = 0;   // this version's cache and first-launch state
    // The library's own fingerprint, computed from its units, and why the one
    // in use does not match it ("" when it does, or when it was not computed).
    std::optional<std::string> libraryFingerprint;
    std::string fingerprintWarning;
};

// "a regular file", "a FIFO", ...: what a path that is not a directory is.
std::string nonDirectoryKind(fs::file_type type) {
    switch (type) {
    case fs::file_type::regular:
        return "a regular file";
    case fs::file_type::character:
        return "a character device";
    case fs::file_type::block:
        return "a block device";
    case fs::file_type::fifo:
        return "a FIFO";
    case fs::file_type::socket:
        return "a socket";
    default:
        return "something else";
    }
}

// What is wrong when the cache root cannot be a directory: it is a file, or
// the nearest existing folder on its way is, so that nothing can be created
// there. Links are followed, as the bootstrap's mkdir follows them. "" when
// the nearest existing path is a directory or cannot be examined (the guard
// then says why).
std::string blockedCacheRoot(const fs::path& cacheRoot) {
    for (fs::path path = cacheRoot; !path.empty(); path = path.parent_path()) {
        std::error_code error;
        const fs::file_type type = fs::status(path, error).type();
        if (type == fs::file_type::directory || type == fs::file_type::none ||
            type == fs::file_type::unknown)
            return {};
        if (type != fs::file_type::not_found)
            return path == cacheRoot
                       ? "the cache root is " + nonDirectoryKind(type) + ", not a directory"
                       : "'" + path.string() + "' on the way to the cache root is " +
                             nonDirectoryKind(type) + ", not a directory";
        if (path == path.parent_path())
            break;
    }
    return {};
}

StatusReport gatherStatus(bool check) {
    StatusReport report;
    // Points the runtime at the layer the compiler would use: all below is
    // about that layer.
    report.layers = compiler::chooseCacheLayer();
    report.identity = currentIdentity();
    report.paths = currentPaths();
    std::error_code error;
    report.libraryFound = fs::is_directory(report.paths.library, error);
    try {
        report.access = guardCache(report.paths, CacheUse::Inspect);
    } catch (const std::exception& failure) {
        report.refusal = failure.what();
        report.blockedRoot = blockedCacheRoot(report.paths.cacheRoot);
    }
    if (report.refusal.empty()) {
        // The answer, and with it the exit status of --check, is the
        // bootstrap's own: with the library there, the cache is ready exactly
        // when isRequired() says no build is needed. Only without a library,
        // where isRequired() is false whatever the marker says, is the marker
        // judged by the bootstrap's state class for the identity worked out
        // here. The diagnosis below explains; it decides nothing.
        report.buildRequired = compiler::StandardLibraryBootstrap::isRequired();
        if (report.libraryFound) {
            report.ready = !report.buildRequired;
        } else {
            const compiler::StandardLibraryCacheState state(
                report.paths.stateDirectory, report.identity.version, report.identity.abiVersion,
                report.identity.fingerprint);
            report.ready = state.isReady();
        }
        report.marker = diagnoseMarker(report.paths.marker, report.identity);
    } else {
        // What lies in a cache root that others can change vouches for nothing,
        // so it is not even read.
        report.buildRequired = report.libraryFound;
        report.marker.verdict = MarkerVerdict::Unreadable;
        report.marker.detail = report.refusal;
    }
    // In the order ensure meets them: the guard, then the bootstrap's walk.
    if (!report.refusal.empty())
        report.ensureFailure = report.blockedRoot.empty() ? report.refusal : report.blockedRoot;
    else if (!report.ready && !report.libraryFound)
        report.ensureFailure = "the standard library was not found";
    // --check answers at the cost of the ready path: no walk of the library,
    // no listing of the cache root. The rows that need them are left out.
    report.checkOnly = check;
    if (check)
        return report;
    if (report.libraryFound) {
        try {
            const LibraryFingerprint actual = computeLibraryFingerprint(report.paths.library);
            report.libraryFingerprint = actual.value;
            report.fingerprintWarning =
                fingerprintMismatch(report.identity, actual, report.paths.library);
        } catch (const std::exception&) {
            // What keeps the library from being read is reported with the units.
        }
        try {
            compiler::explain::UnitChoice choice =
                compiler::explain::chooseUnits(report.paths.library);
            const std::vector<std::string>& units = choice.units;
            report.passedOver = std::move(choice.passedOver);
            for (const auto& entry : report.passedOver)
                if (isUnreachable(entry))
                    report.unreachable.push_back({entry.path, entry.reason});
            report.units = units.size();
            // The bootstrap refuses an empty batch, after it took the lock.
            if (units.empty() && !report.ready && report.ensureFailure.empty())
                report.ensureFailure = "the library has no unit to compile (nothing but generic "
                                       "types, or no unit at all)";
            // Reading every unit and object is for the person who asks why;
            // --check only wants the answer.
            if (!report.ready && report.refusal.empty() && !units.empty()) {
                std::size_t reuse = 0;
                std::size_t adopt = 0;
                for (const auto& unit : compiler::inspectLibraryCache(units).units) {
                    reuse +=
                        unit.judgement.verdict == compiler::ObjectVerdict::Sound || unit.setAside;
                    adopt += unit.adoptable;
                }
                report.wouldReuse = reuse;
                report.wouldAdopt = adopt;
                report.wouldCompile = units.size() - reuse - adopt;
            }
        } catch (const std::exception& failure) {
            report.unitsError = failure.what();
        }
    } else {
        report.unitsError = "the standard library was not found";
    }

    for (const auto& path : compiler::StandardLibraryBootstrap::olderCacheVersions(
             report.paths.cacheRoot, std::string(compilerVersion())))
        report.olderVersions.push_back(
            {path, versionBytes(report.paths.cacheRoot, path.filename().string())});
    report.currentVersionBytes = versionBytes(report.paths.cacheRoot, report.identity.version);
    // Newer versions are never pruned; they are listed so that their space is
    // not a mystery. The bootstrap's own listing decides what a version
    // directory is: every version below one no release will reach, less the
    // older ones and this one.
    constexpr std::string_view beyondEveryRelease = "999999999999.0.0";
    std::set<fs::path> olderOrCurrent;
    for (const auto& version : report.olderVersions)
        olderOrCurrent.insert(version.path);
    for (const auto& path : compiler::StandardLibraryBootstrap::olderCacheVersions(
             report.paths.cacheRoot, std::string(beyondEveryRelease)))
        if (!olderOrCurrent.count(path) && path.filename() != report.identity.version)
            report.newerVersions.push_back(
                {path, versionBytes(report.paths.cacheRoot, path.filename().string())});
    return report;
}

// What a marker field stands for, in prose.
std::string_view fieldProse(const std::string& field) {
    if (field == "version")
        return "compiler version";
    if (field == "abi")
        return "object ABI";
    if (field == "fingerprint")
        return "library fingerprint";
    return "marker format";
}

// The reason a cache that is not ready is not ready, as one line.
std::string reasonLine(const StatusReport& report) {
    if (!report.blockedRoot.empty())
        return report.blockedRoot;
    switch (report.marker.verdict) {
    case MarkerVerdict::Missing:
        return "no readiness marker; the library has not been built for this compiler yet";
    case MarkerVerdict::Unreadable:
    case MarkerVerdict::Malformed:
        return report.marker.detail;
    case MarkerVerdict::Mismatch: {
        const auto& differences = report.marker.differences;
        std::string line = "the marker was written for another ";
        for (std::size_t i = 0; i < differences.size(); ++i)
            line += std::string(i == 0                        ? ""
                                : i + 1 == differences.size() ? " and "
                                                              : ", ") +
                    std::string(fieldProse(differences[i].name));
        return line;
    }
    case MarkerVerdict::Valid:
        break;
    }
    return "the marker looks valid but the bootstrap does not accept it";
}

// "writable", "read-only" (a system-wide cache owned by root) or "refused".
std::string_view accessName(const StatusReport& report) {
    if (!report.refusal.empty())
        return "refused";
    return report.access == compiler::CacheAccess::ReadOnly ? "read-only" : "writable";
}

json unreachableJson(const StatusReport& report) {
    json entries = json::array();
    for (const auto& entry : report.unreachable)
        entries.push_back({{"path", entry.path.string()}, {"reason", entry.reason}});
    return entries;
}

json layerJson(const StatusReport& report) {
    const auto& layers = report.layers;
    json passed = json::array();
    for (const auto& layer : layers.passedOver)
        passed.push_back({{"name", compiler::cacheLayerName(layer.kind)},
                          {"cacheRoot", layer.cacheRoot.string()},
                          {"problem", compiler::layerProblemName(layer.problem)},
                          {"reason", layer.reason}});
    return {{"name", compiler::cacheLayerName(layers.inUse)},
            {"cacheRoot", layers.cacheRoot.string()},
            {"adoptFrom",
             layers.adoptionSource.empty() ? json(nullptr) : json(layers.adoptionSource.string())},
            {"passedOver", std::move(passed)}};
}

json passedOverJson(const StatusReport& report) {
    json entries = json::array();
    for (const auto& entry : report.passedOver)
        entries.push_back({{"path", entry.path.string()},
                           {"why", compiler::explain::passedOverName(entry.why)},
                           {"reason", entry.reason.empty() ? json(nullptr) : json(entry.reason)}});
    return entries;
}

json reasonJson(const StatusReport& report) {
    if (report.ready)
        return nullptr;
    json reason = {{"kind", !report.refusal.empty() ? std::string_view("refused")
                            : report.marker.verdict == MarkerVerdict::Valid
                                ? std::string_view("unknown")
                                : markerVerdictName(report.marker.verdict)},
                   {"message", reasonLine(report)}};
    json differences = json::array();
    for (const auto& field : report.marker.differences)
        differences.push_back(
            {{"field", field.name}, {"expected", field.expected}, {"found", field.found}});
    reason["differences"] = std::move(differences);
    return reason;
}

json versionsJson(const std::vector<OlderVersion>& versions) {
    json list = json::array();
    for (const auto& version : versions)
        list.push_back({{"version", version.path.filename().string()},
                        {"path", version.path.string()},
                        {"bytes", version.bytes}});
    return list;
}

json statusJson(const StatusReport& report) {
    json older = json::array();
    std::uint64_t olderBytes = 0;
    for (const auto& version : report.olderVersions) {
        older.push_back({{"version", version.path.filename().string()},
                         {"path", version.path.string()},
                         {"bytes", version.bytes}});
        olderBytes += version.bytes;
    }
    const auto& paths = report.paths;
    return {
        {"version", report.identity.version},
        {"abi", report.identity.abiVersion},
        {"fingerprint", report.identity.fingerprint},
        {"fingerprintSource", fingerprintSourceName(report.identity.source)},
        {"fingerprintFile", report.identity.fingerprintFile.empty()
                                ? json(nullptr)
                                : json(report.identity.fingerprintFile.string())},
        {"libraryFingerprint",
         report.libraryFingerprint ? json(*report.libraryFingerprint) : json(nullptr)},
        {"fingerprintWarning",
         report.fingerprintWarning.empty() ? json(nullptr) : json(report.fingerprintWarning)},
        {"paths",
         {{"library", paths.library.string()},
          {"cacheRoot", paths.cacheRoot.string()},
          {"cacheBranch", paths.cacheBranch.string()},
          {"libraryCache", paths.libraryCache.string()},
          {"stateDirectory", paths.stateDirectory.string()},
          {"marker", paths.marker.string()},
          {"lockFile", paths.lockFile.string()}}},
        {"layer", layerJson(report)},
        {"libraryFound", report.libraryFound},
        {"access", accessName(report)},
        {"ready", report.ready},
        {"buildRequired", report.buildRequired},
        {"reason", reasonJson(report)},
        {"ensureError", report.ensureFailure.empty() ? json(nullptr) : json(report.ensureFailure)},
        {"units", report.units ? json(*report.units) : json(nullptr)},
        {"unitsError", report.unitsError.empty() ? json(nullptr) : json(report.unitsError)},
        {"nextBuild", report.wouldCompile ? json{{"compile", *report.wouldCompile},
                                                 {"reuse", *report.wouldReuse},
                                                 {"adopt", *report.wouldAdopt}}
                                          : json(nullptr)},
        {"unreachable", unreachableJson(report)},
        {"passedOver", passedOverJson(report)},
        {"marker", report.refusal.empty()
                       ? json{{"verdict", markerVerdictName(report.marker.verdict)},
                              {"detail", report.marker.detail.empty() ? json(nullptr)
                                                                      : json(report.marker.detail)}}
                       : json(nullptr)},
        {"versionBytes", report.checkOnly ? json(nullptr) : json(report.currentVersionBytes)},
        {"olderVersions", report.checkOnly ? json(nullptr) : std::move(older)},
        {"olderVersionsBytes", report.checkOnly ? json(nullptr) : json(olderBytes)},
        {"newerVersions", report.checkOnly ? json(nullptr) : versionsJson(report.newerVersions)},
    };
}

void printStatus(const StatusReport& report, Console& console) {
    auto& out = console.out();
    const auto row = [&out](std::string_view label) -> std::ostream& {
        return out << "  " << std::left << std::setw(18) << label;
    };
    const auto& paths = report.paths;
    out << console.paintOut("Quor standard library, compiler " + report.identity.version,
                            Color::Bold)
        << '\n';
    row("object ABI") << report.identity.abiVersion << '\n';
    row("fingerprint") << visible(report.identity.fingerprint) << '\n';
    row("  from") << fingerprintSourceName(report.identity.source);
    if (!report.identity.fingerprintFile.empty())
        out << " file " << visible(report.identity.fingerprintFile.string());
    out << '\n';
    if (!report.fingerprintWarning.empty())
        row("") << console.paintOut("warning:", Color::Yellow) << ' '
                << visible(report.fingerprintWarning) << '\n';
    // Paths, marker values and messages come from the disk and the
    // environment; a terminal must show them, never obey them.
    row("library") << visible(paths.library.string())
                   << (report.libraryFound ? "" : "  (not found)") << '\n';
    row("cache root") << visible(paths.cacheRoot.string()) << '\n';
    row("layer") << (report.layers.inUse == compiler::CacheLayerKind::System
                         ? "system: the installation's cache, used as it stands"
                         : "user: your own cache")
                 << '\n';
    for (const auto& layer : report.layers.passedOver)
        row("") << "  passed over the " << compiler::cacheLayerName(layer.kind)
                << " cache: " << visible(layer.reason) << '\n';
    if (!report.layers.adoptionSource.empty())
        row("") << "  a build adopts sound objects from "
                << visible(report.layers.adoptionSource.string()) << '\n';
    row("library cache") << visible(paths.libraryCache.string()) << '\n';
    row("state directory") << visible(paths.stateDirectory.string()) << '\n';
    row("marker") << visible(paths.marker.string()) << '\n';
    row("lock file") << visible(paths.lockFile.string()) << '\n';
    if (report.access == compiler::CacheAccess::ReadOnly && report.refusal.empty())
        row("access") << "read-only: a system-wide cache owned by root\n";
    if (report.ready) {
        row("state") << console.paintOut("ready", Color::Green) << '\n';
    } else {
        row("state") << console.paintOut("not ready", Color::Yellow) << ": "
                     << visible(reasonLine(report)) << '\n';
        for (const auto& field : report.marker.differences)
            row("") << "  " << field.name << ": expected \"" << visible(field.expected)
                    << "\", found \"" << visible(field.found) << "\"\n";
        // Not when it repeats the reason: a refusal is both.
        if (!report.ensureFailure.empty() && report.ensureFailure != reasonLine(report))
            row("") << "  ensure will fail: " << visible(report.ensureFailure) << '\n';
        else if (!report.blockedRoot.empty())
            row("") << "  ensure will fail there: remove it, or choose another cache root\n";
    }
    if (report.checkOnly) {
        out.flush();
        return;
    }
    if (report.units)
        row("units to compile") << *report.units << '\n';
    else
        row("units to compile") << "unknown (" << visible(report.unitsError) << ")\n";
    if (report.wouldCompile) {
        row("next build") << "compiles " << *report.wouldCompile << ", reuses "
                          << *report.wouldReuse << " sound "
                          << (*report.wouldReuse == 1 ? "object" : "objects");
        if (*report.wouldAdopt > 0)
            out << ", adopts " << *report.wouldAdopt << " from the system cache";
        out << '\n';
    }
    if (!report.unreachable.empty()) {
        // The build skips these without a word; this is the only place to learn of them.
        constexpr std::size_t shown = 5;
        const std::size_t count = report.unreachable.size();
        row("unreachable") << count << (count == 1 ? " entry" : " entries")
                           << " of the library that the build passes over:\n";
        for (std::size_t i = 0; i < std::min(count, shown); ++i)
            row("") << "  " << visible(report.unreachable[i].path.string()) << " ("
                    << visible(report.unreachable[i].reason) << ")\n";
        if (count > shown)
            row("") << "  and " << count - shown << " more (see --json)\n";
    }
    row("size") << formatBytes(report.currentVersionBytes)
                << " (this version's cache and first-launch state)\n";
    // One row per version, the label on the first, then what to do about them.
    const auto listVersions = [&](std::string_view label, const std::vector<OlderVersion>& versions,
                                  std::string_view footer) {
        bool first = true;
        for (const auto& version : versions) {
            row(first ? label : "")
                << std::setw(10) << visible(version.path.filename().string()) << ' ' << std::right
                << std::setw(10) << formatBytes(version.bytes) << std::left << "  "
                << visible(version.path.string()) << '\n';
            first = false;
        }
        row("") << footer << '\n';
    };
    if (report.olderVersions.empty())
        row("older versions") << "none\n";
    else
        listVersions("older versions", report.olderVersions,
                     "remove them with `quor-stdlib prune`");
    if (!report.newerVersions.empty())
        listVersions("newer versions", report.newerVersions,
                     "left alone: only their own compiler prunes or cleans them");
    out.flush();
}

} // namespace

int runStatus(const Invocation& invocation, Console& console) {
    try {
        configureRuntime(invocation);
        const StatusReport report = gatherStatus(invocation.status.check);
        if (invocation.global.json)
            console.out() << jsonText(statusJson(report), 2) << std::endl;
        else if (!invocation.global.quiet)
            printStatus(report, console);
        const int status =
            invocation.status.check && !report.ready ? int(ExitFailure) : int(ExitSuccess);
        return console.finish(status, "the status report was cut short");
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
