// Path text checks; see PathText.h.

#include "compiler/PathText.h"

namespace quor::compiler {

bool isAbsoluteAndNormal(std::string_view path) {
    if (path.size() < 2 || path[0] != '/' || path.back() == '/') {
        return false;
    }
    for (std::size_t start = 1; start <= path.size();) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view element = path.substr(start, end - start);
        if (element.empty() || element == "." || element == "..") {
            return false;
        }
        start = end + 1;
    }
    return true;
}

} // namespace quor::compiler
