#include "mcp/tools/tool.h"

#include "core/format/format.h"
#include "core/platform/text.h"
#include "mcp/tools/tool_arguments.h"

namespace mirel {

Resolution ToolContext::findCapture(const Json& arguments) const {
    const std::string id = trimBlanks(ToolArguments::text(arguments, "id").value_or(""));
    if (id.empty()) return ToolResult::failure("Missing required parameter `id`.");
    const auto fullID = store.resolveCaptureID(id);
    if (!fullID)
        return ToolResult::failure("No capture matches id " + Format::quoted(id) +
                                   ". It may have been deleted, or the prefix may match more than one capture "
                                   "\u2014 call list_captures to see current ids.");
    auto capture = store.capture(*fullID);
    if (!capture) return ToolResult::failure("Capture " + id + " no longer exists.");
    return std::move(*capture);
}

std::string ToolContext::actor(const Json& arguments) const {
    std::string agent = trimBlanks(ToolArguments::text(arguments, "agent").value_or(""));
    return agent.empty() ? defaultAgent : agent;
}

Tool Tool::make(const char* name, const char* description, std::initializer_list<Property> properties,
                std::initializer_list<const char*> required, Handler run) {
    Json props = Json::object();
    for (const auto& [key, value] : properties) props[key] = value;
    Json schema{{"type", "object"}, {"properties", props}, {"additionalProperties", false}};
    if (required.size() > 0) {
        Json names = Json::array();
        for (const char* key : required) names.push_back(key);
        schema["required"] = names;
    }
    return {Json{{"name", name}, {"description", description}, {"inputSchema", schema}}, run};
}

namespace ToolSchema {

Json property(const char* type, const char* description, Json further) {
    Json out = std::move(further);
    out["type"] = type;
    if (description) out["description"] = description;
    return out;
}

Json stringItems() { return Json{{"items", Json{{"type", "string"}}}}; }
Json priorityEnum() { return Json{{"enum", Json::array({"low", "normal", "high"})}}; }
Json statusEnum() { return Json{{"enum", Json::array({"open", "in_progress", "resolved", "archived"})}}; }

}  // namespace ToolSchema

}  // namespace mirel
