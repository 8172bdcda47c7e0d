// Device sign-in on the client's routes, answered the way RFC 8628 words it.
#include "server/api.h"
#include "server/device_flow.h"
#include "server/refusal.h"

namespace mirel::server {

namespace {

constexpr const char* kDeviceGrant = "urn:ietf:params:oauth:grant-type:device_code";

void replyOAuthError(httplib::Response& response, const std::string& error, const std::string& description) {
    replyJSON(response, Json{{"error", error}, {"error_description", description}}, 400);
}

}  // namespace

void Api::installSignIn(httplib::Server& server) {
    server.Post("/api/auth/device/code", [this](const httplib::Request& request, httplib::Response& response) {
        const Json body = request.body.empty() ? Json::object() : jsonBody(request);
        if (!body.is_object() || !body.value("client_id", Json("")).is_string()) {
            throw badRequest("client_id must be a string");
        }
        auto db = storage_.connection();
        const auto grant = DeviceFlow::start(*db);
        const std::string page = settings_.publicURL + "/device";
        replyJSON(response, Json{{"device_code", grant.deviceCode},
                                 {"user_code", grant.userCode},
                                 {"verification_uri", page},
                                 {"verification_uri_complete", page + "?user_code=" + grant.userCode},
                                 {"expires_in", static_cast<int>(DeviceFlow::kCodeLifetime)},
                                 {"interval", static_cast<int>(DeviceFlow::kPollInterval)}});
    });

    server.Post("/api/auth/device/token", [this](const httplib::Request& request, httplib::Response& response) {
        const Json body = jsonBody(request);
        if (!body.is_object() || body.value("grant_type", Json()) != Json(kDeviceGrant)) {
            return replyOAuthError(response, "unsupported_grant_type", "Only the device code grant is offered.");
        }
        const Json code = body.value("device_code", Json());
        if (!code.is_string()) return replyOAuthError(response, "invalid_request", "device_code is missing.");
        auto db = storage_.connection();
        const auto result = DeviceFlow::poll(*db, code.get<std::string>());
        switch (result.outcome) {
            case DeviceFlow::Outcome::token:
                return replyJSON(response, Json{{"access_token", result.token}, {"token_type", "Bearer"}});
            case DeviceFlow::Outcome::pending:
                return replyOAuthError(response, "authorization_pending", "The code has not been approved yet.");
            case DeviceFlow::Outcome::slowDown:
                return replyOAuthError(response, "slow_down", "Polled too fast; wait 5 seconds longer.");
            case DeviceFlow::Outcome::denied:
                return replyOAuthError(response, "access_denied", "The sign-in was denied.");
            case DeviceFlow::Outcome::expired:
                return replyOAuthError(response, "expired_token", "The code has expired.");
        }
    });

    server.Post("/api/auth/sign-out", [this](const httplib::Request& request, httplib::Response& response) {
        const std::string header = request.get_header_value("Authorization");
        if (header.rfind("Bearer ", 0) == 0) {
            auto db = storage_.connection();
            Accounts::revokeSession(*db, header.substr(7));
        }
        replyJSON(response, Json{{"status", "signed_out"}});
    });
}

}  // namespace mirel::server
