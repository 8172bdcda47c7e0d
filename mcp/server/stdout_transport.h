#pragma once
#include "core/platform/json.h"

#include <mutex>

namespace mirel {

// The only writer of standard output: one message, one line, one write.
class StdoutTransport {
public:
    // Never fails towards its caller; a message that cannot be serialised is
    // dropped with the log line "failed to serialize outgoing message".
    void send(const Json& message);

private:
    std::mutex lock_;
};

}  // namespace mirel
