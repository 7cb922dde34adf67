// SHA-256, the digest the precompiler records of each unit's source text and
// of each object's own body. A thin wrapper around OpenSSL's libcrypto, which
// uses the processor's SHA extensions where there are any: a check of a whole
// library cache hashes every unit and every object, and the portable code ran
// at a seventh of the speed on the machines we measured.
//
// Part of what the services offer their callers, not private to them: the
// tool's library fingerprint hashes with it too. libcrypto is loaded on the
// first digest, so a program whose compiler start never hashes (the ready
// path) never pays for loading it; a caller that linked libcrypto directly
// would pay on every start.

#ifndef QUOR_COMPILER_SHA256_H
#define QUOR_COMPILER_SHA256_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quor::compiler {

class Sha256 {
public:
    using Digest = std::array<std::uint8_t, 32>;

    // Throws std::bad_alloc when libcrypto cannot set up a digest context, and
    // ServiceInternalError when libcrypto, loaded on the first digest, cannot be.
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;

    // Appends `data` to the message. Any number of calls, in order.
    void update(std::string_view data);

    // The digest of everything passed to update(). Call once; the object is spent.
    Digest finish();

    // The digest of `data` as 64 lower-case hexadecimal digits.
    static std::string hex(std::string_view data);

    // `digest` as 64 lower-case hexadecimal digits.
    static std::string toHex(const Digest& digest);

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

} // namespace quor::compiler

#endif
