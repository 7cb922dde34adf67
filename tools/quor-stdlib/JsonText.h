// How quor-stdlib turns JSON into text. File names on Linux are bytes, not
// UTF-8; a library or cache path that is not valid UTF-8 must not abort the
// tool, so invalid bytes are written as U+FFFD instead of throwing.

#ifndef QUOR_TOOLS_QUOR_STDLIB_JSONTEXT_H
#define QUOR_TOOLS_QUOR_STDLIB_JSONTEXT_H

#include <nlohmann/json.hpp>

#include <string>

namespace quor::stdlibtool {

// The version of the tool's JSON output (docs/json.md). Raised when a field
// changes meaning or goes away; new fields do not raise it.
constexpr int jsonSchema = 1;

// One line when `indent` is negative, else pretty-printed with that indent. An
// object gets "schema" as its first field, so that every document and event
// the tool writes names the schema it follows.
template <class Json> std::string jsonText(const Json& value, int indent = -1) {
    if (value.is_object() && !value.contains("schema")) {
        Json document = {{"schema", jsonSchema}};
        for (const auto& [key, field] : value.items())
            document[key] = field;
        return document.dump(indent, ' ', false, Json::error_handler_t::replace);
    }
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace quor::stdlibtool

#endif
