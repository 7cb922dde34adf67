// Stand-ins for the compiler services, linked into the fuzz targets that
// compile the bootstrap's source. The helpers those targets fuzz (the marker, the
// fingerprint file, version parsing) call no service; the bootstrap's entry points
// still refer to the services, so the link needs definitions. Anything that
// would really need a service throws, so a fuzz target that strays into one
// fails loudly instead of testing a fake.

#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/source/TypeHeader.h"

#include <stdexcept>

namespace quor::compiler {

namespace {

[[noreturn]] void unavailable(const char* service) {
    throw std::logic_error(std::string(service) + " is not available in a fuzz target");
}

} // namespace

Runtime& Runtime::getInstance() {
    static Runtime runtime;
    return runtime;
}

Runtime::Runtime() = default;

void Runtime::configure(const RuntimeConfiguration&) {
    unavailable("Runtime::configure");
}

void Runtime::resolve() {
    unavailable("Runtime::resolve");
}

const std::string& Runtime::getCacheBranchPath() const {
    unavailable("Runtime::getCacheBranchPath");
}

const std::string& Runtime::getLibCachePath() const {
    unavailable("Runtime::getLibCachePath");
}

std::string Runtime::getStandardLibraryPath() const {
    unavailable("Runtime::getStandardLibraryPath");
}

unsigned Runtime::getJobCount() const {
    unavailable("Runtime::getJobCount");
}

int Compiler::objectAbiVersion() {
    unavailable("Compiler::objectAbiVersion");
}

void Compiler::ensureObjectAbiCacheCurrent() {
    unavailable("Compiler::ensureObjectAbiCacheCurrent");
}

void Compiler::precompileSources(const std::vector<std::string>&, std::shared_ptr<Context>,
                                 const std::function<void(const CompilationProgress&)>&) {
    unavailable("Compiler::precompileSources");
}

SourceManager::SourceManager() = default;
SourceManager::~SourceManager() = default;

SourceManager& SourceManager::instance() {
    static SourceManager manager;
    return manager;
}

std::shared_ptr<const std::string> SourceManager::contents(const std::filesystem::path&) {
    unavailable("SourceManager::contents");
}

void SourceManager::clear() {
    unavailable("SourceManager::clear");
}

namespace source {

bool parseTypeHeader(std::string_view, TypeHeader&) {
    unavailable("source::parseTypeHeader");
}

} // namespace source

} // namespace quor::compiler
