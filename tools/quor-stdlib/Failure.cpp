// Failure reports; see Failure.h.

#include "Failure.h"

#include "Console.h"
#include "JsonText.h"

#include "compiler/BootstrapExplanation.h"
#include "compiler/ServiceError.h"

namespace quor::stdlibtool {

namespace {

std::string_view kindOf(compiler::ServiceError::Category category) {
    using Category = compiler::ServiceError::Category;
    switch (category) {
    case Category::FileSystem:
        return kind::io;
    case Category::Untrusted:
        return kind::untrusted;
    case Category::Source:
        return kind::compile;
    case Category::Stopped:
        return kind::interrupted;
    case Category::Internal:
        break;
    }
    return kind::internal;
}

std::string_view kindOf(compiler::explain::FailureCause cause) {
    using Cause = compiler::explain::FailureCause;
    switch (cause) {
    case Cause::Lock:
        return kind::lock;
    case Cause::UnsafePath:
        return kind::untrusted;
    case Cause::FileSystem:
    case Cause::EmptyLibrary:
        break;
    }
    return kind::io;
}

} // namespace

std::string_view failureKind(const std::exception& failure) {
    if (const auto* tool = dynamic_cast<const ToolError*>(&failure))
        return tool->kind();
    if (const auto* service = dynamic_cast<const compiler::ServiceError*>(&failure))
        return kindOf(service->category());
    if (const auto cause = compiler::explain::failureCauseOf(failure.what()))
        return kindOf(*cause);
    return kind::internal;
}

std::string_view failureKind(const std::exception_ptr& failure) {
    if (!failure)
        return kind::internal;
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& caught) {
        return failureKind(caught);
    } catch (...) {
        return kind::internal;
    }
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

void reportFailure(Console& console, bool json, const std::exception& failure, int status) {
    const auto* tool = dynamic_cast<const ToolError*>(&failure);
    reportFailure(console, json, failureKind(failure), failure.what(), status,
                  tool != nullptr ? tool->extra() : nlohmann::ordered_json::object());
}

} // namespace quor::stdlibtool
