#include "mcp/tools/log.h"

#include <unistd.h>

#include <string>

namespace mirel {

void logLine(std::string_view message) {
    std::string line = "[mirel-mcp] ";
    line.append(message);
    line += '\n';
    std::size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (n <= 0) return;
        written += static_cast<std::size_t>(n);
    }
}

}  // namespace mirel
