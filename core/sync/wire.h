#pragma once
// Conversions between the API server's loosely typed JSON and typed values.
// None of them fails: a value that does not convert gives the default. A
// missing value and JSON null behave the same; use `field` to read a key.
#include "core/platform/clock.h"
#include "core/platform/json.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirel::Wire {

// The value under `key`, or JSON null when `object` is no object or lacks it.
const Json& field(const Json& object, std::string_view key);

// "2024-05-01T12:30:00.000Z" (always three fractional digits), or JSON null.
// Dates beyond the years 1 to 9999 are pinned to those bounds.
Json stamp(std::optional<Date> date);

// An ISO 8601 string (with or without a fraction, each form parsed by its own
// shape), or a number of seconds since 1970; numbers above 1e12 are
// milliseconds. Strings are never read as numbers.
std::optional<Date> date(const Json& value);

// A non-empty string as it stands; nothing else converts.
std::optional<std::string> str(const Json& value);

// Integers; floats truncated toward zero; strings of an optional sign and
// decimal digits within 64 bits. Otherwise 0.
std::int64_t integer(const Json& value);

// Numbers; strings read whole as strtod does in the POSIX locale, with no
// leading white space. Otherwise (or when not finite) 0.
double floating(const Json& value);

// Booleans; numbers with a whole value, true when not 0. Otherwise false.
bool boolean(const Json& value);

// The string elements of an array, in order, empty ones included.
std::vector<std::string> strings(const Json& value);

// A string as it stands; an array or object as JSON text with sorted keys;
// anything else absent.
std::optional<std::string> json(const Json& value);

// Looks a person id up; absent when the id names nobody known.
using NameLookup = std::function<std::optional<std::string>(const std::string& id)>;

// The one line of history text of a remote activity event.
std::string summarize(const std::string& kind, const Json& detail, const NameLookup& names);

// The first `count` user-perceived characters of UTF-8 text.
std::string prefixGraphemes(std::string_view text, std::size_t count);

}  // namespace mirel::Wire
