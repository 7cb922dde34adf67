// The default library of programs built in this source tree: the tests, the
// benchmarks and quor-stdlib itself. Once quor-stdlib is installed it sits in
// <prefix>/bin with the library in <prefix>/share/quor/stdlib and uses that; run
// from the build tree it has no such directory beside it and uses the sources
// it was built from, so that an edit to stdlib/ is what the next build compiles.
// The system cache is the installation's too: an installed quor-stdlib finds
// it beside that library, and a program run from the build tree has none, so
// that no cache left on the machine by a package decides what a test sees.

#include "compiler/LibraryLocation.h"

#ifndef QUOR_SOURCE_DIR
#error "QUOR_SOURCE_DIR must come from the build configuration"
#endif

namespace quor::compiler::location {

std::string defaultStandardLibraryPath() {
    const std::filesystem::path installed = besideProgram();
    if (!installed.empty() && isDirectory(installed)) {
        return installed.native();
    }
    return (std::filesystem::path(QUOR_SOURCE_DIR) / "stdlib").lexically_normal().native();
}

} // namespace quor::compiler::location

namespace quor::compiler::location {

std::string defaultSystemCacheRoot() {
    const std::filesystem::path installed = besideProgram();
    if (!installed.empty() && isDirectory(installed)) {
        return systemCacheBeside(installed).native();
    }
    return {};
}

} // namespace quor::compiler::location
