// Stress counts and seeds of the reliability suite; see ReliabilitySupport.h.

#include "tests/reliability/ReliabilitySupport.h"

#include <cstdlib>
#include <string_view>

namespace quor::reliability {

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

} // namespace quor::reliability
