// How quor-stdlib turns JSON into text. File names on Linux are bytes, not
// UTF-8; a library or cache path that is not valid UTF-8 must not abort the
// tool, so invalid bytes are written as U+FFFD instead of throwing.

#ifndef QUOR_TOOLS_QUOR_STDLIB_JSONTEXT_H
#define QUOR_TOOLS_QUOR_STDLIB_JSONTEXT_H

#include <nlohmann/json.hpp>

#include <string>

namespace quor::stdlibtool {

// One line when `indent` is negative, else pretty-printed with that indent.
template <class Json> std::string jsonText(const Json& value, int indent = -1) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace quor::stdlibtool

#endif
