#include "core/platform/json.h"

namespace mirel {

std::string writeJSON(const Json& value) {
    std::string compact = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    // A "/" can only occur inside strings, so escaping every one is safe.
    std::string out;
    out.reserve(compact.size() + compact.size() / 32);
    for (char c : compact) {
        if (c == '/') out += '\\';
        out += c;
    }
    return out;
}

namespace {

// Nesting depth of a JSON text, counted outside strings.
bool nestingWithin(std::string_view text, int maxDepth) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        switch (c) {
            case '"': inString = true; break;
            case '[':
            case '{':
                if (++depth > maxDepth) return false;
                break;
            case ']':
            case '}': --depth; break;
            default: break;
        }
    }
    return true;
}

}  // namespace

std::optional<Json> parseJSON(std::string_view text, int maxDepth) {
    if (!nestingWithin(text, maxDepth)) return std::nullopt;
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

}  // namespace mirel
