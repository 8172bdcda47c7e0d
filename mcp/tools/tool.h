#pragma once
// One tool: its catalogue entry and its handler, side by side. Each tools file
// ends with the list of its tools; tool_registry.cpp joins the lists into the
// catalogue, in catalogue order. tests/mcp/snapshots/tools_list.json guards
// every byte of the catalogue.
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "mcp/tools/tool_result.h"

#include <initializer_list>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace mirel {

// The outcome of finding the capture of a tool call.
using Resolution = std::variant<Capture, ToolResult>;

// What a handler works with. Handlers keep no state of their own.
struct ToolContext {
    CaptureStore& store;
    const std::string& defaultAgent;

    // The capture named by the `id` argument (a full id or a unique prefix),
    // or the failed result that says why there is none.
    Resolution findCapture(const Json& arguments) const;
    // The `agent` argument with blanks trimmed, or the default agent name.
    std::string actor(const Json& arguments) const;
};

struct Tool {
    using Handler = ToolResult (*)(const ToolContext& context, const Json& arguments);
    using Property = std::pair<const char*, Json>;

    Json definition;  // name, description, inputSchema
    Handler run;

    // An entry whose schema is an object of `properties`, with `required`
    // where given, and no further properties.
    static Tool make(const char* name, const char* description, std::initializer_list<Property> properties,
                     std::initializer_list<const char*> required, Handler run);
};

// Pieces of the catalogue's schemas. They are advice to the agent: no handler
// validates against them (see tool_arguments.h).
namespace ToolSchema {

Json property(const char* type, const char* description = nullptr, Json further = Json::object());
// {"items": {"type": "string"}}
Json stringItems();
// {"enum": [...]} with the stored words of the priorities or the statuses.
Json priorityEnum();
Json statusEnum();
inline constexpr const char* captureID = "Capture id or unique prefix.";

}  // namespace ToolSchema

// The tools of each file, in catalogue order.
std::vector<Tool> listCapturesTools();   // list_captures.cpp
std::vector<Tool> getCaptureTools();     // get_capture.cpp
std::vector<Tool> workTools();           // work_tools.cpp
std::vector<Tool> updateCaptureTools();  // update_capture.cpp
std::vector<Tool> boardOverviewTools();  // board_overview.cpp

}  // namespace mirel
