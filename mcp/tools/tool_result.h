#pragma once
#include "core/platform/json.h"

#include <string>
#include <vector>

namespace mirel {

// What every tool gives back: MCP content blocks in reply order, and whether
// the tool failed to do what was asked.
struct ToolResult {
    std::vector<Json> content;
    bool isError = false;

    static ToolResult text(const std::string& text) { return {{textBlock(text)}, false}; }
    static ToolResult failure(const std::string& text) { return {{textBlock(text)}, true}; }

    static Json textBlock(const std::string& text) { return Json{{"type", "text"}, {"text", text}}; }
    static Json imageBlock(const std::string& base64PNG) {
        return Json{{"type", "image"}, {"data", base64PNG}, {"mimeType", "image/png"}};
    }
};

}  // namespace mirel
