#pragma once
// The text helpers shared across Mirel. Two trims run through the system and
// they differ: blanks are spaces and tabs (Unicode Zs and U+0009); white space
// and line breaks adds U+000A..U+000D, U+0085, U+2028 and U+2029.
#include <string>
#include <string_view>

namespace mirel {

std::string trimBlanks(std::string_view text);
std::string trimWhitespaceAndNewlines(std::string_view text);

// Replaces every byte sequence that is not valid UTF-8 by U+FFFD.
std::string repairUTF8(std::string_view text);

// Lower-cases ASCII letters only, as SQLite's LOWER does.
std::string asciiLower(std::string_view text);

// Simple case mappings of the Latin-1, Latin Extended-A, Greek and Cyrillic
// ranges besides ASCII: enough for tags, names and window titles. Other
// characters are left as they are.
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

// Case-insensitive equality by the same mappings.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// Splits at the first line feed that stands as a character of its own: a
// carriage return followed by a line feed is one character and no line end.
// Returns npos when there is no such line feed.
std::size_t firstLineBreak(std::string_view text);

// Joins parts with a separator.
template <class Range>
std::string join(const Range& parts, std::string_view separator) {
    std::string out;
    bool first = true;
    for (const auto& part : parts) {
        if (!first) out += separator;
        out += part;
        first = false;
    }
    return out;
}

}  // namespace mirel
