// Remote groups and memberships, dropping a group this user lost, and folding
// a locally made group into the server's group of the same name.
#include "core/store/capture_store.h"
#include "core/sync/remote_apply.h"
#include "core/sync/wire.h"

namespace mirel {

using RemoteApply::Assignments;

void CaptureStore::applyRemoteGroup(const Json& object) {
    const std::optional<std::string> id = RemoteApply::safeIDAt(object, "id");
    const std::optional<std::string> name = RemoteApply::stringAt(object, "name");
    if (!id || !name) return;
    if (Wire::date(Wire::field(object, "deleted_at"))) {
        // Captures filed under it stay and lose their group (ON DELETE SET NULL).
        db_->execute("DELETE FROM groups WHERE id = ?;", {SQLValue(*id)});
        return;
    }
    const std::string colorHex = RemoteApply::stringAt(object, "color_hex").value_or("#6E7BF2");
    const std::optional<std::string> workspaceID = Wire::str(Wire::field(object, "workspace_id"));
    const std::string visibility = RemoteApply::stringAt(object, "visibility").value_or("private");
    const std::optional<std::string> createdBy = Wire::str(Wire::field(object, "created_by"));
    const std::optional<std::string> defaultAssignee = Wire::str(Wire::field(object, "default_assignee_id"));
    const std::optional<Date> archivedAt = Wire::date(Wire::field(object, "archived_at"));
    const std::int64_t version = Wire::integer(Wire::field(object, "version"));
    const Date updatedAt = Wire::date(Wire::field(object, "updated_at")).value_or(Clock::now());

    db_->transaction([&] {
        const std::vector<Row> rows =
            db_->query("SELECT * FROM groups WHERE id = ?;", {SQLValue(*id)});
        if (rows.empty()) {
            db_->execute(
                "    INSERT INTO groups (id, name, color_hex, path, created_at, updated_at, sync_state, dirty,\n"
                "                        workspace_id, visibility, created_by, default_assignee_id, archived_at, "
                "version)\n"
                "    VALUES (?,?,?,NULL,?,?,'synced',0,?,?,?,?,?,?);",
                {SQLValue(*id), SQLValue(*name), SQLValue(colorHex),
                 SQLValue(Wire::date(Wire::field(object, "created_at")).value_or(Clock::now())), SQLValue(updatedAt),
                 SQLValue::string(workspaceID), SQLValue(visibility), SQLValue::string(createdBy),
                 SQLValue::string(defaultAssignee), SQLValue::date(archivedAt), SQLValue(version)});
            return;
        }
        const std::set<std::string> pending = RemoteApply::protectedFields(rows.front());
        Assignments update;
        update.add("workspace_id", SQLValue::string(workspaceID));
        update.add("visibility", SQLValue(visibility));
        update.add("created_by", SQLValue::string(createdBy));
        update.add("default_assignee_id", SQLValue::string(defaultAssignee));
        update.add("version", SQLValue(version));
        update.add("updated_at", SQLValue(updatedAt));
        update.addUnless(pending, "name", "name", SQLValue(*name));
        update.addUnless(pending, "color_hex", "color_hex", SQLValue(colorHex));
        update.addUnless(pending, "archived_at", "archived_at", SQLValue::date(archivedAt));
        if (pending.empty()) {
            update.add("sync_state", SQLValue("synced"));
            update.add("pending", SQLValue::null());
        }
        update.dropUnchanged(rows.front());
        if (!update.empty()) db_->execute(update.updateSQL("groups"), update.updateValues(*id));
    });
}

void CaptureStore::applyRemoteGroupMember(const Json& object) {
    const std::optional<std::string> groupID = RemoteApply::stringAt(object, "group_id");
    const std::optional<std::string> userID = RemoteApply::stringAt(object, "user_id");
    if (!groupID || !userID) return;
    // A removal is a row with removed_at set, never a deletion.
    db_->execute("INSERT OR REPLACE INTO group_members (group_id, user_id, removed_at) VALUES (?,?,?);",
                 {SQLValue(*groupID), SQLValue(*userID),
                  SQLValue::date(Wire::date(Wire::field(object, "removed_at")))});
}

std::vector<std::string> CaptureStore::groupMemberIDs(const std::string& groupID) {
    std::vector<std::string> ids;
    for (const Row& row : db_->query("SELECT user_id FROM group_members WHERE group_id = ? AND removed_at IS NULL;",
                                     {SQLValue(groupID)})) {
        if (auto id = row.string("user_id")) ids.push_back(std::move(*id));
    }
    return ids;
}

void CaptureStore::dropGroup(const std::string& id) {
    // Without a user id every capture counts as someone else's.
    const std::string userID = syncMetaOrAbsent("user_id").value_or("");
    for (const Row& row : db_->query("SELECT id FROM captures WHERE group_id = ? AND (author_id IS NULL OR author_id != ?);",
                                     {SQLValue(id), SQLValue(userID)})) {
        if (auto captureID = row.string("id")) dropCapture(*captureID);
    }
    db_->execute("DELETE FROM group_members WHERE group_id = ?;", {SQLValue(id)});
    // The group stays while it still files the user's own captures.
    const std::vector<Row> counted =
        db_->query("SELECT COUNT(*) AS n FROM captures WHERE group_id = ?;", {SQLValue(id)});
    if (!counted.empty() && counted.front().intValue("n").value_or(0) != 0) return;
    db_->execute("DELETE FROM groups WHERE id = ?;", {SQLValue(id)});
}

void CaptureStore::remapGroup(const std::string& from, const std::string& to) {
    if (from == to) return;  // already canonical; deleting would ungroup its captures
    db_->transaction([&] {
        const bool canonicalHere = !db_->query("SELECT 1 AS one FROM groups WHERE id = ?;", {SQLValue(to)}).empty();
        if (canonicalHere) {
            db_->execute("UPDATE captures SET group_id = ? WHERE group_id = ?;", {SQLValue(to), SQLValue(from)});
            db_->execute("DELETE FROM groups WHERE id = ?;", {SQLValue(from)});
            return;
        }
        // The canonical group has not reached this device yet. The local row,
        // same name and workspace, stands in for it under the canonical id
        // until the server's row arrives and overwrites it; it carries no
        // ledger, so nothing of it is pushed. The foreign key is checked once
        // captures and group agree again, and the deferral ends right there so
        // that it cannot cover anything else in an enclosing transaction.
        db_->executeRaw("PRAGMA defer_foreign_keys = ON;");
        db_->execute("UPDATE captures SET group_id = ? WHERE group_id = ?;", {SQLValue(to), SQLValue(from)});
        db_->execute("UPDATE groups SET id = ?, sync_state = 'synced', pending = NULL, dirty = 0, version = 0 "
                     "WHERE id = ?;",
                     {SQLValue(to), SQLValue(from)});
        db_->executeRaw("PRAGMA defer_foreign_keys = OFF;");
    });
}

}  // namespace mirel
