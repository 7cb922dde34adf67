// The services' loader of libcrypto; see Libcrypto.h.

#include "compiler/Libcrypto.h"

#include <openssl/opensslv.h>

namespace quor::compiler::openssl {

namespace {

#define QUOR_LIBCRYPTO_TEXT(value) #value
#define QUOR_LIBCRYPTO_SONAME(major) "libcrypto.so." QUOR_LIBCRYPTO_TEXT(major)

constexpr const char* soname = QUOR_LIBCRYPTO_SONAME(OPENSSL_VERSION_MAJOR);

struct Loaded {
    void* handle = nullptr;
    std::string failure;
};

Loaded load() {
    Loaded loaded;
    loaded.handle = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (loaded.handle == nullptr) {
        const char* reason = ::dlerror();
        loaded.failure = reason != nullptr ? reason : "unknown error";
    }
    return loaded;
}

} // namespace

const char* libraryName() {
    return soname;
}

void* library(std::string* reason) {
    // Thread-safe through the static's initialisation.
    static const Loaded loaded = load();
    if (loaded.handle == nullptr && reason != nullptr)
        *reason = loaded.failure;
    return loaded.handle;
}

} // namespace quor::compiler::openssl
