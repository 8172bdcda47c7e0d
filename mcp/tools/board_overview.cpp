#include "mcp/tools/tool_registry.h"

namespace mirel {

ToolResult ToolRegistry::listGroups() { return ToolResult::failure("Unknown tool: list_groups"); }

ToolResult ToolRegistry::captureStats() { return ToolResult::failure("Unknown tool: capture_stats"); }

}  // namespace mirel
