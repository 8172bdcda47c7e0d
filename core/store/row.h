#pragma once
// One result row, accessed by column name only. No accessor fails: what does
// not fit gives absent (or false).
#include "core/store/sql_value.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirel {

class Row {
public:
    using Columns = std::vector<std::string>;

    Row() = default;
    // A row made by hand (tests, fixtures).
    explicit Row(const std::map<std::string, SQLValue>& values);
    // A result row: every row of one result shares its column names.
    Row(std::shared_ptr<const Columns> columns, std::vector<SQLValue> cells)
        : columns_(std::move(columns)), cells_(std::move(cells)) {}

    // The value under a column name; with two columns of one name, the later.
    const SQLValue* value(const std::string& column) const;
    const Columns& columnNames() const;

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
    std::shared_ptr<const Columns> columns_;
    std::vector<SQLValue> cells_;
};

}  // namespace mirel
