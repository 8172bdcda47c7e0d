#include "core/sync/wire.h"

#include <gtest/gtest.h>

#include <map>

namespace mirel {

namespace {

constexpr Date kMay1 = 1714521600.0;  // 2024-05-01T00:00:00Z

Json parsed(const char* text) { return *parseJSON(text); }

std::string repeated(const std::string& piece, int times) { return times > 0 ? piece + repeated(piece, times - 1) : ""; }

}  // namespace

TEST(Wire, DatesInAndOut) {
    const std::pair<const char*, std::optional<Date>> cases[] = {
        {R"("2024-05-01T12:30:00.250Z")", kMay1 + 45000.25}, {R"("2024-05-01T12:30:00Z")", kMay1 + 45000},
        {R"("2024-05-01T14:30:00+02:00")", kMay1 + 45000}, {R"("2024-05-01T19:59:59+0959")", kMay1 + 36059},
        {R"("2024-05-01T12:30:00+24:00")", std::nullopt}, {R"("2024-05-01T12:30:00-05:60")", std::nullopt},
        // the signs either side of the digits, no zone, a point without digits
        {R"("2024-05-01T12:30:0:Z")", std::nullopt}, {R"("2024-05-01T12:30:0/Z")", std::nullopt},
        {R"("2024-05-01T12:30:00.5")", std::nullopt}, {R"("2024-05-01T12:30:00.Z")", std::nullopt},
        {R"("2024-05-01")", std::nullopt}, {R"("2024-05-01 12:30:00Z")", std::nullopt}, {R"("2024-02-30T00:00:00Z")", std::nullopt},
        {R"("1714521600")", std::nullopt},  // digits in a string stay a string
        {"1714521600", kMay1}, {"1714521600000", kMay1}, {"1714521600.5", kMay1 + 0.5}, {"1714521600500.0", kMay1 + 0.5},
        {"1000000000000", 1e12}, {"1e12", 1e12}, {"1000000000001", 1000000000.001},  // above 1e12: milliseconds
        {"-5", -5.0}, {"{}", std::nullopt}, {"null", std::nullopt},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_NEAR(Wire::date(parsed(input)).value_or(-1e9), expected.value_or(-1e9), 1e-6) << input;
    }
    // Stamps always carry three fractional digits; .123 loses nothing to binary fractions.
    const std::pair<std::optional<Date>, Json> stamps[] = {
        {kMay1 + 0.1234, "2024-05-01T00:00:00.123Z"}, {kMay1 + 0.123, "2024-05-01T00:00:00.123Z"},
        {-0.5, "1969-12-31T23:59:59.500Z"}, {1e300, "9999-12-31T23:59:59.999Z"},
        {-1e300, "0001-01-01T00:00:00.000Z"}, {std::nullopt, nullptr}};
    for (const auto& [date, expected] : stamps) EXPECT_EQ(Wire::stamp(date), expected) << expected;
}

TEST(Wire, ConversionsAndTheirDefaults) {
    const std::map<const char*, std::int64_t> integers = {
        {"42", 42}, {"42.9", 42}, {"-42.9", -42}, {R"("42")", 42}, {R"("+42")", 42}, {R"("-7")", -7},
        {R"(" 42")", 0}, {R"("4 2")", 0}, {R"("")", 0}, {R"("+")", 0}, {R"("0x10")", 0},
        {R"("9223372036854775807")", 9223372036854775807LL}, {R"("9223372036854775808")", 0},
        {R"("-9223372036854775808")", INT64_MIN}, {"18446744073709551615", 0}, {"1e300", 0}, {"true", 0}, {"null", 0},
    };
    for (const auto& [input, expected] : integers) EXPECT_EQ(Wire::integer(parsed(input)), expected) << input;

    const std::map<const char*, double> floats = {{"1.5", 1.5}, {"3", 3.0}, {R"("1.5")", 1.5}, {R"(" 1.5")", 0},
                                                  {R"("1.5 ")", 0}, {R"("")", 0}, {R"("1e3")", 1000}, {R"("inf")", 0},
                                                  {R"("abc")", 0}, {"false", 0}};
    for (const auto& [input, expected] : floats) EXPECT_EQ(Wire::floating(parsed(input)), expected) << input;

    const std::map<const char*, bool> booleans = {{"true", true}, {"false", false}, {"2", true}, {"0", false},
                                                  {"1.0", true}, {"1.5", false}, {R"("true")", false}, {"null", false}};
    for (const auto& [input, expected] : booleans) EXPECT_EQ(Wire::boolean(parsed(input)), expected) << input;

    // Plain strings and lists of them are read throughout the account and remote-row tests.
    EXPECT_EQ(Wire::str(parsed("5")), std::nullopt);
    EXPECT_EQ(Wire::json(parsed(R"("")")), "");
    EXPECT_EQ(Wire::json(parsed(R"({"b":1,"a":"x/y"})")), R"({"a":"x\/y","b":1})");
    for (const char* notText : {"3", "true", "null"}) EXPECT_EQ(Wire::json(parsed(notText)), std::nullopt);
}

TEST(Wire, SummaryOfEachKindOfEvent) {
    const Wire::NameLookup names = [](const std::string& id) -> std::optional<std::string> {
        if (id == "p1") return "Ada Lovelace";
        if (id == "boom") throw std::runtime_error("lookup failed");
        return std::nullopt;
    };
    const auto body = [](const std::string& text) { return Json{{"body", text}}.dump(); };
    // A family emoji joined by zero-width joiners is one user-perceived character, as is "e" and a combining accent.
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"status_changed", R"({"from":"in_progress","to":"resolved"})", "in progress \u2192 resolved"},
        {"status_changed", R"({"to":"in_progress"})", "in progress"}, {"status_changed", R"({"from":"open"})", "open \u2192 "},
        {"assigned", R"({"assignee_id":"p1"})", "Ada Lovelace"}, {"assigned", R"({"assignee_id":"p9"})", "p9"},
        {"assigned", R"({"assignee_id":"boom"})", "boom"}, {"assigned", R"({"assignee_id":5})", ""},
        {"resolved", R"({"resolution":"Fixed","resolution_ref":"abc"})", "Fixed"}, {"proposed", R"({"resolution_ref":"abc"})", "abc"},
        {"commented", R"({"body":"Looks good"})", "Looks good"}, {"commented", "null", ""},
        {"commented", body(repeated("a", 200)), repeated("a", 140)},
        {"commented", body(repeated("e\u0301", 150)), repeated("e\u0301", 140)},
        {"commented", body(repeated(family, 141)), repeated(family, 140)},
        {"commented", body(repeated("\u00e9", 140)), repeated("\u00e9", 140)},
        {"moved", R"({"group_name":"Checkout","group_id":"g1"})", "Checkout"}, {"moved", R"({"group_id":"g1"})", "g1"},
        {"created", R"({"mode":"text"})", "no screenshot"}, {"created", R"({"mode":"fULL screen"})", "Full Screen"},
        {"claimed", R"({"by":"x"})", ""}, {"renamed", "{}", ""}, {"renamed", "[1,2]", ""},
        {"renamed", R"({"to":"B","from":"A"})", R"({"from":"A","to":"B"})"},
    };
    for (const auto& [kind, detail, expected] : cases) {
        EXPECT_EQ(Wire::summarize(kind, parsed(detail.c_str()), names), expected) << kind << " " << detail;
    }
}

}  // namespace mirel
