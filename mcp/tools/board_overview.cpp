#include "core/format/format.h"
#include "core/platform/text.h"
#include "mcp/tools/tool.h"

#include <algorithm>
#include <map>

namespace mirel {

namespace {

CaptureQuery boardQuery(std::optional<std::vector<CaptureStatus>> statuses, std::optional<std::string> groupID,
                        std::int64_t limit) {
    CaptureQuery query;
    query.statuses = std::move(statuses);
    query.groupID = std::move(groupID);
    query.limit = limit;
    query.offset = 0;
    query.newestFirst = true;
    return query;
}

std::vector<std::string> idPrefixes(const std::vector<Capture>& captures, std::size_t count) {
    std::vector<std::string> prefixes;
    for (std::size_t i = 0; i < std::min(count, captures.size()); ++i)
        prefixes.push_back(Format::idPrefix(captures[i].id));
    return prefixes;
}

// Arguments are not read.
ToolResult listGroups(const ToolContext& context, const Json&) {
    CaptureStore& store = context.store;
    const auto groups = store.groups();
    const auto allOpen = store.captures(boardQuery(CaptureStatuses::active, std::nullopt, 1000));
    std::vector<Capture> ungrouped;
    std::copy_if(allOpen.begin(), allOpen.end(), std::back_inserter(ungrouped),
                 [](const Capture& capture) { return !capture.groupID; });
    if (groups.empty() && ungrouped.empty())
        return ToolResult::text("No groups yet, and nothing open. The board is clear.");

    std::vector<std::string> lines;
    for (const auto& group : groups) {
        const auto open = store.captures(boardQuery(CaptureStatuses::active, group.id, 1000));
        const auto total = store.captures(boardQuery(std::nullopt, group.id, 1000)).size();
        std::string heading = group.name + " \u2014 " + std::to_string(open.size()) + " open of " + std::to_string(total);
        if (group.path && !group.path->empty()) heading += " \u00B7 bound to " + *group.path;
        lines.push_back(heading);
        if (open.empty()) continue;
        lines.push_back("    ids: " + join(idPrefixes(open, open.size()), ", "));
        for (std::size_t i = 0; i < std::min<std::size_t>(6, open.size()); ++i)
            lines.push_back("      [" + Format::idPrefix(open[i].id) + "] " + open[i].title());
        if (open.size() > 6) lines.push_back("      \u2026and " + std::to_string(open.size() - 6) + " more");
    }
    if (!ungrouped.empty()) {
        lines.push_back("(no group) \u2014 " + std::to_string(ungrouped.size()) + " open");
        lines.push_back("    ids: " + join(idPrefixes(ungrouped, 12), ", "));
    }
    lines.push_back("");
    lines.push_back(
        "Pass those ids to get_capture to see the screenshots, or call list_captures with group: \"<name>\" for "
        "everything in one group.");
    return ToolResult::text(join(lines, "\n"));
}

// Arguments are not read.
ToolResult captureStats(const ToolContext& context, const Json&) {
    CaptureStore& store = context.store;
    const auto counts = store.countsByStatus();
    const auto count = [&](CaptureStatus status) {
        const auto it = counts.find(status);
        return std::to_string(it == counts.end() ? 0 : it->second);
    };
    std::vector<std::string> lines = {"Open: " + count(CaptureStatus::open) + "   In progress: " +
                                      count(CaptureStatus::inProgress) + "   Resolved: " +
                                      count(CaptureStatus::resolved) + "   Archived: " + count(CaptureStatus::archived)};
    const auto open = store.captures(boardQuery(CaptureStatuses::active, std::nullopt, 500));
    if (open.empty()) return ToolResult::text(lines.front());

    std::map<std::string, std::int64_t> byApp;  // std::string orders by bytes: UTF-8 keeps scalar order
    for (const auto& capture : open) ++byApp[capture.appName.value_or("unknown")];
    std::vector<std::pair<std::string, std::int64_t>> ranked(byApp.begin(), byApp.end());
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::vector<std::string> items;
    for (std::size_t i = 0; i < std::min<std::size_t>(5, ranked.size()); ++i)
        items.push_back(ranked[i].first + " (" + std::to_string(ranked[i].second) + ")");

    const Capture* oldest = &open.front();
    for (const auto& capture : open)
        if (capture.createdAt < oldest->createdAt) oldest = &capture;
    const auto high = std::count_if(open.begin(), open.end(),
                                    [](const Capture& capture) { return capture.priority == CapturePriority::high; });

    lines.push_back("");
    lines.push_back("Open work by app: " + join(items, ", "));
    lines.push_back("Oldest still open: [" + Format::idPrefix(oldest->id) + "] " +
                    Format::quoted(oldest->title()) + " \u2014 " + Format::relative(oldest->createdAt));
    if (high > 0) lines.push_back("High priority open: " + std::to_string(high));
    return ToolResult::text(join(lines, "\n"));
}

}  // namespace

std::vector<Tool> boardOverviewTools() {
    return {
        Tool::make("list_groups",
                   "List the groups captures are filed under. A group is a topic — \"design panel\", \"arabic "
                   "mode\", \"checkout flow\" — and it is the fastest way to pick up a themed batch of related bugs "
                   "instead of working them one at a time. Returns each group's open and total counts plus the ids "
                   "of what is open in it, so those can go straight into get_capture.",
                   {}, {}, listGroups),
        Tool::make("capture_stats",
                   "Board summary: how many captures are open, in progress, resolved and archived, and where the "
                   "open ones are concentrated.",
                   {}, {}, captureStats),
    };
}

}  // namespace mirel
