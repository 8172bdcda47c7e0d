#include "mcp/tools/tool_registry.h"

namespace mirel {

ToolResult ToolRegistry::updateCapture(const Json&) { return ToolResult::failure("Unknown tool: update_capture"); }

}  // namespace mirel
