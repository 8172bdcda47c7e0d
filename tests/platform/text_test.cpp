// The text helpers behind titles, tags, trims and every line read from a client.
#include "core/platform/text.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(TextTest, TrimsRepairsAndFindsLineBreaks) {
    EXPECT_EQ(std::tuple(trimBlanks(" \t a b \u00A0\u2009\u3000"), trimBlanks("\n a \r"), trimBlanks(" \xff ")),
              std::tuple("a b", "\n a \r", "\xff"));
    EXPECT_EQ(trimWhitespaceAndNewlines("\u2028\r\n\v\f a\tb \u0085\u2029"), "a\tb");
    const std::pair<const char*, const char*> repairs[] = {
        {"plain ascii", "plain ascii"}, {"a\xff" "b", "a\uFFFD" "b"}, {"\xC0\xAF", "\uFFFD\uFFFD"},
        {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"}, {"x\xE2\x82", "x\uFFFD\uFFFD"}, {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"é✓😀\xDF\xBF\xF4\x8F\xBF\xBF", "é✓😀\xDF\xBF\xF4\x8F\xBF\xBF"},
    };
    for (const auto& [text, repaired] : repairs) EXPECT_EQ(repairUTF8(text), repaired) << text;
    EXPECT_EQ(std::tuple(firstLineBreak("a\r\nb\nc"), firstLineBreak("\nx"), firstLineBreak("a\r\n")),
              std::tuple(4u, 0u, std::string::npos));
    EXPECT_EQ(asciiLower("ÀBC"), "Àbc");
}

// The first and last letters of each range that folds, and the few that do not.
TEST(TextTest, CaseFoldsLatinGreekAndCyrillic) {
    const std::string upper = "AZÀÖØÞĀĈĞĴĹĽŁŃŇŊŐŹŻŽΑΣΩАЯЀЏ", lower = "azàöøþāĉğĵĺľłńňŋőźżžασωаяѐџ";
    EXPECT_EQ(std::tuple(lowercased(upper), uppercased(lower), lowercased(lower), uppercased(upper)),
              std::tuple(lower, upper, lower, upper));
    const std::string unchanged = "×÷ßĸŉſİıÿ΢\xff";
    EXPECT_EQ(lowercased(unchanged) + uppercased(unchanged), unchanged + unchanged);
    EXPECT_TRUE(equalsIgnoringCase("ÉCRAN Łódź", "écran ŁÓDŹ"));
    EXPECT_FALSE(equalsIgnoringCase("ß", "SS") || equalsIgnoringCase("ab", "a"));
}

}  // namespace
}  // namespace mirel
