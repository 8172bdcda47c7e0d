#pragma once
// The catalogue of the nine tools and the routing of a call to its handler.
// A tool is added in the file of its family (see tool.h); the catalogue and
// the routing follow from it.
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "mcp/tools/tool_result.h"

#include <string>

namespace mirel {

class ToolRegistry {
public:
    ToolRegistry(CaptureStore& store, std::string defaultAgent)
        : store_(store), defaultAgent_(std::move(defaultAgent)) {}

    // The catalogue: the tool definitions in a fixed order, built once.
    static const Json& definitions();

    // Runs a tool. Never throws: store failures come back as a failed result
    // and a log line.
    ToolResult call(const std::string& name, const Json& arguments);

    const std::string& defaultAgent() const { return defaultAgent_; }

private:
    CaptureStore& store_;
    const std::string defaultAgent_;
};

}  // namespace mirel
