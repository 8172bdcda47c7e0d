#include "mcp/server/jsonrpc.h"

namespace mirel::JSONRPC {

std::optional<Request> parse(std::string_view line) {
    auto document = parseJSON(line);
    // Fragments and arrays (batches) are not messages.
    if (!document || !document->is_object()) return std::nullopt;
    const auto method = document->find("method");
    if (method == document->end() || !method->is_string()) return std::nullopt;

    Request request;
    request.method = method->get<std::string>();
    if (const auto id = document->find("id"); id != document->end()) request.id = std::move(*id);
    if (const auto params = document->find("params"); params != document->end() && params->is_object())
        request.params = std::move(*params);
    return request;
}

Json result(const std::optional<Json>& id, Json result) {
    return Json{{"jsonrpc", "2.0"}, {"result", std::move(result)}, {"id", id.value_or(nullptr)}};
}

Json error(const std::optional<Json>& id, ErrorCode code, const std::string& message) {
    return Json{{"jsonrpc", "2.0"},
                {"error", Json{{"code", static_cast<int>(code)}, {"message", message}}},
                {"id", id.value_or(nullptr)}};
}

}  // namespace mirel::JSONRPC
