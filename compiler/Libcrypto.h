// The one loader of OpenSSL's libcrypto for the services. The library is
// opened on the first use of a digest or a signature, never when a program
// starts: relocating it costs more than a whole start on a ready cache, which
// uses neither. Each user resolves the entry points it needs itself, declared
// through OpenSSL's own header, so that a signature that does not match is a
// compile error.
//
// Private to the services; not installed.

#ifndef QUOR_COMPILER_LIBCRYPTO_H
#define QUOR_COMPILER_LIBCRYPTO_H

#include <cstring>
#include <string>

#include <dlfcn.h>

namespace quor::compiler::openssl {

// The soname of the major version whose header the services were built with.
const char* libraryName();

// libcrypto, opened once per process and never closed: the algorithms and
// contexts handed out point into it. nullptr when it cannot be loaded, and
// `reason` (when given) then holds why. Thread-safe.
void* library(std::string* reason = nullptr);

// Sets `function` to the entry point `name` of `handle`; false when there is
// none. dlsym hands out an object pointer; copying its bytes into the function
// pointer is what POSIX guarantees to work, without the cast that ISO C++
// leaves conditionally supported.
template <typename Function> bool resolve(void* handle, const char* name, Function& function) {
    static_assert(sizeof(Function) == sizeof(void*));
    void* const symbol = ::dlsym(handle, name);
    std::memcpy(&function, &symbol, sizeof function);
    return symbol != nullptr;
}

} // namespace quor::compiler::openssl

#endif
