// The failure a call ends in; see Errors.h.

#include "tests/support/Errors.h"

#include <exception>
#include <stdexcept>

namespace quor::testsupport {

std::string runtimeErrorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("<other exception: ") + error.what() + ">";
    } catch (...) {
        return "<other exception>";
    }
    return "<no exception>";
}

} // namespace quor::testsupport
