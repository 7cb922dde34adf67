// Test doubles of the compiler services (Runtime, Compiler, SourceManager and
// the type-header parser). The test executable links quor_bootstrap against
// FakeServices.cpp instead of quor_services, so that a test decides every path,
// the ABI number and what the precompiler does, and can read back, in order,
// every service call the bootstrap made.
//
// Every entry point logs itself into one call log, as "Class::member" followed
// by its argument where it has one:
//     Runtime::getInstance                 Runtime::getStandardLibraryPath
//     Runtime::getCacheBranchPath          Runtime::getLibCachePath
//     Compiler::objectAbiVersion           Compiler::ensureObjectAbiCacheCurrent
//     Compiler::precompileSources          SourceManager::instance
//     SourceManager::contents <path>       source::parseTypeHeader <line>
// Tests add their own entries (progress reports, observations) with logCall(),
// so that one log shows the interleaving of everything.
//
// Type-header grammar of the fake parser, deliberately tiny and strict: a line
// is a header exactly when it is "type " followed by a name of one or more
// characters other than ' ', '\t', '\r', '<' and '>', optionally followed by
// "<" + parameters + ">" where the parameters contain no '>', and nothing else,
// not even a trailing blank or carriage return. The name goes to typeName and
// the parameters (without the brackets) to text3. So "type Vector<T>" names
// Vector with text3 "T", "type Main" names Main with an empty text3, and
// "type Vector<T>\r" is no header at all.
//
// The state is process-wide; resetFakes() restores the defaults below and must
// run before each test. The log is guarded by a mutex, so several threads may
// call the services at once; the settings are meant to be changed while no
// bootstrap call is running, or from a hook on the thread that runs it.

#ifndef QUOR_TESTS_BOOTSTRAP_FAKESERVICES_H
#define QUOR_TESTS_BOOTSTRAP_FAKESERVICES_H

#include "compiler/Compiler.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quor::testing {

using Progress = compiler::Compiler::CompilationProgress;

// Defaults after resetFakes(): every path empty, ABI number 3, no hooks, no
// withheld file, ensureObjectAbiCacheCurrent succeeds, and the precompiler
// reports one progress per source in list order ({i + 1, n, sources[i]}).
void resetFakes();

void setStandardLibraryPath(const std::string& path);
void setCacheBranchPath(const std::string& path);
void setLibCachePath(const std::string& path);
void setObjectAbiVersion(int abi);

// Replaces the precompiler's default reports by exactly these, in order.
void setPrecompileScript(std::vector<Progress> reports);

// The precompiler throws ScriptedFailure(message) after sending `reportsFirst`
// reports (0: before the first one).
void setPrecompileFailure(std::size_t reportsFirst, const std::string& message);

// Runs at the start of every precompileSources call, on the calling thread,
// with the sources it was given.
void setPrecompileHook(std::function<void(const std::vector<std::string>&)> hook);

// ensureObjectAbiCacheCurrent throws ScriptedFailure(message) when set.
void setEnsureAbiCacheFailure(const std::string& message);

// Runs inside ensureObjectAbiCacheCurrent, before it returns or throws.
void setEnsureAbiCacheHook(std::function<void()> hook);

// Runs at the start of every objectAbiVersion call.
void setObjectAbiVersionHook(std::function<void()> hook);

// Runs inside SourceManager::contents after the file has been read.
void setContentsHook(std::function<void(const std::filesystem::path&)> hook);

// SourceManager::contents answers with an empty handle for exactly this path
// text (compared as given to contents, not normalised).
void withholdFile(const std::string& path);

// Thrown by the scripted services, so a test can tell that the exception it
// catches is the very one the fake threw.
struct ScriptedFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void logCall(const std::string& entry);
std::vector<std::string> callLog();

// The log without the singleton look-ups (Runtime::getInstance and
// SourceManager::instance), which most orders do not care about.
std::vector<std::string> serviceLog();

// What the precompiler was handed.
std::size_t precompileCallCount();
std::vector<std::string> lastPrecompiledSources();
bool lastContextWasEmpty();

} // namespace quor::testing

#endif
