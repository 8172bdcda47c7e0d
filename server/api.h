#pragma once
// The HTTP routes. One class; its routes are defined in one file per area
// (sign-in, account, sync, blobs, events), over the services that do the work.
#include "server/accounts.h"
#include "server/blob_store.h"
#include "server/event_hub.h"
#include "server/storage.h"
#include "server/sync_service.h"

#include "core/platform/json.h"

#include <httplib.h>

#include <chrono>
#include <string>

namespace mirel::server {

struct ApiSettings {
    std::string publicURL;  // without a trailing "/"
    bool uploadsEnabled = true;
    std::size_t maxJSONBytes = 16u << 20;
    std::chrono::milliseconds keepAliveInterval{20000};
};

class Api {
public:
    Api(Storage& storage, BlobStore& blobs, EventHub& events, ApiSettings settings);

    void install(httplib::Server& server);

private:
    void installSignIn(httplib::Server& server);
    void installVerificationPage(httplib::Server& server);
    void installAccount(httplib::Server& server);
    void installSync(httplib::Server& server);
    void installBlobs(httplib::Server& server);
    void installEvents(httplib::Server& server);
    // A PUT to a signed storage URL.
    void receiveUpload(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader);

    // The signed-in user of a request with "Authorization: Bearer …"; throws a 401 Refusal.
    User authenticate(const httplib::Request& request, Connection& db) const;
    // The request's body as JSON; throws a 400 or 413 Refusal.
    Json jsonBody(const httplib::Request& request) const;
    // The workspace id from a path, when the user is a member; throws a 404 Refusal.
    std::string memberWorkspace(Connection& db, const User& user, const std::string& workspaceID) const;

    // Constant after construction.
    Storage& storage_;
    BlobStore& blobs_;
    EventHub& events_;
    SyncService sync_;
    ApiSettings settings_;
};

void replyJSON(httplib::Response& response, const Json& body, int status = 200);

}  // namespace mirel::server
