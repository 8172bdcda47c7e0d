#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "mcp/tools/format.h"
#include "mcp/tools/tool_arguments.h"
#include "mcp/tools/tool_registry.h"

namespace mirel {

namespace {

const std::string arrow = " \u2192 ";

CaptureGroup newGroup(const std::string& name) {
    const Date now = Clock::now();
    CaptureGroup group;
    group.id = newID();
    group.name = name;
    group.colorHex = "#6E7BF2";
    group.createdAt = now;
    group.updatedAt = now;
    group.syncState = SyncState::local;
    group.dirty = false;
    group.visibility = GroupVisibility::private_;
    group.version = 0;
    return group;
}

}  // namespace

ToolResult ToolRegistry::updateCapture(const Json& arguments) {
    auto found = resolve(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    Capture updated = std::get<Capture>(found);
    const std::string who = actor(arguments);
    std::vector<std::string> changes;
    std::optional<CaptureStatus> newStatus;

    if (const auto note = ToolArguments::text(arguments, "note"); note && *note != updated.note) {
        updated.note = *note;
        changes.push_back("note");
    }
    if (const auto word = ToolArguments::text(arguments, "priority")) {
        if (const auto priority = capturePriorityFrom(*word); priority && *priority != updated.priority) {
            updated.priority = *priority;
            changes.push_back("priority" + arrow + std::string(displayName(*priority)));
        }
    }
    if (const auto name = ToolArguments::nonEmptyText(arguments, "group")) {
        auto group = store_.groupNamed(*name, std::nullopt);
        // Created here, and kept whatever happens later in this call.
        if (!group) group = store_.upsertGroup(newGroup(*name));
        if (updated.groupID != group->id) {
            updated.groupID = group->id;
            changes.push_back("group" + arrow + group->name);
        }
    }
    if (const auto word = ToolArguments::text(arguments, "status")) {
        if (const auto status = captureStatusFrom(*word); status && *status != updated.status) newStatus = status;
    }

    store_.update(updated);
    if (newStatus) {
        // setStatus carries the status's side effects and its own history line.
        store_.setStatus(updated.id, *newStatus, who);
        changes.push_back("status" + arrow + std::string(displayName(*newStatus)));
    }
    // A tags argument always counts as a change, even when it matches.
    if (const auto tags = ToolArguments::textList(arguments, "tags")) {
        store_.setTags(*tags, updated.id);
        changes.push_back("tags" + arrow + (tags->empty() ? std::string("(none)") : join(*tags, ", ")));
    }

    if (changes.empty())
        return ToolResult::text("Nothing to change on [" + Format::idPrefix(updated.id) +
                                "] \u2014 the values already match.");
    const std::string list = join(changes, ", ");
    store_.recordActivity(updated.id, "updated", list, who, newID(), Clock::now(), std::nullopt, false);
    return ToolResult::text("Updated [" + Format::idPrefix(updated.id) + "]: " + list + ".");
}

}  // namespace mirel
