#pragma once
// Reading the API server's replies: the strings they hold, strictly typed.
#include "core/sync/wire.h"

#include <optional>
#include <string>
#include <string_view>

namespace mirel {

// The string under `key`; nothing when `object` is no object or holds no string
// there. Unlike Wire::str, an empty string counts.
inline std::optional<std::string> stringAt(const Json& object, std::string_view key) {
    const Json& value = Wire::field(object, key);
    if (!value.is_string()) return std::nullopt;
    return value.get<std::string>();
}

// True when `object` holds "error" with "code" "uploads_disabled".
inline bool saysUploadsDisabled(const Json& object) {
    return stringAt(Wire::field(object, "error"), "code") == "uploads_disabled";
}

}  // namespace mirel
