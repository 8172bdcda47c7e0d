#include "core/platform/text.h"
#include "mcp/tools/format.h"
#include "mcp/tools/tool_arguments.h"
#include "mcp/tools/tool_registry.h"

#include <map>

namespace mirel {

namespace {

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

}  // namespace

ToolResult ToolRegistry::listCaptures(const Json& arguments) {
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

    const auto captures = store_.captures(query);
    if (captures.empty()) {
        std::vector<std::string> names;
        for (const auto status : *query.statuses) names.emplace_back(displayName(status));
        return ToolResult::text("No captures match (status: " + join(names, " / ") + "). The board is clear.");
    }

    std::map<std::string, std::string> groupNames;
    for (const auto& group : store_.groups()) groupNames.emplace(group.id, group.name);
    // Counts and tags for the listed captures only, each in one statement, so
    // a page of the list costs the same on a board of any size.
    std::vector<std::string> ids;
    for (const auto& capture : captures) ids.push_back(capture.id);
    const auto commentCounts = store_.commentCounts(ids);
    const auto imageCounts = store_.imageCounts(ids);
    const auto tags = store_.tagsByCapture(ids);
    const auto countOf = [](const std::map<std::string, std::int64_t>& counts, const std::string& id) {
        const auto it = counts.find(id);
        return it == counts.end() ? std::int64_t{0} : it->second;
    };
    const auto tagsOf = [&tags](const std::string& id) {
        const auto it = tags.find(id);
        return it == tags.end() ? std::vector<std::string>{} : it->second;
    };

    std::vector<std::string> lines;
    lines.push_back(std::to_string(captures.size()) + (captures.size() == 1 ? " capture:" : " captures:"));
    lines.push_back("");
    for (const auto& capture : captures) {
        std::optional<std::string> groupName;
        if (capture.groupID) {
            const auto it = groupNames.find(*capture.groupID);
            if (it != groupNames.end()) groupName = it->second;
        }
        lines.push_back(Format::listLine(capture, groupName, tagsOf(capture.id),
                                         countOf(commentCounts, capture.id), countOf(imageCounts, capture.id)));
    }
    lines.push_back("");
    lines.push_back("Call get_capture with an id to see the screenshot.");
    return ToolResult::text(join(lines, "\n"));
}

}  // namespace mirel
