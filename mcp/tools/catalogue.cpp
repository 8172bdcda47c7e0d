// The catalogue of tools offered to an agent. Its schemas are advice: no
// handler validates against them. tests/mcp/snapshots/tools_list.json guards
// every byte of it.
#include "mcp/tools/tool_registry.h"

#include <initializer_list>
#include <string>
#include <utility>

namespace mirel {

namespace {

using Property = std::pair<const char*, Json>;

Json property(const char* type, const char* description = nullptr, Json further = Json::object()) {
    Json out = std::move(further);
    out["type"] = type;
    if (description) out["description"] = description;
    return out;
}

Json stringArray() { return Json{{"type", "string"}}; }

Json tool(const char* name, const char* description, std::initializer_list<Property> properties,
          std::initializer_list<const char*> required = {}) {
    Json props = Json::object();
    for (const auto& [key, value] : properties) props[key] = value;
    Json schema{{"type", "object"}, {"properties", props}, {"additionalProperties", false}};
    if (required.size() > 0) {
        Json names = Json::array();
        for (const char* key : required) names.push_back(key);
        schema["required"] = names;
    }
    return Json{{"name", name}, {"description", description}, {"inputSchema", schema}};
}

const Json kPriorities = Json::array({"low", "normal", "high"});
const Json kStatuses = Json::array({"open", "in_progress", "resolved", "archived"});

Json buildDefinitions() {
    const char* const captureID = "Capture id or unique prefix.";
    Json tools = Json::array();

    tools.push_back(tool(
        "list_captures",
        "List captures from the Mirel board. Each capture is a UI issue the user filed — usually a screenshot "
        "plus a note, sometimes just a note (marked \"no screenshot\"). Returns a compact one-line-per-item "
        "summary with the note, the app/window/URL where it was seen, tags, and status — but not the image. "
        "Call get_capture to actually look at a screenshot. Defaults to everything still open or in progress, "
        "newest first.",
        {
            {"status", property("array", "Statuses to include. Omit for open + in_progress.",
                                Json{{"items", Json{{"type", "string"}, {"enum", kStatuses}}}})},
            {"group", property("string", "Only captures in this group (by name).")},
            {"tag", property("string", "Only captures carrying this tag.")},
            {"search", property("string", "Substring match against note, app name, window title and URL.")},
            {"priority", property("string", nullptr, Json{{"enum", kPriorities}})},
            {"limit", property("integer", "Max results (default 25, max 200).",
                               Json{{"minimum", 1}, {"maximum", 200}})},
        }));

    tools.push_back(tool(
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
                             Json{{"items", stringArray()}})},
            {"include_image", property("boolean", "Attach the screenshot. Default true.")},
            {"max_image_edge",
             property("integer",
                      "Downscale so the longest edge is at most this many pixels. Default 1400. Raise for fine "
                      "detail, lower to save tokens.",
                      Json{{"minimum", 200}, {"maximum", 4000}})},
        }));

    tools.push_back(tool(
        "claim_capture",
        "Take ownership of a capture before you start working on it, so the user can see in the dashboard that "
        "an agent picked it up. Moves an open capture to in_progress.",
        {
            {"id", property("string", captureID)},
            {"agent", property("string", "Name to claim as. Defaults to this server's configured agent name.")},
        },
        {"id"}));

    tools.push_back(tool(
        "comment_on_capture",
        "Add a note to a capture — your diagnosis, the root cause, what you changed, or a question for the "
        "user. Comments show up in the dashboard attributed to you.",
        {
            {"id", property("string", captureID)},
            {"body", property("string", "The comment text.")},
            {"agent", property("string", "Author name. Defaults to this server's configured agent name.")},
        },
        {"id", "body"}));

    tools.push_back(tool(
        "resolve_capture",
        "Mark a capture fixed. Optionally record what fixed it — a commit sha, a PR link, or a short "
        "explanation — which is shown on the card in the dashboard.",
        {
            {"id", property("string", captureID)},
            {"reference", property("string", "Commit sha, PR URL, or short description of the fix.")},
            {"comment", property("string", "Optional comment posted alongside the resolution.")},
            {"agent", property("string", "Who resolved it. Defaults to this server's configured agent name.")},
        },
        {"id"}));

    tools.push_back(tool(
        "reopen_capture",
        "Move a resolved or archived capture back to open, e.g. when a fix did not hold.",
        {
            {"id", property("string", captureID)},
            {"comment", property("string", "Optional reason, posted as a comment.")},
            {"agent", property("string")},
        },
        {"id"}));

    tools.push_back(tool(
        "update_capture",
        "Edit a capture's fields: rewrite the note, change priority or status, move it to a group, or set its "
        "tags. Only the fields you pass are changed.",
        {
            {"id", property("string", captureID)},
            {"note", property("string")},
            {"priority", property("string", nullptr, Json{{"enum", kPriorities}})},
            {"status", property("string", nullptr, Json{{"enum", kStatuses}})},
            {"group", property("string", "Group name. Created if it does not exist.")},
            {"tags", property("array", "Replaces the existing tag set.", Json{{"items", stringArray()}})},
            {"agent", property("string")},
        },
        {"id"}));

    tools.push_back(tool(
        "list_groups",
        "List the groups captures are filed under. A group is a topic — \"design panel\", \"arabic mode\", "
        "\"checkout flow\" — and it is the fastest way to pick up a themed batch of related bugs instead of "
        "working them one at a time. Returns each group's open and total counts plus the ids of what is open in "
        "it, so those can go straight into get_capture.",
        {}));

    tools.push_back(tool(
        "capture_stats",
        "Board summary: how many captures are open, in progress, resolved and archived, and where the open "
        "ones are concentrated.",
        {}));

    return tools;
}

}  // namespace

const Json& ToolRegistry::definitions() {
    static const Json definitions = buildDefinitions();
    return definitions;
}

}  // namespace mirel
