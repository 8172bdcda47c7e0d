#pragma once
// The catalogue of the nine tools and the routing of a call to its handler.
// Handlers live in one file per tool family.
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "mcp/tools/tool_result.h"

#include <string>
#include <variant>

namespace mirel {

// The outcome of finding the capture of a tool call.
using Resolution = std::variant<Capture, ToolResult>;

class ToolRegistry {
public:
    ToolRegistry(CaptureStore& store, std::string defaultAgent)
        : store_(store), defaultAgent_(std::move(defaultAgent)) {}

    // The catalogue: nine tool definitions in a fixed order, built once.
    static const Json& definitions();

    // Runs a tool. Never throws: store failures come back as a failed result
    // and a log line.
    ToolResult call(const std::string& name, const Json& arguments);

    const std::string& defaultAgent() const { return defaultAgent_; }

private:
    // list_captures.cpp
    ToolResult listCaptures(const Json& arguments);
    // get_capture.cpp
    ToolResult getCapture(const Json& arguments);
    // work_tools.cpp
    ToolResult claimCapture(const Json& arguments);
    ToolResult commentOnCapture(const Json& arguments);
    ToolResult resolveCapture(const Json& arguments);
    ToolResult reopenCapture(const Json& arguments);
    Resolution resolve(const Json& arguments);
    std::string actor(const Json& arguments) const;
    std::string claimAndDescribe(const std::string& id, const std::string& who);
    // update_capture.cpp
    ToolResult updateCapture(const Json& arguments);
    // board_overview.cpp
    ToolResult listGroups();
    ToolResult captureStats();

    CaptureStore& store_;
    const std::string defaultAgent_;
};

}  // namespace mirel
