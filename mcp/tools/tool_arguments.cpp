#include "mcp/tools/tool_arguments.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace mirel::ToolArguments {

namespace {

const Json* find(const Json& arguments, const char* key) {
    if (!arguments.is_object()) return nullptr;
    const auto it = arguments.find(key);
    return it == arguments.end() ? nullptr : &*it;
}

}  // namespace

std::optional<std::string> text(const Json& arguments, const char* key) {
    const Json* value = find(arguments, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::string> nonEmptyText(const Json& arguments, const char* key) {
    auto value = text(arguments, key);
    if (value && value->empty()) return std::nullopt;
    return value;
}

std::optional<std::int64_t> wholeNumber(const Json& arguments, const char* key) {
    using Limits = std::numeric_limits<std::int64_t>;
    const Json* value = find(arguments, key);
    if (!value) return std::nullopt;
    if (value->is_number_unsigned()) {
        const auto n = value->get<std::uint64_t>();
        return n > static_cast<std::uint64_t>(Limits::max()) ? Limits::max() : static_cast<std::int64_t>(n);
    }
    if (value->is_number_integer()) return value->get<std::int64_t>();
    if (value->is_number_float()) {
        const double n = value->get<double>();
        if (!std::isfinite(n) || n != std::trunc(n)) return std::nullopt;
        // 2^63 is the first double past the range; saturate rather than overflow.
        if (n >= 9223372036854775808.0) return Limits::max();
        if (n <= -9223372036854775808.0) return Limits::min();
        return static_cast<std::int64_t>(n);
    }
    return std::nullopt;
}

std::optional<bool> boolean(const Json& arguments, const char* key) {
    const Json* value = find(arguments, key);
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<std::vector<std::string>> textList(const Json& arguments, const char* key) {
    const Json* value = find(arguments, key);
    if (!value || !value->is_array()) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(value->size());
    for (const auto& element : *value) {
        if (!element.is_string()) return std::nullopt;
        texts.push_back(element.get<std::string>());
    }
    return texts;
}

std::int64_t clampedWholeNumber(const Json& arguments, const char* key, std::int64_t fallback,
                                std::int64_t low, std::int64_t high) {
    return std::clamp(wholeNumber(arguments, key).value_or(fallback), low, high);
}

}  // namespace mirel::ToolArguments
