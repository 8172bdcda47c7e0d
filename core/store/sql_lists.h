#pragma once
// Building "IN (?,?,…)" lists: the marks and their bound values.
#include "core/store/sql_value.h"

#include <string>
#include <vector>

namespace mirel {

// "?" n times, joined by ",".
inline std::string placeholders(std::size_t count) {
    std::string marks;
    for (std::size_t i = 0; i < count; ++i) marks += i ? ",?" : "?";
    return marks;
}

inline std::vector<SQLValue> textValues(const std::vector<std::string>& texts) {
    return std::vector<SQLValue>(texts.begin(), texts.end());
}

}  // namespace mirel
