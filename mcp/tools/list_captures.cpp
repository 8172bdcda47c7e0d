#include "mcp/tools/tool_registry.h"

namespace mirel {

ToolResult ToolRegistry::listCaptures(const Json&) { return ToolResult::failure("Unknown tool: list_captures"); }

}  // namespace mirel
