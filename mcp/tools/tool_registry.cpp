#include "mcp/tools/tool_registry.h"

#include "core/store/database_error.h"
#include "mcp/tools/log.h"

#include <exception>

namespace mirel {

ToolResult ToolRegistry::call(const std::string& name, const Json& arguments) {
    try {
        if (name == "list_captures") return listCaptures(arguments);
        if (name == "get_capture") return getCapture(arguments);
        if (name == "claim_capture") return claimCapture(arguments);
        if (name == "comment_on_capture") return commentOnCapture(arguments);
        if (name == "resolve_capture") return resolveCapture(arguments);
        if (name == "reopen_capture") return reopenCapture(arguments);
        if (name == "update_capture") return updateCapture(arguments);
        if (name == "list_groups") return listGroups();
        if (name == "capture_stats") return captureStats();
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
