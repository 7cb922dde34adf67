// Points the runtime at the installed standard library that the package
// reports, asks the bootstrap whether a build is needed, and prints what it
// found, one "key=value" per line, for the installation test to check.

#include "compiler/Runtime.h"
#include "compiler/StandardLibraryBootstrap.h"

#include <exception>
#include <iostream>

int main() {
    using namespace quor::compiler;
    try {
        RuntimeConfiguration configuration;
        configuration.standardLibraryPath = CONSUMER_STDLIB_DIR;
        Runtime::getInstance().configure(configuration);
        std::cout << "version=" << CONSUMER_COMPILER_VERSION << "\n"
                  << "stdlib=" << Runtime::getInstance().getStandardLibraryPath() << "\n"
                  << "required=" << (StandardLibraryBootstrap::isRequired() ? 1 : 0) << "\n";
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
