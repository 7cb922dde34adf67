// A scoped environment variable; see Environment.h.

#include "tests/support/Environment.h"

#include <cstdlib>

namespace quor::testsupport {

ScopedEnvironment::ScopedEnvironment(std::string name, const char* value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) {
        hadValue_ = true;
        oldValue_ = old;
    }
    if (value == nullptr) {
        ::unsetenv(name_.c_str());
    } else {
        ::setenv(name_.c_str(), value, 1);
    }
}

ScopedEnvironment::~ScopedEnvironment() {
    if (hadValue_) {
        ::setenv(name_.c_str(), oldValue_.c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

} // namespace quor::testsupport
