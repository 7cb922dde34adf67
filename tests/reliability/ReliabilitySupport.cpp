// Helpers of the reliability suite; see ReliabilitySupport.h.

#include "tests/reliability/ReliabilitySupport.h"

#include "ChildChecks.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace quor::reliability {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "quor-reliability-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code error;
    // Tests may leave directories without write permission behind.
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(path_, error); // a leftover scratch directory only costs disk space
}

bool fullStress() {
    const char* mode = std::getenv("QUOR_STRESS");
    return mode != nullptr && std::string_view(mode) == "full";
}

unsigned stressCount(const char* name, unsigned reduced, unsigned full) {
    if (const char* value = std::getenv(name)) {
        const unsigned long parsed = std::strtoul(value, nullptr, 10);
        if (parsed > 0) {
            return static_cast<unsigned>(parsed);
        }
    }
    return fullStress() ? full : reduced;
}

std::uint64_t stressSeed() {
    if (const char* value = std::getenv("QUOR_STRESS_SEED")) {
        return std::strtoull(value, nullptr, 10);
    }
    return 20261122;
}

void writeFile(const fs::path& file, std::string_view bytes) {
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.flush();
    if (!stream) {
        throw std::runtime_error("cannot write " + file.native());
    }
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot read " + file.native());
    }
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

pid_t startAsNobody(const std::function<int()>& work) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        testsupport::becomeUser(testsupport::kNobody);
        int status = 255;
        try {
            status = work();
        } catch (...) {
            status = 255;
        }
        ::_exit(status);
    }
    return child;
}

} // namespace quor::reliability
