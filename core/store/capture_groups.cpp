// Groups: the topics captures are filed under, local or of a workspace.
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"

namespace mirel {

using namespace RowDecoding;

namespace {

std::vector<CaptureGroup> decodeGroups(const std::vector<Row>& rows) {
    std::vector<CaptureGroup> result;
    result.reserve(rows.size());
    for (const Row& row : rows) result.push_back(decodeGroup(row));
    return result;
}

}  // namespace

std::vector<CaptureGroup> CaptureStore::groups() {
    return decodeGroups(db_->query(
        "SELECT * FROM groups WHERE deleted_at IS NULL AND archived_at IS NULL ORDER BY name COLLATE NOCASE;"));
}

std::optional<CaptureGroup> CaptureStore::group(const std::string& id) {
    const std::vector<Row> rows =
        db_->query("SELECT * FROM groups WHERE id = ? AND deleted_at IS NULL;", {SQLValue(id)});
    if (rows.empty()) return std::nullopt;
    return decodeGroup(rows.front());
}

std::optional<CaptureGroup> CaptureStore::groupNamed(const std::string& name,
                                                     const std::optional<std::string>& workspaceID) {
    const std::vector<Row> rows = db_->query(
        "SELECT * FROM groups WHERE LOWER(name) = LOWER(?) AND COALESCE(workspace_id, '') = COALESCE(?, '') "
        "AND deleted_at IS NULL AND archived_at IS NULL;",
        {SQLValue(name), SQLValue::string(workspaceID)});
    if (rows.empty()) return std::nullopt;
    return decodeGroup(rows.front());
}

std::optional<CaptureGroup> CaptureStore::groupMatchingPath(const std::string& path) {
    // First fit by name order, not the longest path.
    for (const CaptureGroup& g : groups()) {
        if (!g.path || g.path->empty()) continue;
        if (*g.path == path) return g;
        std::string folder = *g.path;
        if (folder.back() != '/') folder += '/';
        if (path.compare(0, folder.size(), folder) == 0) return g;
    }
    return std::nullopt;
}

CaptureGroup CaptureStore::upsertGroup(const CaptureGroup& group) {
    // The checks for the id and the name hold until the write: one lock.
    return db_->transaction([&] {
        CaptureGroup copy = group;
        const bool exists = !db_->query("SELECT 1 AS one FROM groups WHERE id = ?;", {SQLValue(copy.id)}).empty();
        if (!exists) {
            if (!copy.workspaceID) copy.workspaceID = syncMetaOrAbsent("default_workspace_id");
            if (!copy.createdBy) copy.createdBy = syncMetaOrAbsent("user_id");
        }
        // Asking for a group that stands under another id yields that one.
        if (std::optional<CaptureGroup> namesake = groupNamed(copy.name, copy.workspaceID);
            namesake && namesake->id != copy.id) {
            return *namesake;
        }
        db_->execute(
            "INSERT INTO groups (id, name, color_hex, path, created_at, updated_at, remote_id, sync_state, dirty, "
            "deleted_at, workspace_id, visibility, created_by, default_assignee_id, archived_at, version, pending) "
            "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?) ON CONFLICT(id) DO UPDATE SET name = excluded.name, "
            "color_hex = excluded.color_hex, path = excluded.path, updated_at = excluded.updated_at, dirty = 1, "
            "deleted_at = excluded.deleted_at, default_assignee_id = excluded.default_assignee_id, "
            "archived_at = excluded.archived_at;",
            {SQLValue(copy.id), SQLValue(copy.name), SQLValue(copy.colorHex), SQLValue::string(copy.path),
             SQLValue(copy.createdAt), SQLValue(Clock::now()), SQLValue::string(copy.remoteID),
             SQLValue(std::string(rawValue(copy.syncState))), SQLValue::boolean(copy.dirty),
             SQLValue::date(copy.deletedAt), SQLValue::string(copy.workspaceID),
             SQLValue(std::string(rawValue(copy.visibility))), SQLValue::string(copy.createdBy),
             SQLValue::string(copy.defaultAssigneeID), SQLValue::date(copy.archivedAt), SQLValue(copy.version),
             SQLValue::null()});
        if (exists) markPending("groups", copy.id, {"name", "color_hex", "archived_at"});
        else markPending("groups", copy.id, {"*"});
        postDidChange();
        return copy;
    });
}

CaptureGroup CaptureStore::findOrCreateGroup(const std::string& name, const std::optional<std::string>& scope,
                                             bool* created) {
    if (created) *created = false;
    return db_->transaction([&] {
        if (auto existing = groupNamed(name, scope)) return *existing;
        CaptureGroup fresh;
        fresh.id = newID();
        fresh.name = name;
        fresh.createdAt = fresh.updatedAt = Clock::now();
        CaptureGroup stored = upsertGroup(fresh);
        if (created) *created = stored.id == fresh.id;
        return stored;
    });
}

void CaptureStore::deleteGroup(const std::string& id) {
    db_->transaction([&] {
        const std::optional<CaptureGroup> g = group(id);
        const Date now = Clock::now();
        if (g && g->workspaceID) {
            // Others in the workspace still see it: archive, so the change can travel.
            db_->execute("UPDATE groups SET archived_at = ?, updated_at = ?, dirty = 1 WHERE id = ?;",
                         {SQLValue(now), SQLValue(now), SQLValue(id)});
            markPending("groups", id, {"archived_at"});
        } else {
            db_->execute("UPDATE groups SET deleted_at = ?, updated_at = ?, dirty = 1 WHERE id = ?;",
                         {SQLValue(now), SQLValue(now), SQLValue(id)});
        }
        postDidChange();
    });
}

}  // namespace mirel
