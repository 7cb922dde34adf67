// Fuzz target: version parsing. The input is the text handed to the bootstrap's
// parseVersion. It must accept exactly three non-empty runs of ASCII digits
// joined by single dots, each at most 2^64 - 1, and then give their values;
// everything else is refused without an exception. The comparison the pruning
// relies on (lexicographic on the three numbers) is checked against the text
// of the input with one more patch.

#include "compiler/BootstrapExplanation.h"
#include "fuzz/FuzzCheck.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Version = std::array<unsigned long long, 3>;

// Digits to a number, by hand, refusing anything above 2^64 - 1.
std::optional<unsigned long long> modelNumber(std::string_view digits) {
    if (digits.empty()) {
        return std::nullopt;
    }
    unsigned long long value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const unsigned long long digit = static_cast<unsigned long long>(c - '0');
        if (value > (~0ULL - digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 + digit;
    }
    return value;
}

std::optional<Version> modelVersion(std::string_view text) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t dot = text.find('.', start);
        parts.push_back(
            text.substr(start, dot == std::string_view::npos ? text.npos : dot - start));
        if (dot == std::string_view::npos) {
            break;
        }
        start = dot + 1;
    }
    if (parts.size() != 3) {
        return std::nullopt;
    }
    Version version{};
    for (std::size_t i = 0; i < 3; ++i) {
        const auto number = modelNumber(parts[i]);
        if (!number) {
            return std::nullopt;
        }
        version[i] = *number;
    }
    return version;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Version parsed{};
    const bool accepted = quor::compiler::explain::parseVersion(text, parsed);
    const std::optional<Version> expected = modelVersion(text);
    QUOR_FUZZ_CHECK(accepted == expected.has_value());
    if (!accepted) {
        return 0;
    }
    QUOR_FUZZ_CHECK(parsed == *expected);

    // A version with a larger patch number compares greater, unless the patch
    // is already the largest number there is.
    if (parsed[2] != ~0ULL) {
        const std::string next = std::to_string(parsed[0]) + "." + std::to_string(parsed[1]) + "." +
                                 std::to_string(parsed[2] + 1);
        Version bumped{};
        QUOR_FUZZ_CHECK(quor::compiler::explain::parseVersion(next, bumped));
        QUOR_FUZZ_CHECK(parsed < bumped);
    }
    return 0;
}
