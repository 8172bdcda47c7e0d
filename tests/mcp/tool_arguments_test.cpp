#include "mcp/tools/tool_arguments.h"

#include <gtest/gtest.h>

#include <limits>

namespace mirel {
namespace {

using namespace ToolArguments;
constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();

TEST(ToolArgumentsTest, WholeNumbers) {
    const struct {
        Json value;
        std::optional<std::int64_t> expected;
    } cases[] = {
        {5, 5},
        {-3, -3},
        {5.0, 5},
        {1e12, 1000000000000},
        {2.5, std::nullopt},
        {-0.5, std::nullopt},
        {1e300, int64Max},
        {-1e300, int64Min},
        {18446744073709551615ull, int64Max},
        {"5", std::nullopt},
        {true, std::nullopt},
        {nullptr, std::nullopt},
        {Json::array({5}), std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(wholeNumber(Json{{"n", c.value}}, "n"), c.expected) << c.value.dump();
    EXPECT_EQ(wholeNumber(Json::object(), "n"), std::nullopt);
    EXPECT_EQ(wholeNumber(Json::array(), "n"), std::nullopt);
}

TEST(ToolArgumentsTest, ClampingNeverOverflows) {
    const std::pair<Json, std::int64_t> cases[] = {
        {0, 1}, {-3, 1}, {2.5, 25}, {1e12, 200}, {500, 200}, {"10", 25}, {int64Min, 1}, {7, 7},
    };
    for (const auto& [value, expected] : cases)
        EXPECT_EQ(clampedWholeNumber(Json{{"limit", value}}, "limit", 25, 1, 200), expected) << value.dump();
    EXPECT_EQ(clampedWholeNumber(Json::object(), "limit", 25, 1, 200), 25);
}

TEST(ToolArgumentsTest, WrongTypesReadAsAbsent) {
    const Json arguments = {{"text", "hi"},           {"empty", ""},           {"number", 3},
                            {"flag", false},          {"list", {"a", "b"}},    {"mixed", {"a", 1}},
                            {"emptyList", Json::array()}};
    EXPECT_EQ(text(arguments, "text"), "hi");
    EXPECT_EQ(text(arguments, "empty"), "");
    EXPECT_EQ(nonEmptyText(arguments, "empty"), std::nullopt);
    EXPECT_EQ(text(arguments, "number"), std::nullopt);
    EXPECT_EQ(text(arguments, "missing"), std::nullopt);
    EXPECT_EQ(boolean(arguments, "flag"), false);
    EXPECT_EQ(boolean(arguments, "number"), std::nullopt);
    EXPECT_EQ(boolean(arguments, "text"), std::nullopt);
    EXPECT_EQ(textList(arguments, "list"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(textList(arguments, "emptyList"), std::vector<std::string>{});
    EXPECT_EQ(textList(arguments, "mixed"), std::nullopt);
    EXPECT_EQ(textList(arguments, "text"), std::nullopt);
    EXPECT_EQ(text(Json("not an object"), "text"), std::nullopt);
}

}  // namespace
}  // namespace mirel
