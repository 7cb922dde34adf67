// The failure a call ends in, as text a test can compare: most checks of an
// error path are "this call fails with exactly this message", and a string
// comparison shows both messages when they differ.

#ifndef QUOR_TESTS_SUPPORT_ERRORS_H
#define QUOR_TESTS_SUPPORT_ERRORS_H

#include <functional>
#include <string>

namespace quor::testsupport {

// The message of the std::runtime_error (or a class derived from it) that
// `call` throws; "<no exception>" when it returns normally;
// "<other exception: <what>>" for another std::exception, and
// "<other exception>" for anything else, so that no such failure ever equals
// an expected message.
std::string runtimeErrorOf(const std::function<void()>& call);

} // namespace quor::testsupport

#endif
