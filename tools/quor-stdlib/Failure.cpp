// Failure reports; see Failure.h.

#include "Failure.h"

#include "Console.h"
#include "JsonText.h"

#include <regex>

namespace quor::stdlibtool {

std::string_view failureKind(std::string_view message) {
    if (message.starts_with("Unable to lock Quor standard-library cache '"))
        return "lock";
    // An object the precompiler could not write is trouble with the disk,
    // though the message names the unit as a compile error does.
    if (message.find(": unable to write its object '") != std::string_view::npos)
        return "io";
    // The precompiler names the unit and the place: "<path>:<line>:<column>: ".
    static const std::regex place(R"(^.*:[0-9]+:[0-9]+: )");
    if (std::regex_search(message.begin(), message.end(), place))
        return "compile";
    for (std::string_view prefix : {"Unable to ", "Refusing to ", "Quor "})
        if (message.starts_with(prefix))
            return "io";
    return "internal";
}

void reportFailure(Console& console, bool json, std::string_view kind, const std::string& message,
                   int status, const nlohmann::ordered_json& extra) {
    console.error(message);
    if (!json)
        return;
    nlohmann::ordered_json event = {
        {"event", "error"}, {"kind", kind}, {"message", message}, {"exitStatus", status}};
    for (const auto& [key, value] : extra.items())
        event[key] = value;
    console.out() << jsonText(event) << std::endl;
}

} // namespace quor::stdlibtool
