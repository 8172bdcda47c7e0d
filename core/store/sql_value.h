#pragma once
// The one value type that crosses the database layer in both directions.
#include "core/platform/clock.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace mirel {

using Blob = std::vector<std::uint8_t>;

class SQLValue {
public:
    using Storage = std::variant<std::int64_t, double, std::string, Blob, std::monostate>;

    SQLValue() : value_(std::monostate{}) {}
    SQLValue(std::int64_t v) : value_(v) {}
    SQLValue(int v) : value_(static_cast<std::int64_t>(v)) {}
    SQLValue(double v) : value_(v) {}
    SQLValue(std::string v) : value_(std::move(v)) {}
    SQLValue(const char* v) : value_(std::string(v)) {}
    SQLValue(std::nullptr_t) : value_(std::monostate{}) {}

    static SQLValue null() { return SQLValue(); }
    static SQLValue blob(Blob bytes) {
        SQLValue v;
        v.value_ = std::move(bytes);
        return v;
    }
    // Text, or NULL when absent.
    static SQLValue string(const std::optional<std::string>& text) {
        return text ? SQLValue(*text) : SQLValue();
    }
    // Seconds since 1970 as REAL, or NULL when absent.
    static SQLValue date(std::optional<Date> date) { return date ? SQLValue(*date) : SQLValue(); }
    // INTEGER 1 or 0.
    static SQLValue boolean(bool flag) { return SQLValue(static_cast<std::int64_t>(flag ? 1 : 0)); }

    bool isInt() const { return std::holds_alternative<std::int64_t>(value_); }
    bool isDouble() const { return std::holds_alternative<double>(value_); }
    bool isText() const { return std::holds_alternative<std::string>(value_); }
    bool isBlob() const { return std::holds_alternative<Blob>(value_); }
    bool isNull() const { return std::holds_alternative<std::monostate>(value_); }

    std::int64_t asInt() const { return std::get<std::int64_t>(value_); }
    double asDouble() const { return std::get<double>(value_); }
    const std::string& asText() const { return std::get<std::string>(value_); }
    const Blob& asBlob() const { return std::get<Blob>(value_); }

    const Storage& storage() const { return value_; }
    bool operator==(const SQLValue& other) const = default;

private:
    Storage value_;
};

}  // namespace mirel
