#include "server/api.h"

#include "server/refusal.h"

#include <cstdio>

namespace mirel::server {

namespace {

void replyRefusal(httplib::Response& response, int status, const std::string& code, const std::string& message) {
    replyJSON(response, Json{{"error", {{"code", code}, {"message", message}}}}, status);
}

// Paths without their query, which may hold a URL signature.
void logRequest(const httplib::Request& request, const httplib::Response& response) {
    std::fprintf(stderr, "[mirel-server] %s %s %d\n", request.method.c_str(), request.path.c_str(), response.status);
}

}  // namespace

void replyJSON(httplib::Response& response, const Json& body, int status) {
    response.status = status;
    response.set_content(writeJSON(body), "application/json");
}

Api::Api(Storage& storage, BlobStore& blobs, EventHub& events, ApiSettings settings)
    : storage_(storage), blobs_(blobs), events_(events), sync_(storage, blobs, events), settings_(std::move(settings)) {}

void Api::install(httplib::Server& server) {
    server.set_exception_handler([](const httplib::Request& request, httplib::Response& response, std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const Refusal& refusal) {
            replyRefusal(response, refusal.status(), refusal.code(), refusal.what());
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "[mirel-server] %s %s failed: %s\n", request.method.c_str(), request.path.c_str(),
                         failure.what());
            replyRefusal(response, 500, "internal_error", "The server could not handle this request.");
        } catch (...) {
            replyRefusal(response, 500, "internal_error", "The server could not handle this request.");
        }
    });
    server.set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (!response.body.empty()) return;
        if (response.status == 404) replyRefusal(response, 404, "not_found", "No such route.");
        else if (response.status == 413) replyRefusal(response, 413, "too_large", "The request body is too large.");
        else replyRefusal(response, response.status, "error", "The request failed.");
    });
    // Bodies are refused by their declared length before they are read.
    server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        const bool storage = request.path.rfind("/storage/", 0) == 0;
        const auto length = request.get_header_value<std::uint64_t>("Content-Length");
        const std::uint64_t limit = storage ? blobs_.settings().maxBytes : settings_.maxJSONBytes;
        if (length > limit) {
            replyRefusal(response, 413, "too_large", "The request body is larger than this server takes.");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_logger(logRequest);
    installSignIn(server);
    installVerificationPage(server);
    installAccount(server);
    installSync(server);
    installBlobs(server);
    installEvents(server);
}

User Api::authenticate(const httplib::Request& request, Connection& db) const {
    const std::string header = request.get_header_value("Authorization");
    const std::string prefix = "Bearer ";
    if (header.size() > prefix.size() && header.compare(0, prefix.size(), prefix) == 0) {
        if (auto user = Accounts::userForToken(db, header.substr(prefix.size()))) return *user;
    }
    throw Refusal(401, "unauthorized", "Sign in again to keep syncing.");
}

Json Api::jsonBody(const httplib::Request& request) const {
    if (request.body.size() > settings_.maxJSONBytes) throw Refusal(413, "too_large", "The request body is too large.");
    auto parsed = parseJSON(request.body);
    if (!parsed) throw badRequest("the body is not valid JSON");
    return std::move(*parsed);
}

std::string Api::memberWorkspace(Connection& db, const User& user, const std::string& workspaceID) const {
    // Not a member and no such workspace look the same from outside.
    if (!workspaceIDs(db, user.id).count(workspaceID)) throw Refusal(404, "not_found", "No such workspace.");
    return workspaceID;
}

}  // namespace mirel::server
