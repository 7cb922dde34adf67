// Out-of-line definitions of Runtime and Compiler for the benchmark driver.
// The runtime resolves its paths from configure() alone, with no environment
// and no defaults, so that a figure never depends on the caller's settings.

#include "bench/NoopServices.h"

#include "compiler/CacheLayout.h"
#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "quor/Config.h"

namespace quor::bench {
namespace {

std::size_t lastUnitCount = 0;

} // namespace

std::size_t noopPrecompiledUnitCount() {
    return lastUnitCount;
}

} // namespace quor::bench

namespace quor::compiler {

Runtime& Runtime::getInstance() {
    static Runtime runtime;
    return runtime;
}

Runtime::Runtime() {
    resolve();
}

void Runtime::configure(const RuntimeConfiguration& configuration) {
    configuration_ = configuration;
    resolve();
}

void Runtime::resolve() {
    standardLibraryPath_ = configuration_.standardLibraryPath;
    cacheBranchPath_ = layout::cacheBranchPath(configuration_.cacheRoot, QUOR_COMPILER_VERSION);
    libCachePath_ = layout::libraryCachePath(cacheBranchPath_);
    jobCount_ = configuration_.jobs == 0 ? 1 : configuration_.jobs;
}

const std::string& Runtime::getCacheBranchPath() const {
    return cacheBranchPath_;
}

const std::string& Runtime::getLibCachePath() const {
    return libCachePath_;
}

std::string Runtime::getStandardLibraryPath() const {
    return standardLibraryPath_;
}

unsigned Runtime::getJobCount() const {
    return jobCount_;
}

// Any constant will do: the driver's caches are never read by a real compiler.
int Compiler::objectAbiVersion() {
    return 1;
}

void Compiler::ensureObjectAbiCacheCurrent() {}

// One report per unit, as the real precompiler sends them, so that the
// bootstrap's progress adapter runs as often as in a real build.
void Compiler::precompileSources(
    const std::vector<std::string>& sources, std::shared_ptr<Context> /*context*/,
    const std::function<void(const CompilationProgress&)>& onProgress) {
    bench::lastUnitCount = sources.size();
    CompilationProgress progress;
    progress.total = sources.size();
    for (const std::string& source : sources) {
        ++progress.completed;
        progress.sourcePath = source;
        if (onProgress) {
            onProgress(progress);
        }
    }
}

} // namespace quor::compiler
