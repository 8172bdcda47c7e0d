#include "core/format/pages.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "mcp/tools/image_encoder.h"
#include "mcp/tools/tool.h"
#include "mcp/tools/tool_arguments.h"

namespace mirel {

namespace {

using ToolSchema::property;

constexpr std::size_t maxIDs = 6;
constexpr int imageBudget = 8;

// `ids` wins whenever it is a list of texts, even an empty one.
std::vector<std::string> readIDs(const Json& arguments) {
    std::vector<std::string> given;
    if (auto list = ToolArguments::textList(arguments, "ids")) given = std::move(*list);
    else if (auto single = ToolArguments::text(arguments, "id")) given.push_back(std::move(*single));
    std::vector<std::string> ids;
    for (const auto& id : given) {
        std::string trimmed = trimBlanks(id);
        if (!trimmed.empty()) ids.push_back(std::move(trimmed));
    }
    return ids;
}

ToolResult getCapture(const ToolContext& context, const Json& arguments) {
    const auto ids = readIDs(arguments);
    if (ids.empty()) return ToolResult::failure("Pass `id` (one capture) or `ids` (up to 6).");
    if (ids.size() > maxIDs)
        return ToolResult::failure("get_capture takes at most 6 ids at a time; you passed " +
                                   std::to_string(ids.size()) + ".");
    const bool includeImage = ToolArguments::boolean(arguments, "include_image").value_or(true);
    const int maxEdge = static_cast<int>(ToolArguments::clampedWholeNumber(arguments, "max_image_edge", 1400, 200, 4000));

    ToolResult result;
    std::vector<std::string> missing;
    int attached = 0;

    for (const auto& id : ids) {
        const auto fullID = context.store.resolveCaptureID(id);
        const auto capture = fullID ? context.store.capture(*fullID) : std::nullopt;
        if (!capture) {
            missing.push_back(id);
            continue;
        }
        const auto page = Pages::detail(context.store, *capture);
        result.content.push_back(ToolResult::textBlock(page.text));
        if (!includeImage) continue;

        const auto& images = page.images;
        if (!images.empty()) {
            const std::size_t n = images.size();
            for (std::size_t i = 0; i < n; ++i) {
                if (attached >= imageBudget) {
                    std::string more = "(";
                    more += std::to_string(n - i);
                    more += " more screenshot(s) on this capture not attached \u2014 ask for this capture on its own "
                            "to see them.)";
                    result.content.push_back(ToolResult::textBlock(more));
                    break;
                }
                const auto& image = images[i];
                if (n >= 2) {
                    std::string heading = "Screenshot " + std::to_string(i + 1) + " of " + std::to_string(n);
                    if (image.hasAnnotations()) heading += " \u2014 marked up by the user";
                    result.content.push_back(ToolResult::textBlock(heading));
                }
                const auto url = image.displayURL();
                if (const auto png = ImageEncoder::encode(url, maxEdge)) {
                    result.content.push_back(ToolResult::imageBlock(*png));
                    ++attached;
                } else {
                    // A failed file costs nothing from the budget.
                    result.content.push_back(ToolResult::textBlock(
                        "\u26A0\uFE0E A screenshot file is missing at " + url.string() + "."));
                }
            }
        } else if (!capture->imagePath.empty()) {
            // A record without image rows has just its cover; the budget does
            // not apply to it, and a missing file stays silent here.
            if (const auto png = ImageEncoder::encode(MirelPaths::imageURL(capture->imagePath), maxEdge)) {
                result.content.push_back(ToolResult::imageBlock(*png));
                ++attached;
            }
        }
    }

    if (!missing.empty())
        result.content.push_back(ToolResult::textBlock("Could not resolve: " + join(missing, ", ") +
                                                       ". Call list_captures for current ids."));
    return result;
}

}  // namespace

std::vector<Tool> getCaptureTools() {
    return {Tool::make(
        "get_capture",
        "Look at one or more captures in full: returns every screenshot on the capture plus the note, the "
        "app/window/URL it was taken in, tags, comments and history. This is the tool that lets you actually "
        "see the UI bug. A capture may hold several screenshots, and any of them may carry marks the user drew "
        "on top — arrows, boxes or blurred-out regions — which are burned into what you receive, so treat them "
        "as the user pointing at something. An issue filed without a screenshot comes back as text only; go by "
        "the note and the app it was filed from. Accepts a full id or a short id prefix as shown by "
        "list_captures.",
        {
            {"id", property("string", "Capture id, or a unique prefix of one.")},
            {"ids", property("array", "Several capture ids at once (max 6). Use instead of `id`.",
                             ToolSchema::stringItems())},
            {"include_image", property("boolean", "Attach the screenshot. Default true.")},
            {"max_image_edge",
             property("integer",
                      "Downscale so the longest edge is at most this many pixels. Default 1400. Raise for fine "
                      "detail, lower to save tokens.",
                      Json{{"minimum", 200}, {"maximum", 4000}})},
        },
        {}, getCapture)};
}

}  // namespace mirel
