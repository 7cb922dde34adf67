// SHA-256 (FIPS 180-4), the digest the precompiler records of each unit's source
// text. Written here because the compiler services depend on the C++ standard
// library alone.

#ifndef QUOR_COMPILER_SHA256_H
#define QUOR_COMPILER_SHA256_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace quor::compiler {

class Sha256 {
public:
    Sha256();

    // Appends `data` to the message. Any number of calls, in order.
    void update(std::string_view data);

    // The digest of everything passed to update(). Call once; the object is spent.
    std::array<std::uint8_t, 32> finish();

    // The digest of `data` as 64 lower-case hexadecimal digits.
    static std::string hex(std::string_view data);

private:
    void compress(const std::uint8_t* block);

    std::array<std::uint32_t, 8> state_;
    std::array<std::uint8_t, 64> buffer_{};
    std::size_t buffered_ = 0;
    std::uint64_t length_ = 0;
};

} // namespace quor::compiler

#endif
