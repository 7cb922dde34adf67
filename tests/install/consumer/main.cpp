// Leaves the runtime to its defaults, as a compiler that is given no options
// would, and prints what it found, one "key=value" per line, for the
// installation tests to check: the library the runtime picked, the cache
// branch and whether the bootstrap wants a build. With the argument "ensure"
// it then builds the library and prints the result. With "layers" it first
// lets the cache layers choose the cache (Quor::layers) and prints the layer.

#include "compiler/CacheLayers.h"
#include "compiler/CacheTrust.h"
#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "compiler/StandardLibraryCacheState.h"
#include "compiler/source/TypeHeader.h"

#include <exception>
#include <iostream>
#include <string>

bool consumerIsRequired(); // PrefixedIncludes.cpp

int main(int argc, char** argv) {
    using namespace quor::compiler;
    const bool ensure = argc > 1 && std::string(argv[1]) == "ensure";
    const bool layers = argc > 1 && std::string(argv[1]) == "layers";
    try {
        const Runtime& runtime = Runtime::getInstance();
        if (layers) {
            std::cout << "layer=" << cacheLayerName(chooseCacheLayer().inUse) << "\n";
        }
        std::cout << "stdlib=" << runtime.getStandardLibraryPath() << "\n"
                  << "branch=" << runtime.getCacheBranchPath() << "\n"
                  << "required=" << (consumerIsRequired() ? 1 : 0) << "\n";
        if (ensure) {
            const StandardLibraryBootstrapResult result = StandardLibraryBootstrap::ensure({});
            std::cout << "bootstrapped=" << (result.bootstrapped ? 1 : 0) << "\n"
                      << "compiled=" << result.completed << "\n"
                      << "requiredAfter=" << (StandardLibraryBootstrap::isRequired() ? 1 : 0)
                      << "\n";
        }
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
