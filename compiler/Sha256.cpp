// SHA-256 through libcrypto's EVP interface. The algorithm is fetched once per
// process: an implicit fetch on every initialisation costs more than hashing a
// typical unit.

#include "compiler/Sha256.h"

#include <new>
#include <openssl/evp.h>

namespace quor::compiler {

namespace {

const EVP_MD* sha256Algorithm() {
    static const EVP_MD* const algorithm = [] {
        const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        return fetched != nullptr ? fetched : EVP_sha256();
    }();
    return algorithm;
}

} // namespace

struct Sha256::Context {
    EVP_MD_CTX* digest = nullptr;
    ~Context() { EVP_MD_CTX_free(digest); }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    context_->digest = EVP_MD_CTX_new();
    if (context_->digest == nullptr ||
        EVP_DigestInit_ex(context_->digest, sha256Algorithm(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(std::string_view data) {
    // SHA-256 over memory cannot fail once initialised; libcrypto reports only
    // misuse here.
    EVP_DigestUpdate(context_->digest, data.data(), data.size());
}

Sha256::Digest Sha256::finish() {
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_->digest, digest.data(), &length);
    return digest;
}

std::string Sha256::toHex(const Digest& digest) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digest.size() * 2);
    for (std::uint8_t byte : digest) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

std::string Sha256::hex(std::string_view data) {
    Sha256 hash;
    hash.update(data);
    return toHex(hash.finish());
}

} // namespace quor::compiler
