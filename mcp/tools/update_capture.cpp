#include "core/format/format.h"
#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "mcp/tools/tool.h"
#include "mcp/tools/tool_arguments.h"

namespace mirel {

namespace {

using ToolSchema::property;

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

ToolResult updateCapture(const ToolContext& context, const Json& arguments) {
    auto found = context.findCapture(arguments);
    if (auto* problem = std::get_if<ToolResult>(&found)) return std::move(*problem);
    Capture updated = std::get<Capture>(found);
    const std::string who = context.actor(arguments);
    CaptureStore& store = context.store;
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
        auto group = store.groupNamed(*name, std::nullopt);
        // Created here, and kept whatever happens later in this call.
        if (!group) group = store.upsertGroup(newGroup(*name));
        if (updated.groupID != group->id) {
            updated.groupID = group->id;
            changes.push_back("group" + arrow + group->name);
        }
    }
    if (const auto word = ToolArguments::text(arguments, "status")) {
        if (const auto status = captureStatusFrom(*word); status && *status != updated.status) newStatus = status;
    }

    store.update(updated);
    if (newStatus) {
        // setStatus carries the status's side effects and its own history line.
        store.setStatus(updated.id, *newStatus, who);
        changes.push_back("status" + arrow + std::string(displayName(*newStatus)));
    }
    // A tags argument always counts as a change, even when it matches.
    if (const auto tags = ToolArguments::textList(arguments, "tags")) {
        store.setTags(*tags, updated.id);
        changes.push_back("tags" + arrow + (tags->empty() ? std::string("(none)") : join(*tags, ", ")));
    }

    if (changes.empty())
        return ToolResult::text("Nothing to change on [" + Format::idPrefix(updated.id) +
                                "] \u2014 the values already match.");
    const std::string list = join(changes, ", ");
    store.recordActivity(updated.id, "updated", list, who, newID(), Clock::now(), std::nullopt, false);
    return ToolResult::text("Updated [" + Format::idPrefix(updated.id) + "]: " + list + ".");
}

}  // namespace

std::vector<Tool> updateCaptureTools() {
    return {Tool::make(
        "update_capture",
        "Edit a capture's fields: rewrite the note, change priority or status, move it to a group, or set its "
        "tags. Only the fields you pass are changed.",
        {
            {"id", property("string", ToolSchema::captureID)},
            {"note", property("string")},
            {"priority", property("string", nullptr, ToolSchema::priorityEnum())},
            {"status", property("string", nullptr, ToolSchema::statusEnum())},
            {"group", property("string", "Group name. Created if it does not exist.")},
            {"tags", property("array", "Replaces the existing tag set.", ToolSchema::stringItems())},
            {"agent", property("string")},
        },
        {"id"}, updateCapture)};
}

}  // namespace mirel
