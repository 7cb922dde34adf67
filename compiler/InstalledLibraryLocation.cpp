// The default library of programs linked against the installed services. It
// never involves the tree the package was built from: that tree may be gone,
// or on another machine. The candidates, first directory that exists wins:
//
//  1. The library of the package the program was built against. The package's
//     CMake configuration and pkg-config file compile PackageLocation.cpp,
//     which lies beside the installed library, into the program; it defines
//     quor_package_location_file() to return its own path as that build saw
//     it, so this follows a prefix that was installed with DESTDIR or copied
//     elsewhere, as long as the program was built against it where it is.
//  2. The library where `cmake --install` was configured to put it
//     (CMAKE_INSTALL_PREFIX when the package was built), for a program linked
//     by hand with -lquor_services.
//  3. <program>/../share/quor/stdlib, for a program installed in <prefix>/bin.
//
// When none exists, the first candidate is returned all the same, so that
// `quor-stdlib status` and the bootstrap's messages name the library that is
// missing rather than some unrelated path.
//
// The system cache is the one the same installation ships beside that library.

#include "compiler/LibraryLocation.h"

#include <vector>

#ifndef QUOR_INSTALLED_STDLIB_DIR
#error "QUOR_INSTALLED_STDLIB_DIR must come from the build configuration"
#endif

// Weak: a program built without the package's flags has no definition, and
// the address then compares equal to null.
// The name is a C symbol that PackageLocation.cpp defines in the consumer.
extern "C" [[gnu::weak]] const char*
quor_package_location_file(); // NOLINT(readability-identifier-naming)

namespace quor::compiler::location {

namespace fs = std::filesystem;

std::string defaultStandardLibraryPath() {
    std::vector<fs::path> candidates;
    if (quor_package_location_file != nullptr) {
        const char* file = quor_package_location_file();
        // A relative path is relative to a directory of that build, not to
        // ours (a compiler that rewrites source paths can leave one).
        if (file != nullptr && fs::path(file).is_absolute()) {
            candidates.push_back((fs::path(file).parent_path() / "stdlib").lexically_normal());
        }
    }
    candidates.emplace_back(fs::path(QUOR_INSTALLED_STDLIB_DIR).lexically_normal());
    if (fs::path beside = besideProgram(); !beside.empty()) {
        candidates.push_back(std::move(beside));
    }
    for (const fs::path& candidate : candidates) {
        if (isDirectory(candidate)) {
            return candidate.native();
        }
    }
    return candidates.front().native();
}

std::string defaultSystemCacheRoot() {
    return systemCacheBeside(defaultStandardLibraryPath()).native();
}

} // namespace quor::compiler::location
