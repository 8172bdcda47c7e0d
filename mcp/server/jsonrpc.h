#pragma once
// The framing of the protocol: one JSON-RPC 2.0 message per line.
#include "core/platform/json.h"

#include <optional>
#include <string>
#include <string_view>

namespace mirel::JSONRPC {

struct Request {
    std::optional<Json> id;  // absent if the key was not there; null is present
    std::string method;
    Json params = Json::object();  // empty unless the message's params is an object
};

enum class ErrorCode {
    parseError = -32700,
    invalidRequest = -32600,
    methodNotFound = -32601,
    invalidParams = -32602,
    internalError = -32603,
};

std::optional<Request> parse(std::string_view line);
Json result(const std::optional<Json>& id, Json result);
Json error(const std::optional<Json>& id, ErrorCode code, const std::string& message);

}  // namespace mirel::JSONRPC
