#include "mcp/server/stdout_transport.h"

#include "core/platform/file_descriptor.h"
#include "mcp/server/log.h"

#include <unistd.h>

#include <exception>
#include <string>

namespace mirel {

void StdoutTransport::send(const Json& message) {
    // Serialise outside the lock; only the write is guarded.
    std::string line;
    try {
        line = writeJSON(message);
        line += '\n';
    } catch (const std::exception&) {
        logLine("failed to serialize outgoing message");
        return;
    }

    std::lock_guard<std::mutex> guard(lock_);
    // One write for the whole line. A client that went away is noticed by the
    // next read.
    writeAll(STDOUT_FILENO, line);
}

}  // namespace mirel
