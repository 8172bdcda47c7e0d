#include "mcp/tools/tool_registry.h"

#include "core/store/database_error.h"
#include "mcp/server/log.h"
#include "mcp/tools/tool.h"

#include <exception>

namespace mirel {

namespace {

// Every tool, in catalogue order.
const std::vector<Tool>& tools() {
    static const std::vector<Tool> all = [] {
        std::vector<Tool> joined;
        for (auto family : {listCapturesTools, getCaptureTools, workTools, updateCaptureTools, boardOverviewTools})
            for (auto& tool : family()) joined.push_back(std::move(tool));
        return joined;
    }();
    return all;
}

}  // namespace

const Json& ToolRegistry::definitions() {
    static const Json definitions = [] {
        Json list = Json::array();
        for (const auto& tool : tools()) list.push_back(tool.definition);
        return list;
    }();
    return definitions;
}

ToolResult ToolRegistry::call(const std::string& name, const Json& arguments) {
    const ToolContext context{store_, defaultAgent_};
    try {
        for (const auto& tool : tools())
            if (tool.definition.at("name") == name) return tool.run(context, arguments);
        return ToolResult::failure("Unknown tool: " + name);
    } catch (const DatabaseError& error) {
        logLine("tool " + name + " failed: " + error.plainRendering());
        return ToolResult::failure("Mirel failed to run " + name + ": " + error.what());
    } catch (const std::exception& error) {
        // The file system's errors and anything else a handler lets out: the
        // process serves on, and the agent learns what went wrong.
        logLine("tool " + name + " failed: " + error.what());
        return ToolResult::failure("Mirel failed to run " + name + ": " + error.what());
    }
}

}  // namespace mirel
