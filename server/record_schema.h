#pragma once
// What each kind of record may carry in a pushed change: the fields, their
// types and their values on a new record. Anything a client sends outside this
// list is ignored; a listed field with a value of the wrong kind refuses the
// whole change.
#include "core/platform/json.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace mirel::server {

enum class FieldType {
    text,          // string
    optionalText,  // string or null; "" is kept as it is
    reference,     // a record id, or null
    enumeration,   // one of `choices`
    number,
    count,         // integer ≥ 0
    integer,
    flag,          // boolean
    date,          // ISO 8601 text, stored in one form
    optionalDate,  // date or null
    tags,          // array of strings
    hash,          // 64 lower-case hex digits
    optionalHash,  // hash or null
    anyJSON,       // any JSON value: annotation marks
};

struct FieldSpec {
    std::string_view name;
    FieldType type;
    // Set only when the record is made; a later change may repeat the value
    // but not alter it.
    bool fixed = false;
    std::span<const std::string_view> choices = {};
};

struct TableSpec {
    std::string_view table;
    std::span<const FieldSpec> fields;
    bool versioned;  // carries base_version (all but comments)
    bool deletable;  // takes tombstones (captures and images)
};

// Absent for a table the server doesn't take pushes for.
const TableSpec* tableSpec(std::string_view table);
const FieldSpec* fieldSpec(const TableSpec& spec, std::string_view field);

// The value in the form that is stored and sent on, or absent when it doesn't
// fit the field.
std::optional<Json> normalizedValue(const FieldSpec& field, const Json& value);

// A record of this table as it starts: every field with its starting value,
// before the pushed patch is laid over it.
Json newRecordDefaults(std::string_view table, double now);

// Record ids: 1 to 64 of letters, digits, "-", "_" and ".". Ids end up in SQL
// parameters only, but a sane shape keeps logs and URLs sane too.
bool isRecordID(std::string_view text);

}  // namespace mirel::server
