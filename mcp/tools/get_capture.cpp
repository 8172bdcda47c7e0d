#include "mcp/tools/tool_registry.h"

namespace mirel {

ToolResult ToolRegistry::getCapture(const Json&) { return ToolResult::failure("Unknown tool: get_capture"); }

}  // namespace mirel
