#include "mcp/tools/tool_registry.h"

namespace mirel {

ToolResult ToolRegistry::claimCapture(const Json&) { return ToolResult::failure("Unknown tool: claim_capture"); }

ToolResult ToolRegistry::commentOnCapture(const Json&) { return ToolResult::failure("Unknown tool: comment_on_capture"); }

ToolResult ToolRegistry::resolveCapture(const Json&) { return ToolResult::failure("Unknown tool: resolve_capture"); }

ToolResult ToolRegistry::reopenCapture(const Json&) { return ToolResult::failure("Unknown tool: reopen_capture"); }

}  // namespace mirel
