// quor-bench-driver: runs one bootstrap operation in a process of its own, so
// that the workload script can time it with the same tool (hyperfine) and in
// the same way as the shell baseline it is set against.
//
//   quor-bench-driver collect STDLIB CACHE_ROOT
//       One ensure() on STDLIB with the no-op precompiler: the bootstrap's own
//       cost of a build. The cache root should hold no marker, or nothing is
//       collected. Prints the number of units handed to the precompiler.
//   quor-bench-driver prune CACHE_ROOT
//       removeOlderCacheVersions(CACHE_ROOT, compiler version). Prints the count.
//
// Exit status 0 on success, 1 when the operation threw, 2 on a usage error.

#include "bench/NoopServices.h"

#include "compiler/Runtime.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"

#include <cstdio>
#include <exception>
#include <string>

namespace {

using quor::compiler::Runtime;
using quor::compiler::RuntimeConfiguration;
using quor::compiler::StandardLibraryBootstrap;

int usage() {
    std::fputs("usage: quor-bench-driver collect STDLIB CACHE_ROOT\n"
               "       quor-bench-driver prune CACHE_ROOT\n",
               stderr);
    return 2;
}

int collect(const std::string& standardLibrary, const std::string& cacheRoot) {
    RuntimeConfiguration configuration;
    configuration.standardLibraryPath = standardLibrary;
    configuration.cacheRoot = cacheRoot;
    Runtime::getInstance().configure(configuration);
    const auto result = StandardLibraryBootstrap::ensure({});
    std::printf("collected %zu units (bootstrapped: %s)\n", quor::bench::noopPrecompiledUnitCount(),
                result.bootstrapped ? "yes" : "no");
    return 0;
}

int prune(const std::string& cacheRoot) {
    const std::size_t removed =
        StandardLibraryBootstrap::removeOlderCacheVersions(cacheRoot, QUOR_COMPILER_VERSION);
    std::printf("removed %zu versions\n", removed);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    try {
        if (command == "collect" && argc == 4) {
            return collect(argv[2], argv[3]);
        }
        if (command == "prune" && argc == 3) {
            return prune(argv[2]);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quor-bench-driver: error: %s\n", error.what());
        return 1;
    }
    return usage();
}
