#pragma once
// The verdict on each pushed change: applied, merged (with the fields where
// the server's value stood), remapped (a group that exists under another id) or
// rejected (with whether trying again may help).
#include "server/accounts.h"
#include "server/records.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace mirel::server {

struct SyncActor {
    User user;
    std::string deviceID;
    std::set<std::string> workspaces;  // ids the user is a member of
};

struct Verdict {
    std::string id;
    std::string status;  // applied, merged, remapped, rejected
    std::optional<std::int64_t> version;
    std::vector<std::string> conflicts;
    std::optional<std::string> canonicalID;
    std::string reason;
    bool retry = false;

    static Verdict of(std::string id, std::string status) {
        Verdict verdict;
        verdict.id = std::move(id);
        verdict.status = std::move(status);
        return verdict;
    }
    Json toJSON() const;
};

// One record written on behalf of a pushed change; each becomes an event.
struct AcceptedChange {
    std::string workspaceID;
    std::string table;
    std::string id;
    std::int64_t seq;
};

class ChangeApplier {
public:
    // Whether the workspace holds the blob with this hash.
    using BlobCheck = std::function<bool(const std::string& workspaceID, const std::string& sha)>;

    // Runs inside the caller's write transaction.
    ChangeApplier(Connection& db, const SyncActor& actor, BlobCheck hasBlob);

    // Never throws: every failure is a verdict, and a failed change leaves
    // nothing behind.
    Verdict apply(const Json& change);

    const std::vector<AcceptedChange>& accepted() const { return accepted_; }
    // Canonical groups that remapped devices should fetch in full.
    const std::vector<std::string>& groupsToFetch() const { return groupsToFetch_; }

private:
    struct Change;
    Verdict applyOne(const Json& change);
    Verdict create(const Change& change);
    Verdict update(const Change& change, StoredRecord record);
    Verdict remove(const Change& change, const std::optional<StoredRecord>& record);
    Verdict remap(const Change& change, StoredRecord canonical);

    void requireAccess(const std::string& workspaceID) const;
    StoredRecord requireParentCapture(const Json& captureID) const;
    Json resolvedGroup(const std::string& workspaceID, const Json& groupID) const;
    void requireBlobs(const std::string& workspaceID, const Json& patch, const Json& current) const;
    std::int64_t persist(const StoredRecord& record, const std::string& table);

    Connection& db_;
    const SyncActor& actor_;
    BlobCheck hasBlob_;
    std::vector<AcceptedChange> accepted_;
    std::vector<std::string> groupsToFetch_;
};

}  // namespace mirel::server
