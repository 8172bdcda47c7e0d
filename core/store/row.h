#pragma once
// One result row, accessed by column name only. No accessor fails: what does
// not fit gives absent (or false).
#include "core/store/sql_value.h"

#include <map>
#include <optional>
#include <string>

namespace mirel {

struct Row {
    std::map<std::string, SQLValue> values;

    // Text columns only; numbers and blobs are never turned into text.
    std::optional<std::string> string(const std::string& column) const;
    // Integers as they stand, floats truncated towards zero (clamped to the
    // 64-bit range; NaN gives absent).
    std::optional<std::int64_t> intValue(const std::string& column) const;
    // Floats as they stand, integers converted.
    std::optional<double> doubleValue(const std::string& column) const;
    // intValue present and not 0.
    bool boolValue(const std::string& column) const;
    // doubleValue as seconds since 1970.
    std::optional<Date> date(const std::string& column) const;
    // Blob columns only.
    std::optional<Blob> data(const std::string& column) const;

private:
    const SQLValue* find(const std::string& column) const;
};

}  // namespace mirel
