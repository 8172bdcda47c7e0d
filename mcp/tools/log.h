#pragma once
#include <string_view>

namespace mirel {

// Writes "[mirel-mcp] {message}\n" to standard error in one write.
void logLine(std::string_view message);

}  // namespace mirel
