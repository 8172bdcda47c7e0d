#pragma once
#include "core/store/capture_store.h"
#include "mcp/server/jsonrpc.h"
#include "mcp/server/stdout_transport.h"
#include "mcp/tools/tool_registry.h"

#include <istream>
#include <memory>
#include <string>

namespace mirel {

class MirelMCPServer {
public:
    // Opens the library at MirelPaths::databaseURL() and builds the tools;
    // throws what CaptureStore's constructor throws.
    MirelMCPServer();

    // Serves lines from `input` until it ends.
    void run(std::istream& input);
    void handle(const JSONRPC::Request& request);
    static Json initializeResult(const Json& params);

    static inline const char* const protocolVersions[] = {"2025-06-18", "2025-03-26", "2024-11-05"};

private:
    void handleToolCall(const JSONRPC::Request& request);
    // resources.cpp
    void handleResourcesList(const JSONRPC::Request& request);
    void handleResourceRead(const JSONRPC::Request& request);

    StdoutTransport transport_;
    std::unique_ptr<CaptureStore> store_;
    std::unique_ptr<ToolRegistry> tools_;
};

// "agent" unless MIREL_AGENT holds a name (blanks trimmed).
std::string defaultAgentName();

}  // namespace mirel
