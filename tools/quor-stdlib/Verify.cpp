// `quor-stdlib verify`: checks every object that the readiness marker vouches
// for against the unit it was compiled from, and names what is missing,
// damaged, stale or does not belong. The judgement of each object is the
// precompiler's own (compiler/ObjectCache.h), so verify and a build never
// disagree about which object is sound; readiness is the bootstrap's own.

#include "CacheGuard.h"
#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"

#include "compiler/CacheLayers.h"
#include "compiler/CacheLayout.h"
#include "compiler/Compiler.h"
#include "compiler/ObjectCache.h"

#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

struct Problem {
    std::string kind;   // "missing", "damaged", "stale", "orphaned", "unreadable", "abi-record"
    fs::path path;      // the object or entry concerned
    std::string unit;   // the unit it belongs to; "" for orphans and the ABI record
    std::string detail; // what is wrong, as a phrase; "" when the kind says it all
};

std::vector<Problem> problemsOf(const compiler::LibraryCacheReport& report,
                                const fs::path& libraryCache) {
    std::vector<Problem> problems;
    if (!report.abiRecordCurrent)
        problems.push_back({"abi-record", compiler::layout::abiRecordPath(libraryCache.native()),
                            "",
                            report.abiRecord.empty()
                                ? "no object ABI record"
                                : "records object ABI " + report.abiRecord + ", not " +
                                      std::to_string(compiler::Compiler::objectAbiVersion())});
    for (const auto& unit : report.units) {
        if (unit.unreadable) {
            problems.push_back({"unreadable", unit.planned.object, unit.planned.source,
                                "the unit itself could not be read"});
            continue;
        }
        if (unit.judgement.verdict == compiler::ObjectVerdict::Sound)
            continue;
        problems.push_back({std::string(compiler::objectVerdictName(unit.judgement.verdict)),
                            unit.planned.object, unit.planned.source, unit.judgement.problem});
    }
    for (const auto& orphan : report.orphans)
        problems.push_back({"orphaned", orphan, "", "belongs to no unit of the library"});
    return problems;
}

// `path` below the library cache when it lies there, for shorter lines.
std::string shown(const fs::path& path, const fs::path& libraryCache) {
    const fs::path relative = path.lexically_relative(libraryCache);
    return relative.empty() || *relative.begin() == ".." ? path.string() : relative.string();
}

} // namespace

int runVerify(const Invocation& invocation, Console& console) {
    try {
        configureRuntime(invocation);
        // The layer the compiler would use is the one checked.
        const LayerInUse layer = openLayerInUse();
        const compiler::CacheLayerChoice& layers = layer.layers;
        const CachePaths& paths = layer.paths;
        const bool ready = layers.ready;
        const std::vector<std::string> units = compilableUnits(paths.library);
        const compiler::LibraryCacheReport report = compiler::inspectLibraryCache(units);
        const std::vector<Problem> problems = problemsOf(report, paths.libraryCache);
        const bool sound = ready && problems.empty();

        if (invocation.global.json) {
            json list = json::array();
            for (const auto& problem : problems)
                list.push_back({{"kind", problem.kind},
                                {"path", problem.path.string()},
                                {"unit", problem.unit.empty() ? json(nullptr) : json(problem.unit)},
                                {"detail", problem.detail}});
            console.out() << jsonText(json{{"layer", compiler::cacheLayerName(layers.inUse)},
                                           {"libraryCache", paths.libraryCache.string()},
                                           {"library", paths.library.string()},
                                           {"ready", ready},
                                           {"sound", sound},
                                           {"units", units.size()},
                                           {"problems", std::move(list)}},
                                      2)
                          << std::endl;
        } else if (!invocation.global.quiet) {
            auto& out = console.out();
            for (const auto& problem : problems) {
                out << "  " << console.paintOut(problem.kind, Color::Yellow)
                    << std::string(problem.kind.size() < 10 ? 10 - problem.kind.size() : 1, ' ')
                    << visible(shown(problem.path, paths.libraryCache));
                if (!problem.detail.empty())
                    out << ": " << visible(problem.detail);
                out << '\n';
            }
            const std::string count =
                std::to_string(units.size()) + (units.size() == 1 ? " object" : " objects");
            const bool system = layers.inUse == compiler::CacheLayerKind::System;
            if (sound)
                out << console.paintOut("sound", Color::Green) << ": " << count
                    << " match their units in " << visible(paths.libraryCache.string())
                    << (system ? " (the system cache)" : "") << '\n';
            else if (!ready)
                out << console.paintOut("not ready", Color::Yellow)
                    << ": no valid readiness marker vouches for "
                    << visible(paths.libraryCache.string()) << "; 'quor-stdlib ensure' builds it\n";
            else
                out << console.paintOut("not sound", Color::Red) << ": " << problems.size()
                    << (problems.size() == 1 ? " problem" : " problems") << " among " << count
                    << " in " << visible(paths.libraryCache.string())
                    << "; 'quor-stdlib ensure --force' rebuilds what is wrong\n";
            out.flush();
        }
        return console.finish(sound ? int(ExitSuccess) : int(ExitFailure),
                              "the verification report was cut short");
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
