// SHA-256 through libcrypto's EVP interface. The algorithm is fetched once per
// process: an implicit fetch on every initialisation costs more than hashing a
// typical unit.
//
// libcrypto is loaded on the first digest, not when the program starts. The
// loader's relocation of libcrypto cost more than half of the instructions of
// a whole `quor-stdlib ensure` on a ready cache, and neither that nor a
// compiler start on a ready cache hashes anything. The program still declares
// the functions it takes from the library through OpenSSL's own header, so a
// signature that does not match is a compile error, and the soname is the one
// of the major version the header belongs to.

#include "compiler/Sha256.h"
#include "compiler/Libcrypto.h"
#include "compiler/ServiceError.h"

#include <openssl/evp.h>

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace quor::compiler {

namespace {

// The entry points of libcrypto this file uses, resolved once per process.
struct Libcrypto {
    decltype(&EVP_MD_fetch) mdFetch = nullptr;
    decltype(&EVP_sha256) sha256 = nullptr;
    decltype(&EVP_MD_CTX_new) contextNew = nullptr;
    decltype(&EVP_MD_CTX_free) contextFree = nullptr;
    decltype(&EVP_DigestInit_ex) digestInit = nullptr;
    decltype(&EVP_DigestUpdate) digestUpdate = nullptr;
    decltype(&EVP_DigestFinal_ex) digestFinal = nullptr;
    const EVP_MD* algorithm = nullptr;
    std::string failure; // why the library cannot be used; empty when it can
};

using openssl::resolve;

Libcrypto loadLibcrypto() {
    Libcrypto crypto;
    std::string reason;
    void* library = openssl::library(&reason);
    if (library == nullptr) {
        crypto.failure =
            std::string("Unable to load ") + openssl::libraryName() + " for SHA-256: " + reason;
        return crypto;
    }
    if (!resolve(library, "EVP_MD_fetch", crypto.mdFetch) ||
        !resolve(library, "EVP_sha256", crypto.sha256) ||
        !resolve(library, "EVP_MD_CTX_new", crypto.contextNew) ||
        !resolve(library, "EVP_MD_CTX_free", crypto.contextFree) ||
        !resolve(library, "EVP_DigestInit_ex", crypto.digestInit) ||
        !resolve(library, "EVP_DigestUpdate", crypto.digestUpdate) ||
        !resolve(library, "EVP_DigestFinal_ex", crypto.digestFinal)) {
        crypto.failure =
            std::string(openssl::libraryName()) + " lacks the SHA-256 digest functions";
        return crypto;
    }
    const EVP_MD* fetched = crypto.mdFetch(nullptr, "SHA256", nullptr);
    crypto.algorithm = fetched != nullptr ? fetched : crypto.sha256();
    return crypto;
}

// Thread-safe through the static's initialisation; the precompiler's workers
// hash at once.
const Libcrypto& libcrypto() {
    static const Libcrypto crypto = loadLibcrypto();
    if (!crypto.failure.empty()) {
        throw ServiceInternalError(crypto.failure);
    }
    return crypto;
}

} // namespace

struct Sha256::Context {
    const Libcrypto* crypto = nullptr;
    EVP_MD_CTX* digest = nullptr;
    ~Context() {
        if (crypto != nullptr) {
            crypto->contextFree(digest);
        }
    }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    const Libcrypto& crypto = libcrypto();
    context_->crypto = &crypto;
    context_->digest = crypto.contextNew();
    if (context_->digest == nullptr ||
        crypto.digestInit(context_->digest, crypto.algorithm, nullptr) != 1) {
        throw std::bad_alloc();
    }
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(std::string_view data) {
    // SHA-256 over memory cannot fail once initialised; libcrypto reports only
    // misuse here.
    context_->crypto->digestUpdate(context_->digest, data.data(), data.size());
}

Sha256::Digest Sha256::finish() {
    Digest digest{};
    unsigned int length = 0;
    context_->crypto->digestFinal(context_->digest, digest.data(), &length);
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
