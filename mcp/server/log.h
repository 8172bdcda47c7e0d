#pragma once
// The server's log on standard error (standard output carries protocol lines
// only). The one header of mcp/server that the tools include.
#include <string_view>

namespace mirel {

// Writes "[mirel-mcp] {message}\n" to standard error in one write.
void logLine(std::string_view message);

}  // namespace mirel
