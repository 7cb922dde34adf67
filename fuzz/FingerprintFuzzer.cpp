// Fuzz target: reading a fingerprint file. The input is the file's bytes. The
// bootstrap's readFingerprintFile must give what the file format says: the first
// line, trimmed of space, tab, carriage return and line feed, when it is exactly
// 64 hexadecimal digits, in lower case; otherwise nothing. Whatever it returns
// is either empty or 64 lower-case hexadecimal digits.

#include "compiler/BootstrapExplanation.h"
#include "fuzz/FuzzCheck.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string modelFingerprint(std::string_view bytes) {
    std::string_view line = bytes.substr(0, bytes.find('\n'));
    const auto white = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!line.empty() && white(line.front())) {
        line.remove_prefix(1);
    }
    while (!line.empty() && white(line.back())) {
        line.remove_suffix(1);
    }
    if (line.size() != 64) {
        return {};
    }
    std::string result;
    for (char c : line) {
        if (!isHex(c)) {
            return {};
        }
        result += (c >= 'A' && c <= 'F') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return result;
}

const fs::path& scratchFile() {
    static const fs::path file = [] {
        std::string pattern = (fs::temp_directory_path() / "quor-fuzz-fingerprint-XXXXXX").string();
        const int fd = ::mkstemp(pattern.data());
        QUOR_FUZZ_CHECK(fd >= 0);
        ::close(fd);
        std::atexit([] {
            std::error_code ignored;
            fs::remove(scratchFile(), ignored); // a leftover scratch file is harmless
        });
        return fs::path(pattern);
    }();
    return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    {
        std::ofstream stream(scratchFile(), std::ios::binary | std::ios::trunc);
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        stream.flush();
        QUOR_FUZZ_CHECK(stream.good());
    }
    const std::string fingerprint = quor::compiler::explain::readFingerprintFile(scratchFile());
    QUOR_FUZZ_CHECK(fingerprint == modelFingerprint(bytes));
    QUOR_FUZZ_CHECK(fingerprint.empty() || fingerprint.size() == 64);
    for (char c : fingerprint) {
        QUOR_FUZZ_CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
    }
    return 0;
}
