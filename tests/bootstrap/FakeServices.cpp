// Out-of-line definitions of every compiler-service member for the bootstrap's
// test executable, steered through the functions of FakeServices.h.

#include "tests/bootstrap/FakeServices.h"

#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/source/TypeHeader.h"

#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>

namespace quor::testing {
namespace {

struct FakeState {
    std::string standardLibraryPath;
    std::string cacheBranchPath;
    std::string libCachePath;
    int abi = 3;
    std::optional<std::vector<Progress>> script;
    std::optional<std::size_t> failAfter;
    std::string failMessage;
    std::function<void(const std::vector<std::string>&)> precompileHook;
    std::optional<std::string> ensureAbiFailure;
    std::function<void()> ensureAbiHook;
    std::function<void()> abiHook;
    std::function<void(const std::filesystem::path&)> contentsHook;
    std::vector<std::string> withheld;
    std::size_t precompileCalls = 0;
    std::vector<std::string> lastSources;
    bool lastContextEmpty = false;
};

std::mutex& logMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<std::string>& logEntries() {
    static std::vector<std::string> entries;
    return entries;
}

FakeState& state() {
    static FakeState fake;
    return fake;
}

} // namespace

void resetFakes() {
    state() = FakeState{};
    std::lock_guard<std::mutex> guard(logMutex());
    logEntries().clear();
}

void setStandardLibraryPath(const std::string& path) {
    state().standardLibraryPath = path;
}
void setCacheBranchPath(const std::string& path) {
    state().cacheBranchPath = path;
}
void setLibCachePath(const std::string& path) {
    state().libCachePath = path;
}
void setObjectAbiVersion(int abi) {
    state().abi = abi;
}
void setPrecompileScript(std::vector<Progress> reports) {
    state().script = std::move(reports);
}

void setPrecompileFailure(std::size_t reportsFirst, const std::string& message) {
    state().failAfter = reportsFirst;
    state().failMessage = message;
}

void setPrecompileHook(std::function<void(const std::vector<std::string>&)> hook) {
    state().precompileHook = std::move(hook);
}

void setEnsureAbiCacheFailure(const std::string& message) {
    state().ensureAbiFailure = message;
}
void setEnsureAbiCacheHook(std::function<void()> hook) {
    state().ensureAbiHook = std::move(hook);
}
void setObjectAbiVersionHook(std::function<void()> hook) {
    state().abiHook = std::move(hook);
}

void setContentsHook(std::function<void(const std::filesystem::path&)> hook) {
    state().contentsHook = std::move(hook);
}

void withholdFile(const std::string& path) {
    state().withheld.push_back(path);
}

void logCall(const std::string& entry) {
    std::lock_guard<std::mutex> guard(logMutex());
    logEntries().push_back(entry);
}

std::vector<std::string> callLog() {
    std::lock_guard<std::mutex> guard(logMutex());
    return logEntries();
}

std::vector<std::string> serviceLog() {
    std::vector<std::string> filtered;
    for (const std::string& entry : callLog()) {
        if (entry != "Runtime::getInstance" && entry != "SourceManager::instance") {
            filtered.push_back(entry);
        }
    }
    return filtered;
}

std::size_t precompileCallCount() {
    std::lock_guard<std::mutex> guard(logMutex());
    return state().precompileCalls;
}

std::vector<std::string> lastPrecompiledSources() {
    std::lock_guard<std::mutex> guard(logMutex());
    return state().lastSources;
}

bool lastContextWasEmpty() {
    std::lock_guard<std::mutex> guard(logMutex());
    return state().lastContextEmpty;
}

} // namespace quor::testing

namespace quor::compiler {

using testing::logCall;
using testing::state;

Runtime::Runtime() = default;

Runtime& Runtime::getInstance() {
    logCall("Runtime::getInstance");
    static Runtime runtime;
    return runtime;
}

void Runtime::configure(const RuntimeConfiguration& configuration) {
    logCall("Runtime::configure");
    configuration_ = configuration;
    resolve();
}

// The fake's paths are set by the tests directly; there is nothing to resolve.
void Runtime::resolve() {}

const std::string& Runtime::getCacheBranchPath() const {
    logCall("Runtime::getCacheBranchPath");
    return state().cacheBranchPath;
}

const std::string& Runtime::getLibCachePath() const {
    logCall("Runtime::getLibCachePath");
    return state().libCachePath;
}

std::string Runtime::getStandardLibraryPath() const {
    logCall("Runtime::getStandardLibraryPath");
    return state().standardLibraryPath;
}

unsigned Runtime::getJobCount() const {
    logCall("Runtime::getJobCount");
    return 1;
}

int Compiler::objectAbiVersion() {
    if (state().abiHook) {
        state().abiHook();
    }
    logCall("Compiler::objectAbiVersion");
    return state().abi;
}

void Compiler::ensureObjectAbiCacheCurrent() {
    logCall("Compiler::ensureObjectAbiCacheCurrent");
    if (state().ensureAbiHook) {
        state().ensureAbiHook();
    }
    if (state().ensureAbiFailure) {
        throw testing::ScriptedFailure(*state().ensureAbiFailure);
    }
}

void Compiler::precompileSources(
    const std::vector<std::string>& sources, std::shared_ptr<Context> context,
    const std::function<void(const CompilationProgress&)>& onProgress) {
    logCall("Compiler::precompileSources");
    {
        std::lock_guard<std::mutex> guard(testing::logMutex());
        ++state().precompileCalls;
        state().lastSources = sources;
        state().lastContextEmpty = context == nullptr;
    }
    if (state().precompileHook) {
        state().precompileHook(sources);
    }
    std::vector<CompilationProgress> reports;
    if (state().script) {
        reports = *state().script;
    } else {
        for (std::size_t i = 0; i < sources.size(); ++i) {
            reports.push_back({i + 1, sources.size(), sources[i]});
        }
    }
    for (std::size_t i = 0; i < reports.size(); ++i) {
        if (state().failAfter && *state().failAfter == i) {
            throw testing::ScriptedFailure(state().failMessage);
        }
        onProgress(reports[i]);
    }
    if (state().failAfter && *state().failAfter >= reports.size()) {
        throw testing::ScriptedFailure(state().failMessage);
    }
}

SourceManager::SourceManager() = default;
SourceManager::~SourceManager() = default;

SourceManager& SourceManager::instance() {
    logCall("SourceManager::instance");
    static SourceManager manager;
    return manager;
}

std::shared_ptr<const std::string> SourceManager::contents(const std::filesystem::path& file) {
    logCall("SourceManager::contents " + file.native());
    for (const std::string& withheld : state().withheld) {
        if (withheld == file.native()) {
            return nullptr;
        }
    }
    std::shared_ptr<const std::string> text;
    {
        std::ifstream in(file, std::ios::binary);
        if (in) {
            text = std::make_shared<const std::string>(std::istreambuf_iterator<char>(in),
                                                       std::istreambuf_iterator<char>());
        }
    }
    if (state().contentsHook) {
        state().contentsHook(file);
    }
    return text;
}

// The fake keeps no cache of its own: every request reads the file again.
void SourceManager::clear() {}

namespace source {

bool parseTypeHeader(std::string_view text, TypeHeader& header) {
    logCall("source::parseTypeHeader " + std::string(text));
    constexpr std::string_view keyword = "type ";
    if (text.substr(0, keyword.size()) != keyword) {
        return false;
    }
    std::string_view rest = text.substr(keyword.size());
    const std::size_t nameEnd = rest.find_first_of(" \t\r<>");
    const std::string_view name = rest.substr(0, nameEnd);
    if (name.empty()) {
        return false;
    }
    std::string_view parameters;
    if (nameEnd != std::string_view::npos) {
        rest = rest.substr(nameEnd);
        if (rest.front() != '<' || rest.back() != '>') {
            return false;
        }
        parameters = rest.substr(1, rest.size() - 2);
        if (parameters.find('>') != std::string_view::npos) {
            return false;
        }
    }
    header.typeName = std::string(name);
    header.text3 = std::string(parameters);
    return true;
}

} // namespace source
} // namespace quor::compiler
