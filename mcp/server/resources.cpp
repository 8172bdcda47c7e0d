#include "core/format/format.h"
#include "core/format/pages.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "mcp/server/mirel_mcp_server.h"
#include "mcp/tools/image_encoder.h"

#include <exception>

namespace mirel {

namespace {

constexpr std::string_view uriPrefix = "mirel://capture/";

Json resourceEntry(const Capture& capture) {
    std::vector<std::string> parts;
    if (capture.appName) parts.push_back("Seen in " + *capture.appName);
    // The raw title, as stored: the list does not judge whether it says anything.
    if (capture.windowTitle) parts.push_back(Format::quoted(*capture.windowTitle));
    parts.push_back(Format::statusWord(capture.status));
    return Json{{"uri", std::string(uriPrefix) + capture.id},
                {"name", capture.title()},
                {"description", join(parts, " \u00B7 ")},
                {"mimeType", capture.imagePath.empty() ? "text/plain" : "image/png"}};
}

// The piece after the last "mirel://capture/"; a text without it is taken whole.
std::string idFromURI(const std::string& uri) {
    const auto at = uri.rfind(uriPrefix);
    return at == std::string::npos ? uri : uri.substr(at + uriPrefix.size());
}

}  // namespace

void MirelMCPServer::handleResourcesList(const JSONRPC::Request& request) {
    CaptureQuery query;
    query.statuses = CaptureStatuses::active;
    query.limit = 100;
    query.offset = 0;
    query.newestFirst = true;
    Json resources = Json::array();
    try {
        for (const auto& capture : store_->captures(query)) resources.push_back(resourceEntry(capture));
    } catch (const std::exception& error) {
        transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::internalError,
                                       std::string("Could not list captures: ") + error.what()));
        return;
    }
    transport_.send(JSONRPC::result(request.id, Json{{"resources", std::move(resources)}}));
}

void MirelMCPServer::handleResourceRead(const JSONRPC::Request& request) {
    const auto uriValue = request.params.find("uri");
    const std::string uri =
        uriValue != request.params.end() && uriValue->is_string() ? uriValue->get<std::string>() : std::string();
    const std::string id = idFromURI(uri);
    if (id.empty()) {
        transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::invalidParams,
                                       "Expected a mirel://capture/<id> uri."));
        return;
    }
    Json contents = Json::array();
    try {
        const auto fullID = store_->resolveCaptureID(id);
        const auto capture = fullID ? store_->capture(*fullID) : std::nullopt;
        if (!capture) {
            transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::invalidParams, "No capture at " + uri + "."));
            return;
        }
        contents.push_back(
            Json{{"uri", uri}, {"mimeType", "text/plain"}, {"text", Pages::detail(*store_, *capture).text}});
        // Only the unmarked main image travels here; get_capture sends the set.
        if (!capture->imagePath.empty())
            if (const auto png = ImageEncoder::encode(MirelPaths::imageURL(capture->imagePath), 1400))
                contents.push_back(Json{{"uri", uri}, {"mimeType", "image/png"}, {"blob", *png}});
    } catch (const std::exception& error) {
        transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::internalError,
                                       "Could not read " + uri + ": " + error.what()));
        return;
    }
    transport_.send(JSONRPC::result(request.id, Json{{"contents", std::move(contents)}}));
}

}  // namespace mirel
