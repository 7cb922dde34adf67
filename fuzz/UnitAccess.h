// The bootstrap unit's private helpers, reached for fuzzing. UnitAccess.cpp
// compiles the unit's own source into the fuzz target (with the build's
// compiler version and build-tree directory) and forwards to the helpers in its
// unnamed namespace, so the fuzzers exercise exactly the code the library ships
// while the unit's public interface stays as it is.

#ifndef QUOR_FUZZ_UNITACCESS_H
#define QUOR_FUZZ_UNITACCESS_H

#include <array>
#include <filesystem>
#include <string>

namespace quor::fuzz {

// The unit's trim(): strips space, tab, carriage return and line feed at both ends.
std::string trim(std::string text);

// The unit's markerValue(): the trimmed value after "key=", or empty.
std::string markerValue(const std::string& line, const std::string& key);

// The unit's parseVersion(): exactly "digits.digits.digits", each within 64 bits.
bool parseVersion(const std::string& text, std::array<unsigned long long, 3>& out);

// The unit's readFingerprintFile(): the lower-case 64-digit fingerprint on the
// file's first line, or empty.
std::string readFingerprintFile(const std::filesystem::path& file);

} // namespace quor::fuzz

#endif
