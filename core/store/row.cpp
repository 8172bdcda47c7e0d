#include "core/store/row.h"

#include <cmath>
#include <limits>

namespace mirel {

const SQLValue* Row::find(const std::string& column) const {
    const auto it = values.find(column);
    return it == values.end() ? nullptr : &it->second;
}

std::optional<std::string> Row::string(const std::string& column) const {
    const SQLValue* v = find(column);
    if (!v || !v->isText()) return std::nullopt;
    return v->asText();
}

std::optional<std::int64_t> Row::intValue(const std::string& column) const {
    const SQLValue* v = find(column);
    if (!v) return std::nullopt;
    if (v->isInt()) return v->asInt();
    if (v->isDouble()) {
        const double d = v->asDouble();
        if (std::isnan(d)) return std::nullopt;
        // Out-of-range floats clamp instead of overflowing.
        if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
        if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(d);
    }
    return std::nullopt;
}

std::optional<double> Row::doubleValue(const std::string& column) const {
    const SQLValue* v = find(column);
    if (!v) return std::nullopt;
    if (v->isDouble()) return v->asDouble();
    if (v->isInt()) return static_cast<double>(v->asInt());
    return std::nullopt;
}

bool Row::boolValue(const std::string& column) const {
    const auto v = intValue(column);
    return v && *v != 0;
}

std::optional<Date> Row::date(const std::string& column) const { return doubleValue(column); }

std::optional<Blob> Row::data(const std::string& column) const {
    const SQLValue* v = find(column);
    if (!v || !v->isBlob()) return std::nullopt;
    return v->asBlob();
}

}  // namespace mirel
