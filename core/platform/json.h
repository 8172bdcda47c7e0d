#pragma once
// JSON values and the one writer every part of Mirel uses.
//
// nlohmann::json keeps objects as sorted maps and keeps integers and floating
// numbers apart, which is what the wire format needs.
#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace mirel {

using Json = nlohmann::json;

// Compact UTF-8 with keys sorted at every level, invalid UTF-8 replaced by
// U+FFFD, and "/" written as "\/". Never throws.
std::string writeJSON(const Json& value);

// Strict parse of one document; nothing on any error. Documents nested deeper
// than `maxDepth` are refused so that later recursive walks stay bounded.
std::optional<Json> parseJSON(std::string_view text, int maxDepth = 512);

}  // namespace mirel
