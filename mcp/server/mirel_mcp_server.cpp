#include "mcp/server/mirel_mcp_server.h"

#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "mcp/server/log.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>

namespace mirel {

namespace {

const char* const kInstructions =
    "Mirel is the user's visual bug board. Most entries are a screenshot they took of something wrong in a "
    "UI, plus a note about what is wrong and the app, window and URL it was seen in. Some are text-only "
    "issues they typed without taking a screenshot; those still record the app they were filed from.\n\n"
    "Start with list_captures to see what is open, or list_groups when you want to take on a whole topic at "
    "once — captures are filed into groups like \"design panel\" or \"checkout flow\", and related bugs are "
    "usually best fixed together. Call get_capture to actually look at a screenshot before you reason about "
    "the bug: the image is the primary evidence and the note alone is usually not enough. A capture may hold "
    "several screenshots, and the user may have drawn on them — arrows, boxes, or blurred-out regions — so "
    "treat those marks as them pointing directly at the problem.\n\n"
    "When you work on one: claim_capture first so the user can see it is being handled, comment_on_capture "
    "with your diagnosis, then resolve_capture with the commit or PR that fixed it. Do not resolve anything "
    "you have not actually fixed.";

}  // namespace

std::string defaultAgentName() {
    const char* value = std::getenv("MIREL_AGENT");
    std::string name = value ? trimBlanks(value) : std::string();
    return name.empty() ? "agent" : name;
}

MirelMCPServer::MirelMCPServer()
    : store_(std::make_unique<CaptureStore>(MirelPaths::databaseURL())),
      tools_(std::make_unique<ToolRegistry>(*store_, defaultAgentName())) {}

void MirelMCPServer::run(std::istream& input) {
    logLine("ready — library at " + MirelPaths::databaseURL().string());
    std::string raw;
    // A CR before the line feed is whitespace both to the blank-line check and
    // to JSON, so lines ending in CR LF need no case of their own.
    while (std::getline(input, raw)) {
        const std::string line = repairUTF8(raw);
        if (trimWhitespaceAndNewlines(line).empty()) continue;
        if (auto request = JSONRPC::parse(line)) {
            // Handlers report their own failures; this only keeps a failure
            // that slipped through from ending the conversation.
            try {
                handle(*request);
            } catch (const std::exception& error) {
                logLine("failed to handle " + request->method + ": " + error.what());
                if (request->id)
                    transport_.send(JSONRPC::error(request->id, JSONRPC::ErrorCode::internalError,
                                                   "Mirel failed to handle " + request->method + "."));
            }
        } else {
            transport_.send(JSONRPC::error(std::nullopt, JSONRPC::ErrorCode::parseError,
                                           "Malformed JSON-RPC message."));
        }
    }
    logLine("stdin closed — exiting");
}

void MirelMCPServer::handle(const JSONRPC::Request& request) {
    const std::string& method = request.method;
    if (method == "initialize") {
        transport_.send(JSONRPC::result(request.id, initializeResult(request.params)));
    } else if (method == "notifications/initialized" || method == "notifications/cancelled") {
        // Notifications: nothing to answer, and no request is ever in flight to cancel.
    } else if (method == "ping") {
        transport_.send(JSONRPC::result(request.id, Json::object()));
    } else if (method == "tools/list") {
        transport_.send(JSONRPC::result(request.id, Json{{"tools", ToolRegistry::definitions()}}));
    } else if (method == "tools/call") {
        handleToolCall(request);
    } else if (method == "resources/list") {
        handleResourcesList(request);
    } else if (method == "resources/read") {
        handleResourceRead(request);
    } else if (method == "prompts/list") {
        transport_.send(JSONRPC::result(request.id, Json{{"prompts", Json::array()}}));
    } else if (request.id) {
        transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::methodNotFound,
                                       "Unsupported method: " + method));
    }
}

Json MirelMCPServer::initializeResult(const Json& params) {
    std::string version = protocolVersions[0];
    if (const auto asked = params.find("protocolVersion"); asked != params.end() && asked->is_string()) {
        const auto& text = asked->get_ref<const std::string&>();
        if (std::find(std::begin(protocolVersions), std::end(protocolVersions), text) !=
            std::end(protocolVersions))
            version = text;
    }
    return Json{
        {"protocolVersion", version},
        {"capabilities",
         Json{{"tools", Json{{"listChanged", false}}},
              {"resources", Json{{"subscribe", false}, {"listChanged", false}}}}},
        {"serverInfo", Json{{"name", "mirel"}, {"version", "1.0.0"}}},
        {"instructions", kInstructions},
    };
}

void MirelMCPServer::handleToolCall(const JSONRPC::Request& request) {
    const auto name = request.params.find("name");
    if (name == request.params.end() || !name->is_string()) {
        transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::invalidParams,
                                       "tools/call requires a `name`."));
        return;
    }
    Json arguments = Json::object();
    if (const auto given = request.params.find("arguments"); given != request.params.end() && given->is_object())
        arguments = *given;

    const ToolResult result = tools_->call(name->get<std::string>(), arguments);
    transport_.send(JSONRPC::result(request.id, Json{{"content", result.content}, {"isError", result.isError}}));
}

}  // namespace mirel
