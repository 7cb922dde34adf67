// One environment variable set or removed for the length of a scope, for the
// tests that check how the services and the tool read their settings. The
// environment is the process's, so a test that uses this must not run other
// threads that read it meanwhile.

#ifndef QUOR_TESTS_SUPPORT_ENVIRONMENT_H
#define QUOR_TESTS_SUPPORT_ENVIRONMENT_H

#include <string>

namespace quor::testsupport {

// Sets `name` to `value` (removes it when `value` is null) and, when the
// object goes, puts back what was there before: the old value, or no variable
// at all. Whatever the scope itself does to the variable is undone too.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    bool hadValue_ = false;
    std::string oldValue_;
};

} // namespace quor::testsupport

#endif
