#pragma once
// /v1/sync and /v1/sync/reconcile without the HTTP around them: take a
// device's changes, give its verdicts and the changes it hasn't seen.
#include "server/accounts.h"
#include "server/blob_store.h"
#include "server/change_applier.h"
#include "server/event_hub.h"
#include "server/storage.h"

#include <set>
#include <string>

namespace mirel::server {

class SyncService {
public:
    static constexpr std::size_t kPageSize = 500;
    static constexpr std::size_t kMostChanges = 500;
    static constexpr std::size_t kMostFullGroups = 50;

    SyncService(Storage& storage, BlobStore& blobs, EventHub& events)
        : storage_(storage), blobs_(blobs), events_(events) {}

    // The reply body, as JSON text. Throws Refusal for a malformed envelope.
    std::string sync(const User& user, const Json& body);
    Json reconcile(const User& user, const Json& body);

private:
    struct Notices;
    Notices workspaceNotices(Connection& db, const std::string& userID, const std::string& deviceID,
                             const std::set<std::string>& current, std::int64_t cursor);
    void publish(const std::vector<AcceptedChange>& accepted);

    Storage& storage_;
    BlobStore& blobs_;
    EventHub& events_;
};

std::set<std::string> workspaceIDs(Connection& db, const std::string& userID);

}  // namespace mirel::server
