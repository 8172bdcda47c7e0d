// Device sign-in (the OAuth device authorization grant) and sign-out.
#include "core/sync/sync_client.h"

#include "core/sync/reply_fields.h"
#include "core/sync/wire.h"

#include <algorithm>

namespace mirel {

namespace {

constexpr const char* clientID = "mirel-desktop";
constexpr double minimumInterval = 2.0;
constexpr double minimumLifetime = 60.0;

}  // namespace

DeviceCode SyncClient::requestDeviceCode(const Cancellation& cancel) const {
    const Json body = {{"client_id", clientID}, {"scope", "openid profile email"}};
    const Json reply = replyObject(request("POST", "/api/auth/device/code", body, false, false, cancel));
    DeviceCode code;
    const auto deviceCode = stringAt(reply, "device_code");
    const auto userCode = stringAt(reply, "user_code");
    if (!deviceCode || !userCode) throw SyncError::decode();
    code.deviceCode = *deviceCode;
    code.userCode = *userCode;
    code.verificationURI = stringAt(reply, "verification_uri").value_or(baseURL_);
    code.verificationURIComplete =
        stringAt(reply, "verification_uri_complete").value_or(code.verificationURI + "?user_code=" + code.userCode);
    // However little the server asks for, polls stay 2 s apart and a code lives a minute.
    code.interval = std::max(Wire::floating(Wire::field(reply, "interval")), minimumInterval);
    code.expiresAt = Clock::now() + std::max(Wire::floating(Wire::field(reply, "expires_in")), minimumLifetime);
    return code;
}

DevicePoll SyncClient::pollDeviceToken(const DeviceCode& code, const Cancellation& cancel) const {
    const Json body = {{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
                       {"device_code", code.deviceCode},
                       {"client_id", clientID}};
    const HttpResponse response = request("POST", "/api/auth/device/token", body, false, true, cancel);
    // An unreadable reply still has a status worth reading.
    const Json reply = parseJSON(response.body).value_or(Json::object());
    if (response.status == 200) {
        if (const auto token = stringAt(reply, "access_token")) return {DevicePoll::Kind::token, *token};
    }
    const std::string word = stringAt(reply, "error").value_or(stringAt(reply, "code").value_or(""));
    if (word == "authorization_pending") return {DevicePoll::Kind::pending, ""};
    if (word == "slow_down") return {DevicePoll::Kind::slowDown, ""};
    if (word == "access_denied") return {DevicePoll::Kind::denied, ""};
    if (word == "expired_token") return {DevicePoll::Kind::expired, ""};
    // A 400 that says nothing known keeps the poll going.
    if (response.status == 400) return {DevicePoll::Kind::pending, ""};
    throw SyncError::server(response.status, stringAt(reply, "message").value_or("device token"));
}

void SyncClient::signOut(const Cancellation& cancel) const noexcept {
    // The caller forgets the token locally whatever happens here.
    try {
        request("POST", "/api/auth/sign-out", Json::object(), true, true, cancel);
    } catch (...) {
    }
}

}  // namespace mirel
