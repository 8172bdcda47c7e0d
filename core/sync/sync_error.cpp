#include "core/sync/sync_error.h"

namespace mirel {

namespace {
// The short name of the API server in messages; fixed, whatever address is configured.
constexpr const char* serverDisplayName = "Mirel";
}  // namespace

SyncError::SyncError(Kind kind, std::int64_t code, std::string detail, const std::string& text)
    : std::runtime_error(text), kind_(kind), code_(code), detail_(std::move(detail)) {}

SyncError SyncError::offline(const std::string& reason) {
    return SyncError(Kind::offline, 0, reason, std::string("Can't reach ") + serverDisplayName + " — " + reason);
}

SyncError SyncError::server(std::int64_t code, const std::string& message) {
    return SyncError(Kind::server, code, message, "Server error " + std::to_string(code) + ": " + message);
}

SyncError SyncError::unauthorized() {
    return SyncError(Kind::unauthorized, 0, "", "Your session has expired. Sign in again to keep syncing.");
}

SyncError SyncError::decode() {
    return SyncError(Kind::decode, 0, "", "Unexpected reply from the server.");
}

SyncError SyncError::uploadsDisabled() {
    return SyncError(Kind::uploadsDisabled, 0, "", "Screenshot uploads are switched off on this server.");
}

SignInError::SignInError(Kind kind)
    : std::runtime_error(kind == Kind::denied ? "The sign-in was denied in the browser."
                                              : "That code expired. Start again to get a new one."),
      kind_(kind) {}

}  // namespace mirel
