#include "core/sync/wire.h"

#include "core/platform/text.h"

#include <unigbrk.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <memory>

namespace mirel::Wire {

namespace {

using namespace std::chrono;

constexpr std::int64_t kMillisPerDay = 86'400'000;

// The range a stamp can spell with four year digits.
const Date kFirstDate = static_cast<Date>(sys_days{year{1} / January / 1}.time_since_epoch().count()) * 86400.0;
const Date kLastDate =
    static_cast<Date>(sys_days{year{9999} / December / 31}.time_since_epoch().count()) * 86400.0 + 86399.999;

// Reads exactly `width` decimal digits at `pos`.
bool digits(std::string_view text, std::size_t& pos, std::size_t width, int& out) {
    if (pos + width > text.size()) return false;
    int value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const char c = text[pos + i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    pos += width;
    out = value;
    return true;
}

bool literal(std::string_view text, std::size_t& pos, char expected) {
    if (pos >= text.size() || text[pos] != expected) return false;
    ++pos;
    return true;
}

// "Z", "+HH:MM" or "+HHMM" (or with "-"), to the end of the text; the offset in seconds.
std::optional<int> zoneOffset(std::string_view text, std::size_t pos) {
    if (pos >= text.size()) return std::nullopt;
    if (text[pos] == 'Z') return pos + 1 == text.size() ? std::optional<int>(0) : std::nullopt;
    if (text[pos] != '+' && text[pos] != '-') return std::nullopt;
    const int sign = text[pos] == '-' ? -1 : 1;
    ++pos;
    int hours = 0;
    int minutes = 0;
    if (!digits(text, pos, 2, hours)) return std::nullopt;
    if (pos < text.size() && text[pos] == ':') ++pos;
    if (!digits(text, pos, 2, minutes) || pos != text.size()) return std::nullopt;
    if (hours > 23 || minutes > 59) return std::nullopt;
    return sign * (hours * 3600 + minutes * 60);
}

// One internet date-time; `withFraction` decides which of the two shapes is
// accepted, so each form parses only its own.
std::optional<Date> parseISO(std::string_view text, bool withFraction) {
    std::size_t pos = 0;
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (!digits(text, pos, 4, y) || !literal(text, pos, '-') || !digits(text, pos, 2, mo) ||
        !literal(text, pos, '-') || !digits(text, pos, 2, d) || !literal(text, pos, 'T') ||
        !digits(text, pos, 2, h) || !literal(text, pos, ':') || !digits(text, pos, 2, mi) ||
        !literal(text, pos, ':') || !digits(text, pos, 2, s)) {
        return std::nullopt;
    }
    double fraction = 0;
    if (withFraction) {
        if (!literal(text, pos, '.')) return std::nullopt;
        double scale = 0.1;
        const std::size_t first = pos;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            fraction += (text[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == first) return std::nullopt;
    }
    const std::optional<int> offset = zoneOffset(text, pos);
    if (!offset) return std::nullopt;
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || s > 59) return std::nullopt;
    const double days = static_cast<double>(sys_days{ymd}.time_since_epoch().count());
    return days * 86400.0 + h * 3600 + mi * 60 + s + fraction - *offset;
}

// Floor division for the negative dates before 1970.
std::int64_t floorDiv(std::int64_t a, std::int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// strtod in the POSIX locale, whatever the process's locale is.
locale_t posixLocale() {
    struct Free {
        void operator()(locale_t l) const { freelocale(l); }
    };
    static const std::unique_ptr<std::remove_pointer_t<locale_t>, Free> c(newlocale(LC_ALL_MASK, "C", nullptr));
    return c.get();
}

std::optional<std::int64_t> parseDecimal(std::string_view text) {
    std::size_t pos = 0;
    bool negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        pos = 1;
    }
    if (pos == text.size()) return std::nullopt;
    // Accumulate toward the sign so that the 64-bit minimum fits.
    std::int64_t value = 0;
    constexpr std::int64_t lo = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t hi = std::numeric_limits<std::int64_t>::max();
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c < '0' || c > '9') return std::nullopt;
        const int digit = c - '0';
        if (negative) {
            if (value < (lo + digit) / 10) return std::nullopt;
            value = value * 10 - digit;
        } else {
            if (value > (hi - digit) / 10) return std::nullopt;
            value = value * 10 + digit;
        }
    }
    return value;
}

std::string textAt(const Json& detail, std::string_view key) {
    const Json& value = field(detail, key);
    return value.is_string() ? value.get<std::string>() : std::string();
}

std::optional<std::string> optionalTextAt(const Json& detail, std::string_view key) {
    const Json& value = field(detail, key);
    if (!value.is_string()) return std::nullopt;
    return value.get<std::string>();
}

// A person's name for the id at `key`, the id itself when nobody is known.
std::string nameAt(const Json& detail, std::string_view key, const NameLookup& names) {
    const Json& value = field(detail, key);
    if (!value.is_string()) return {};
    const std::string id = value.get<std::string>();
    if (names) {
        try {
            if (std::optional<std::string> name = names(id)) return *name;
        } catch (...) {
            // A failed look-up counts as no name.
        }
    }
    return id;
}

std::string underscoresToSpaces(std::string text) {
    for (char& c : text) {
        if (c == '_') c = ' ';
    }
    return text;
}

std::size_t utf8Length(unsigned char lead) {
    if (lead >= 0xF0) return 4;
    if (lead >= 0xE0) return 3;
    if (lead >= 0xC0) return 2;
    return 1;
}

// Each word's first letter upper-case and the rest lower-case; words are
// delimited by spaces, tabs and line ends.
std::string capitalizedWords(std::string_view text) {
    std::string out;
    bool wordStart = true;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = std::min(utf8Length(static_cast<unsigned char>(text[i])), text.size() - i);
        const std::string_view character = text.substr(i, length);
        const bool delimiter = character == " " || character == "\t" || character == "\n" || character == "\r";
        if (delimiter) out += character;
        else out += wordStart ? uppercased(character) : lowercased(character);
        wordStart = delimiter;
        i += length;
    }
    return out;
}

}  // namespace

const Json& field(const Json& object, std::string_view key) {
    static const Json null;
    if (!object.is_object()) return null;
    const auto it = object.find(std::string(key));
    return it == object.end() ? null : *it;
}

Json stamp(std::optional<Date> date) {
    if (!date) return Json(nullptr);
    Date clamped = std::isnan(*date) ? 0 : std::clamp(*date, kFirstDate, kLastDate);
    const std::int64_t millis = std::llround(clamped * 1000.0);
    const std::int64_t dayNumber = floorDiv(millis, kMillisPerDay);
    const std::int64_t inDay = millis - dayNumber * kMillisPerDay;
    const year_month_day ymd{sys_days{days{dayNumber}}};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(inDay / 3'600'000), static_cast<int>(inDay / 60'000 % 60),
                  static_cast<int>(inDay / 1000 % 60), static_cast<int>(inDay % 1000));
    return Json(std::string(text));
}

std::optional<Date> date(const Json& value) {
    if (value.is_string()) {
        const std::string& text = value.get_ref<const std::string&>();
        if (std::optional<Date> fractional = parseISO(text, true)) return fractional;
        return parseISO(text, false);
    }
    if (value.is_number_float()) {
        const double n = value.get<double>();
        if (!std::isfinite(n)) return std::nullopt;
        return n > 1e12 ? n / 1000 : n;
    }
    if (value.is_number_unsigned()) {
        const double n = static_cast<double>(value.get<std::uint64_t>());
        return value.get<std::uint64_t>() >= 1'000'000'000'001ULL ? n / 1000 : n;
    }
    if (value.is_number_integer()) {
        const std::int64_t n = value.get<std::int64_t>();
        return n >= 1'000'000'000'001LL ? static_cast<double>(n) / 1000 : static_cast<double>(n);
    }
    return std::nullopt;
}

std::optional<std::string> str(const Json& value) {
    if (!value.is_string() || value.get_ref<const std::string&>().empty()) return std::nullopt;
    return value.get<std::string>();
}

std::int64_t integer(const Json& value) {
    if (value.is_number_unsigned()) {
        const std::uint64_t n = value.get<std::uint64_t>();
        return n <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ? static_cast<std::int64_t>(n)
                                                                                         : 0;
    }
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_float()) {
        const double n = std::trunc(value.get<double>());
        // 2^63 is the first double past the range.
        if (!std::isfinite(n) || n < -9223372036854775808.0 || n >= 9223372036854775808.0) return 0;
        return static_cast<std::int64_t>(n);
    }
    if (value.is_string()) return parseDecimal(value.get_ref<const std::string&>()).value_or(0);
    return 0;
}

double floating(const Json& value) {
    if (value.is_number_float()) {
        const double n = value.get<double>();
        return std::isfinite(n) ? n : 0;
    }
    if (value.is_number_unsigned()) return static_cast<double>(value.get<std::uint64_t>());
    if (value.is_number_integer()) return static_cast<double>(value.get<std::int64_t>());
    if (!value.is_string()) return 0;
    const std::string& text = value.get_ref<const std::string&>();
    if (text.empty()) return 0;
    switch (text.front()) {
        case ' ': case '\t': case '\n': case '\v': case '\f': case '\r': return 0;
        default: break;
    }
    char* end = nullptr;
    const double n = strtod_l(text.c_str(), &end, posixLocale());
    // An embedded NUL stops strtod early, and so fails the whole-text test.
    if (end != text.c_str() + text.size() || !std::isfinite(n)) return 0;
    return n;
}

bool boolean(const Json& value) {
    if (value.is_boolean()) return value.get<bool>();
    if (value.is_number_unsigned()) return value.get<std::uint64_t>() != 0;
    if (value.is_number_integer()) return value.get<std::int64_t>() != 0;
    if (value.is_number_float()) {
        const double n = value.get<double>();
        return std::isfinite(n) && std::trunc(n) == n && n != 0;
    }
    return false;
}

std::vector<std::string> strings(const Json& value) {
    std::vector<std::string> result;
    if (!value.is_array()) return result;
    for (const Json& element : value) {
        if (element.is_string()) result.push_back(element.get<std::string>());
    }
    return result;
}

std::optional<std::string> json(const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_array() || value.is_object()) return writeJSON(value);
    return std::nullopt;
}

std::string prefixGraphemes(std::string_view text, std::size_t count) {
    if (text.empty()) return {};
    std::vector<char> breaks(text.size());
    u8_grapheme_breaks(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), breaks.data());
    std::size_t seen = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        // breaks[i] marks the start of a cluster.
        if (i == 0 || breaks[i]) {
            if (seen == count) return std::string(text.substr(0, i));
            ++seen;
        }
    }
    return std::string(text);
}

std::string summarize(const std::string& kind, const Json& detail, const NameLookup& names) {
    static const Json noDetail = Json::object();
    const Json& object = detail.is_object() ? detail : noDetail;
    if (kind == "status_changed") {
        const std::string from = underscoresToSpaces(textAt(object, "from"));
        const std::string to = underscoresToSpaces(textAt(object, "to"));
        return from.empty() ? to : from + " \u2192 " + to;
    }
    if (kind == "assigned") return nameAt(object, "assignee_id", names);
    if (kind == "resolved" || kind == "proposed") {
        if (auto resolution = optionalTextAt(object, "resolution")) return *resolution;
        return textAt(object, "resolution_ref");
    }
    if (kind == "commented") return prefixGraphemes(textAt(object, "body"), 140);
    if (kind == "moved") {
        if (auto groupName = optionalTextAt(object, "group_name")) return *groupName;
        return nameAt(object, "group_id", names);
    }
    if (kind == "created") {
        const std::optional<std::string> mode = optionalTextAt(object, "mode");
        if (!mode) return {};
        return *mode == "text" ? "no screenshot" : capitalizedWords(*mode);
    }
    if (kind == "claimed") return {};
    if (object.empty()) return {};
    return writeJSON(object);
}

}  // namespace mirel::Wire
