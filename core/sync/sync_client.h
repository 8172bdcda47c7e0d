#pragma once
// SyncClient: every call the sync side makes to the API server, and the direct
// transfers of image blobs to and from storage.
//
// Every call blocks its thread until done; run them on a worker pool. Each takes
// a Cancellation as its last argument: raising it from another thread ends a
// waiting call at once (as SyncError::offline, or TransferError for storage).
// Failures are SyncError; a transfer to or from storage that breaks on the way
// is TransferError (see sync_error.h). The bearer token goes to the API
// server's own origin only, never to storage and never into an error text.
#include "core/platform/clock.h"
#include "core/platform/json.h"
#include "core/store/records.h"
#include "core/sync/cancellation.h"
#include "core/sync/http_transfer.h"
#include "core/sync/sync_error.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

// A device code handed out for signing in from a browser elsewhere.
struct DeviceCode {
    std::string deviceCode;  // the secret polled with
    std::string userCode;    // shown to the user
    std::string verificationURI;
    std::string verificationURIComplete;
    double interval = 2.0;  // seconds between polls
    Date expiresAt = 0;     // dead after this, by this device's clock
    bool operator==(const DeviceCode&) const = default;
};

// One poll's outcome; `token` holds the session token when kind is `token`.
struct DevicePoll {
    enum class Kind { token, pending, slowDown, denied, expired };
    Kind kind = Kind::pending;
    std::string token;
    bool operator==(const DevicePoll&) const = default;
};

struct AccountInfo {
    Person user;
    std::vector<Workspace> workspaces;
    std::map<std::string, bool> features;
    bool operator==(const AccountInfo&) const = default;
};

struct ReconcileResult {
    std::vector<std::string> drop;     // captures the server no longer has
    std::vector<std::string> missing;  // captures this device lacks
    bool operator==(const ReconcileResult&) const = default;
};

class SyncClient {
public:
    // The platform word this build registers its devices with.
    static constexpr const char* devicePlatform = "linux";

    // `baseURL` is the API server's root, an http or https URL; with anything
    // else every call fails as `offline`. `limits` are the session's time limits.
    explicit SyncClient(std::string baseURL, std::optional<std::string> token = std::nullopt,
                        TransferLimits limits = {});

    const std::string& baseURL() const { return baseURL_; }
    std::optional<std::string> token() const;
    void setToken(std::optional<std::string> token);
    // Sent as "X-Mirel-Client" when present; absent at first.
    std::optional<std::string> clientLabel() const;
    void setClientLabel(std::optional<std::string> label);

    // One JSON call to the API server: the way every call below goes. With
    // `tolerate` the reply comes back whatever its status; otherwise 401 is
    // `unauthorized` and any status outside 200..299 is `server` (or
    // `uploadsDisabled`) with the server's message or the status text.
    HttpResponse request(std::string_view method, std::string_view path, const std::optional<Json>& json, bool auth,
                         bool tolerate, const Cancellation& cancel = {}) const;

    // Device sign-in.
    DeviceCode requestDeviceCode(const Cancellation& cancel = {}) const;
    DevicePoll pollDeviceToken(const DeviceCode& code, const Cancellation& cancel = {}) const;
    void signOut(const Cancellation& cancel = {}) const noexcept;

    // Account, device, sync and reconcile.
    AccountInfo me(const Cancellation& cancel = {}) const;
    void registerDevice(const std::string& id, const std::string& name, const std::string& platform,
                        const std::optional<std::string>& appVersion, const Cancellation& cancel = {}) const;
    Json sync(const Json& body, const Cancellation& cancel = {}) const;
    ReconcileResult reconcile(const std::vector<std::string>& ids, const Cancellation& cancel = {}) const;
    // The request of the live event stream, with the token of this moment; it is
    // read with Http::streamLines, which hands over each line as it arrives.
    HttpRequest events(const std::optional<std::string>& workspaceID = std::nullopt) const;

    // Blob transfer. Afterwards the server holds the blob.
    void ensureUploaded(const std::string& workspaceID, std::span<const std::uint8_t> data, const std::string& sha,
                        const std::string& contentType, const Cancellation& cancel = {}) const;
    // The blob's bytes, verified against `sha`.
    std::vector<std::uint8_t> downloadBlob(const std::string& workspaceID, const std::string& sha,
                                           const Cancellation& cancel = {}) const;

private:
    // The body of a reply as a JSON object, or SyncError::decode.
    static Json replyObject(const HttpResponse& response);
    // The error of a failure status outside 401.
    static SyncError failureFromReply(const HttpResponse& response);
    // "X-Mirel-Client" when a label is set, and with `auth` the bearer token if
    // there is one. A value that could break the header block is left out.
    void addIdentityHeaders(HttpRequest& call, bool auth) const;
    // A direct transfer to or from storage: the session's limits, no header of
    // ours. A status outside 200..299, or an answer that isn't HTTP, is
    // SyncError::server with `refusal`.
    HttpResponse transferWithStorage(HttpRequest request, std::size_t maxBody, const std::string& refusal,
                                     const Cancellation& cancel) const;

    // Constant after construction.
    const std::string baseURL_;
    const TransferLimits limits_;

    mutable std::mutex mutex_;
    std::optional<std::string> token_;        // guarded by mutex_
    std::optional<std::string> clientLabel_;  // guarded by mutex_
};

}  // namespace mirel
