#pragma once
// The shared records as the server keeps them: the row object that clients
// apply, plus the bookkeeping that decides verdicts and feeds.
#include "server/sqlite.h"

#include "core/platform/json.h"

#include <optional>
#include <string>

namespace mirel::server {

struct StoredRecord {
    std::string kind;  // groups, captures, capture_images, comments, activity
    std::string id;
    std::string workspaceID;
    std::optional<std::string> captureID;  // the owning capture of images, comments and activity
    std::int64_t version = 0;
    Json row = Json::object();
    // Per field: [the record version that last set it, the device that did].
    Json stamps = Json::object();
    bool deleted = false;
};

namespace Records {

std::optional<StoredRecord> load(Connection& db, const std::string& kind, const std::string& id);
// Writes the record with the next change number, which becomes its place in
// every feed. Returns that number.
std::int64_t save(Connection& db, const StoredRecord& record);
// Hides the rows that hang on a deleted capture from every later feed.
void hideChildren(Connection& db, const std::string& captureID);
// A live group of the workspace whose name matches regardless of ASCII case.
std::optional<StoredRecord> groupNamed(Connection& db, const std::string& workspaceID, const std::string& name);
std::string nameKey(const std::string& name);

}  // namespace Records
}  // namespace mirel::server
