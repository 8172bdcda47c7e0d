#include "mcp/server/log.h"

#include "core/platform/file_descriptor.h"

#include <unistd.h>

#include <string>

namespace mirel {

void logLine(std::string_view message) {
    std::string line = "[mirel-mcp] ";
    line.append(message);
    line += '\n';
    writeAll(STDERR_FILENO, line);
}

}  // namespace mirel
