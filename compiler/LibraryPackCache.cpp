// The library cache's side of a pack (LibraryPack.h): which objects of the
// configured Runtime's cache go into one, and whether a pack's objects may be
// installed over the library of today. Every judgement is judgeObject()'s.

#include "compiler/CacheLayout.h"
#include "compiler/LibraryPack.h"
#include "compiler/ObjectCache.h"
#include "compiler/Runtime.h"
#include "compiler/Sha256.h"
#include "compiler/SourceManager.h"

#include <memory>

namespace quor::compiler::pack {

namespace fs = std::filesystem;

CacheReading readLibraryCache(const Identity& identity, const std::vector<std::string>& sources) {
    CacheReading reading;
    reading.pack.identity = identity;
    for (const PlannedObject& planned : planObjects(sources)) {
        if (std::string problem = unitPathProblem(planned.unitPath); !problem.empty()) {
            reading.refused.push_back({planned.unitPath, planned.object, std::move(problem)});
            continue;
        }
        const std::shared_ptr<const std::string> text =
            SourceManager::instance().contents(planned.source);
        if (!text) {
            reading.refused.push_back(
                {planned.unitPath, planned.object, "the unit itself could not be read"});
            continue;
        }
        const std::string digest = Sha256::hex(*text);
        std::string object;
        const ObjectJudgement judgement =
            judgeObject(planned.object, planned.unitPath, text->size(), digest, &object);
        if (judgement.verdict != ObjectVerdict::Sound) {
            std::string problem(objectVerdictName(judgement.verdict));
            if (!judgement.problem.empty()) {
                problem += ": " + judgement.problem;
            }
            reading.refused.push_back({planned.unitPath, planned.object, std::move(problem)});
            continue;
        }
        addUnit(reading.pack, planned.unitPath, text->size(), digest, std::move(object));
    }
    return reading;
}

std::vector<InstallCheck> checkInstall(const Pack& pack) {
    const Runtime& runtime = Runtime::getInstance();
    const fs::path library = runtime.getStandardLibraryPath();
    const fs::path libraryCache = runtime.getLibCachePath();
    std::vector<InstallCheck> checks;
    checks.reserve(pack.units.size());
    for (std::size_t i = 0; i < pack.units.size(); ++i) {
        const Unit& unit = pack.units[i];
        InstallCheck check;
        check.unitPath = unit.path;
        check.object = layout::objectPath(libraryCache, unit.path);
        std::shared_ptr<const std::string> text;
        try {
            text = SourceManager::instance().contents(library / unit.path);
        } catch (const std::exception& failure) {
            check.problem = std::string("the library's unit cannot be read: ") + failure.what();
        }
        if (!text) {
            if (check.problem.empty()) {
                check.problem = "the library has no such unit";
            }
        } else if (text->size() != unit.sourceSize || Sha256::hex(*text) != unit.sourceSha256) {
            check.problem = "the library's unit holds other bytes than the pack was built from";
        } else if (i >= pack.objects.size()) {
            check.problem = "the pack holds no object for it";
        } else {
            const ObjectJudgement judgement =
                judgeObjectText(pack.objects[i], unit.path, unit.sourceSize, unit.sourceSha256);
            check.installable = judgement.verdict == ObjectVerdict::Sound;
            if (!check.installable) {
                check.problem = "the pack's object is " +
                                std::string(objectVerdictName(judgement.verdict)) + ": " +
                                judgement.problem;
            }
        }
        checks.push_back(std::move(check));
    }
    return checks;
}

} // namespace quor::compiler::pack
