#include "core/platform/text.h"

#include <cstdint>
#include <vector>

namespace mirel {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one UTF-8 scalar at `i`; gives kInvalid and length 1 for a bad sequence.
char32_t decodeAt(std::string_view s, std::size_t i, std::size_t& length) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b0 = byte(i);
    length = 1;
    if (b0 < 0x80) return b0;
    int extra;
    char32_t cp;
    char32_t minimum;
    if (b0 >= 0xC2 && b0 <= 0xDF) { extra = 1; cp = b0 & 0x1F; minimum = 0x80; }
    else if (b0 >= 0xE0 && b0 <= 0xEF) { extra = 2; cp = b0 & 0x0F; minimum = 0x800; }
    else if (b0 >= 0xF0 && b0 <= 0xF4) { extra = 3; cp = b0 & 0x07; minimum = 0x10000; }
    else return kInvalid;
    if (i + extra >= s.size()) return kInvalid;
    for (int k = 1; k <= extra; ++k) {
        const unsigned char b = byte(i + k);
        if ((b & 0xC0) != 0x80) return kInvalid;
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kInvalid;
    length = static_cast<std::size_t>(extra) + 1;
    return cp;
}

// Calls visit(scalar, at, length) for each scalar of `s` in order; a bad
// sequence comes as kInvalid, one byte long.
template <class Visit>
void forEachScalar(std::string_view s, Visit visit) {
    std::size_t i = 0;
    while (i < s.size()) {
        std::size_t length;
        const char32_t c = decodeAt(s, i, length);
        visit(c, i, length);
        i += length;
    }
}

bool isBlank(char32_t c) {
    return c == 0x09 || c == 0x20 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isWhitespaceOrNewline(char32_t c) {
    return isBlank(c) || (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

template <class Predicate>
std::string trim(std::string_view s, Predicate trimmed) {
    // Walk scalars forwards, remembering where the kept span starts and ends.
    std::size_t start = s.size();
    std::size_t end = 0;
    forEachScalar(s, [&](char32_t c, std::size_t at, std::size_t length) {
        if (c == kInvalid || !trimmed(c)) {
            if (start == s.size()) start = at;
            end = at + length;
        }
    });
    if (start >= end) return {};
    return std::string(s.substr(start, end - start));
}

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

char32_t simpleLower(char32_t c) {
    if (c >= 'A' && c <= 'Z') return c + 32;
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;
    if (c >= 0x100 && c <= 0x17F && c != 0x130 && c != 0x131 && c != 0x138 && c != 0x149 &&
        c != 0x17F) {
        // Latin Extended-A pairs upper/lower as even/odd, shifted by one in two runs.
        const bool shifted = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
        if (shifted ? (c % 2 == 1) : (c % 2 == 0)) return c + 1;
        return c;
    }
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;
    if (c >= 0x410 && c <= 0x42F) return c + 32;
    if (c >= 0x400 && c <= 0x40F) return c + 80;
    return c;
}

char32_t simpleUpper(char32_t c) {
    if (c >= 'a' && c <= 'z') return c - 32;
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
    if (c >= 0x100 && c <= 0x17F && simpleLower(c) == c && c != 0x131 && c != 0x138 && c != 0x149 &&
        c != 0x17F) {
        const char32_t upper = c - 1;
        return simpleLower(upper) == c ? upper : c;
    }
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return c - 32;
    if (c >= 0x430 && c <= 0x44F) return c - 32;
    if (c >= 0x450 && c <= 0x45F) return c - 80;
    return c;
}

template <class Mapping>
std::string mapScalars(std::string_view s, Mapping map) {
    std::string out;
    out.reserve(s.size());
    forEachScalar(s, [&](char32_t c, std::size_t at, std::size_t length) {
        if (c == kInvalid) out.append(s.substr(at, length));
        else appendUTF8(out, map(c));
    });
    return out;
}

std::vector<char32_t> lowerScalars(std::string_view s) {
    std::vector<char32_t> out;
    forEachScalar(s, [&](char32_t c, std::size_t, std::size_t) { out.push_back(c == kInvalid ? c : simpleLower(c)); });
    return out;
}

}  // namespace

std::string trimBlanks(std::string_view text) { return trim(text, isBlank); }

std::string trimWhitespaceAndNewlines(std::string_view text) {
    return trim(text, isWhitespaceOrNewline);
}

std::string repairUTF8(std::string_view text) {
    // Most text is ASCII; it needs no decoding.
    std::size_t firstHigh = 0;
    while (firstHigh < text.size() && static_cast<unsigned char>(text[firstHigh]) < 0x80) ++firstHigh;
    if (firstHigh == text.size()) return std::string(text);
    std::string out;
    out.reserve(text.size());
    forEachScalar(text, [&](char32_t c, std::size_t at, std::size_t length) {
        if (c == kInvalid) appendUTF8(out, 0xFFFD);
        else out.append(text.substr(at, length));
    });
    return out;
}

std::string asciiLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return out;
}

std::string lowercased(std::string_view text) { return mapScalars(text, simpleLower); }

std::string uppercased(std::string_view text) { return mapScalars(text, simpleUpper); }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return lowerScalars(a) == lowerScalars(b);
}

std::size_t firstLineBreak(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) return i;
    }
    return std::string_view::npos;
}

}  // namespace mirel
