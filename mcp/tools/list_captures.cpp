#include "core/format/format.h"
#include "core/format/pages.h"
#include "core/platform/text.h"
#include "mcp/tools/tool.h"
#include "mcp/tools/tool_arguments.h"

namespace mirel {

namespace {

using ToolSchema::property;

// A status filter is never refused: unknown words drop out, and an empty
// result means the active statuses.
std::vector<CaptureStatus> readStatuses(const Json& arguments) {
    if (!arguments.is_object() || !arguments.contains("status")) return CaptureStatuses::active;
    std::vector<std::string> words;
    if (auto list = ToolArguments::textList(arguments, "status")) words = std::move(*list);
    else if (auto single = ToolArguments::text(arguments, "status")) words.push_back(std::move(*single));
    std::vector<CaptureStatus> statuses;
    for (const auto& word : words)
        if (const auto status = captureStatusFrom(word)) statuses.push_back(*status);
    return statuses.empty() ? CaptureStatuses::active : statuses;
}

ToolResult listCaptures(const ToolContext& context, const Json& arguments) {
    CaptureQuery query;
    query.statuses = readStatuses(arguments);
    query.groupName = ToolArguments::nonEmptyText(arguments, "group");
    query.tag = ToolArguments::nonEmptyText(arguments, "tag");
    query.search = ToolArguments::nonEmptyText(arguments, "search");
    if (const auto priority = ToolArguments::text(arguments, "priority"))
        query.priority = capturePriorityFrom(*priority);
    query.limit = ToolArguments::clampedWholeNumber(arguments, "limit", 25, 1, 200);
    query.offset = 0;
    query.newestFirst = true;

    const auto captures = context.store.captures(query);
    if (captures.empty()) return ToolResult::text(Format::noCapturesMatch(*query.statuses) + " The board is clear.");

    std::vector<std::string> lines;
    lines.push_back(std::to_string(captures.size()) + (captures.size() == 1 ? " capture:" : " captures:"));
    lines.push_back("");
    for (auto& entry : Pages::listEntries(context.store, captures)) lines.push_back(std::move(entry));
    lines.push_back("");
    lines.push_back("Call get_capture with an id to see the screenshot.");
    return ToolResult::text(join(lines, "\n"));
}

}  // namespace

std::vector<Tool> listCapturesTools() {
    return {Tool::make(
        "list_captures",
        "List captures from the Mirel board. Each capture is a UI issue the user filed — usually a screenshot "
        "plus a note, sometimes just a note (marked \"no screenshot\"). Returns a compact one-line-per-item "
        "summary with the note, the app/window/URL where it was seen, tags, and status — but not the image. "
        "Call get_capture to actually look at a screenshot. Defaults to everything still open or in progress, "
        "newest first.",
        {
            {"status", property("array", "Statuses to include. Omit for open + in_progress.",
                                Json{{"items", property("string", nullptr, ToolSchema::statusEnum())}})},
            {"group", property("string", "Only captures in this group (by name).")},
            {"tag", property("string", "Only captures carrying this tag.")},
            {"search", property("string", "Substring match against note, app name, window title and URL.")},
            {"priority", property("string", nullptr, ToolSchema::priorityEnum())},
            {"limit", property("integer", "Max results (default 25, max 200).",
                               Json{{"minimum", 1}, {"maximum", 200}})},
        },
        {}, listCaptures)};
}

}  // namespace mirel
