#include "core/sync/sync_client.h"

#include "core/sync/http_status.h"
#include "core/sync/reply_fields.h"
#include "core/sync/wire.h"

namespace mirel {

SyncClient::SyncClient(std::string baseURL, std::optional<std::string> token, TransferLimits limits)
    : baseURL_(std::move(baseURL)), limits_(limits), token_(std::move(token)) {}

std::optional<std::string> SyncClient::token() const {
    std::lock_guard lock(mutex_);
    return token_;
}

void SyncClient::setToken(std::optional<std::string> token) {
    std::lock_guard lock(mutex_);
    token_ = std::move(token);
}

std::optional<std::string> SyncClient::clientLabel() const {
    std::lock_guard lock(mutex_);
    return clientLabel_;
}

void SyncClient::setClientLabel(std::optional<std::string> label) {
    std::lock_guard lock(mutex_);
    clientLabel_ = std::move(label);
}

HttpResponse SyncClient::request(std::string_view method, std::string_view path, const std::optional<Json>& json,
                                 bool auth, bool tolerate, const Cancellation& cancel) const {
    HttpRequest call;
    call.method = std::string(method);
    call.limits = limits_;
    const auto url = Http::appendingPath(baseURL_, path);
    if (!url) throw SyncError::offline("the server address is not an http or https URL");
    call.url = *url;
    call.headers.emplace_back("Accept", "application/json");
    addIdentityHeaders(call, auth);
    if (json) {
        call.headers.emplace_back("Content-Type", "application/json");
        call.body = writeJSON(*json);
        call.hasBody = true;
    }

    HttpResponse response;
    try {
        response = Http::perform(call, Http::maxJSONReply, cancel);
    } catch (const TransferError& failure) {
        if (failure.kind() == TransferError::Kind::tooLarge || failure.kind() == TransferError::Kind::notHTTP) {
            throw SyncError::decode();
        }
        throw SyncError::offline(failure.what());
    }
    if (tolerate) return response;
    if (response.status == 401) throw SyncError::unauthorized();
    if (response.status >= 200 && response.status <= 299) return response;
    throw failureFromReply(response);
}

void SyncClient::addIdentityHeaders(HttpRequest& call, bool auth) const {
    if (const auto label = clientLabel(); label && Http::isSafeHeaderValue(*label)) {
        call.headers.emplace_back("X-Mirel-Client", *label);
    }
    if (!auth) return;
    if (const auto bearer = token(); bearer && Http::isSafeHeaderValue(*bearer)) {
        call.headers.emplace_back("Authorization", "Bearer " + *bearer);
    }
}

SyncError SyncClient::failureFromReply(const HttpResponse& response) {
    const auto body = parseJSON(response.body);
    if (!body || !body->is_object())
        return SyncError::server(response.status, HttpStatus::reasonPhrase(response.status));
    if (saysUploadsDisabled(*body)) return SyncError::uploadsDisabled();
    // The server's own words if its body has them: in "error", else at the top.
    const auto message = stringAt(Wire::field(*body, "error"), "message")
                             .value_or(stringAt(*body, "message").value_or(HttpStatus::reasonPhrase(response.status)));
    return SyncError::server(response.status, message);
}

Json SyncClient::replyObject(const HttpResponse& response) {
    auto body = parseJSON(response.body);
    if (!body || !body->is_object()) throw SyncError::decode();
    return std::move(*body);
}

}  // namespace mirel
