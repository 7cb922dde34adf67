// Compiles the bootstrap unit into the fuzz target so that its private helpers
// can be called. The unit takes its compiler version and build tree from the
// build's quor/Config.h, as it does in quor_bootstrap, so the code is the
// shipped code, compiled with the fuzz target's instrumentation.

#include "compiler/StandardLibraryBootstrap.cpp"

#include "fuzz/UnitAccess.h"

namespace quor::fuzz {

std::string trim(std::string text) {
    return std::string(compiler::trim(text));
}

std::string markerValue(const std::string& line, const std::string& key) {
    return std::string(compiler::markerValue(line, key));
}

bool parseVersion(const std::string& text, std::array<unsigned long long, 3>& out) {
    return compiler::parseVersion(text, out);
}

std::string readFingerprintFile(const std::filesystem::path& file) {
    return compiler::readFingerprintFile(file.native());
}

} // namespace quor::fuzz
