#include "core/store/row.h"

#include <cmath>
#include <limits>

namespace mirel {

Row::Row(const std::map<std::string, SQLValue>& values) {
    auto columns = std::make_shared<Columns>();
    for (const auto& [name, value] : values) {
        columns->push_back(name);
        cells_.push_back(value);
    }
    columns_ = std::move(columns);
}

const SQLValue* Row::value(const std::string& column) const {
    if (!columns_) return nullptr;
    // Rows are narrow, so a scan beats hashing; from the end so the later of
    // two same-named columns wins.
    for (std::size_t i = cells_.size(); i-- > 0;) {
        if ((*columns_)[i] == column) return &cells_[i];
    }
    return nullptr;
}

const Row::Columns& Row::columnNames() const {
    static const Columns none;
    return columns_ ? *columns_ : none;
}

std::optional<std::string> Row::string(const std::string& column) const {
    const SQLValue* v = value(column);
    if (!v || !v->isText()) return std::nullopt;
    return v->asText();
}

std::optional<std::int64_t> Row::intValue(const std::string& column) const {
    const SQLValue* v = value(column);
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
    const SQLValue* v = value(column);
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
    const SQLValue* v = value(column);
    if (!v || !v->isBlob()) return std::nullopt;
    return v->asBlob();
}

}  // namespace mirel
