#include "mcp/server/stdout_transport.h"

#include "mcp/tools/log.h"

#include <unistd.h>

#include <cerrno>
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
    // One write for the whole line; the loop only finishes a write that a
    // signal cut short. A client that went away is noticed by the next read.
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        left -= static_cast<std::size_t>(n);
    }
}

}  // namespace mirel
