// Moving whole records into a workspace or out of one, removing what the
// device may no longer keep, and the engine's own rolling log.
#include "core/store/capture_store.h"

namespace mirel {

namespace {

std::vector<std::string> idsOf(const std::vector<Row>& rows) {
    std::vector<std::string> ids;
    ids.reserve(rows.size());
    for (const Row& row : rows) {
        if (auto id = row.string("id")) ids.push_back(std::move(*id));
    }
    return ids;
}

}  // namespace

void CaptureStore::adopt(const std::string& captureID, const std::string& workspaceID) {
    const SQLValue userID = SQLValue::string(syncMetaOrAbsent("user_id"));
    const Date now = Clock::now();
    // The whole record is what the server needs, whatever was marked before.
    db_->execute(
        "    UPDATE captures SET workspace_id = ?, author_id = COALESCE(author_id, ?), local_only = 0,\n"
        "        sync_state = 'pendingPush', pending = '{\"*\":true}', updated_at = ?\n"
        "    WHERE id = ? AND deleted_at IS NULL;",
        {SQLValue(workspaceID), userID, SQLValue(now), SQLValue(captureID)});
    db_->execute(
        "    UPDATE capture_images SET sync_state = 'pendingPush', pending = '{\"*\":true}'\n"
        "    WHERE capture_id = ? AND deleted_at IS NULL;",
        {SQLValue(captureID)});
    db_->execute("UPDATE comments SET sync_state = 'pendingPush' WHERE capture_id = ? AND sync_state = 'local';",
                 {SQLValue(captureID)});
    // A local group comes along, so that it reaches the server before the capture.
    if (const std::optional<Capture> capture = rawCapture(captureID); capture && capture->groupID) {
        if (const std::optional<CaptureGroup> group = this->group(*capture->groupID); group && !group->workspaceID) {
            db_->execute(
                "    UPDATE groups SET workspace_id = ?, created_by = COALESCE(created_by, ?),\n"
                "        sync_state = 'pendingPush', pending = '{\"*\":true}', updated_at = ?\n"
                "    WHERE id = ?;",
                {SQLValue(workspaceID), userID, SQLValue(now), SQLValue(group->id)});
        }
    }
    postDidChange();
}

std::vector<Capture> CaptureStore::localCaptures() {
    std::vector<Capture> result;
    for (const Row& row : db_->query(
             "SELECT * FROM captures WHERE workspace_id IS NULL AND deleted_at IS NULL ORDER BY created_at DESC;")) {
        result.push_back(decodeCapture(row));
    }
    return result;
}

void CaptureStore::markLocalOnly(const std::string& captureID) {
    // An ordinary local capture again, which can be adopted once more.
    db_->execute(
        "UPDATE captures SET workspace_id = NULL, local_only = 0, sync_state = 'local', pending = NULL WHERE id = ?;",
        {SQLValue(captureID)});
    db_->execute("UPDATE capture_images SET sync_state = 'local', pending = NULL WHERE capture_id = ?;",
                 {SQLValue(captureID)});
    db_->execute("UPDATE comments SET sync_state = 'local' WHERE capture_id = ?;", {SQLValue(captureID)});
}

void CaptureStore::dropWorkspace(const std::string& id) {
    for (const std::string& captureID :
         idsOf(db_->query("SELECT id FROM captures WHERE workspace_id = ?;", {SQLValue(id)}))) {
        dropCapture(captureID);
    }
    db_->execute("DELETE FROM groups WHERE workspace_id = ?;", {SQLValue(id)});
    db_->execute("DELETE FROM workspaces WHERE id = ?;", {SQLValue(id)});
}

void CaptureStore::purgeAccountData() {
    // Safe to repeat: each step removes only what is still there.
    for (const std::string& captureID : idsOf(db_->query("SELECT id FROM captures WHERE workspace_id IS NOT NULL;"))) {
        dropCapture(captureID);
    }
    for (const char* sql : {"DELETE FROM groups WHERE workspace_id IS NOT NULL;", "DELETE FROM group_members;",
                            "DELETE FROM people;", "DELETE FROM workspaces;", "DELETE FROM sync_meta;",
                            "DELETE FROM activity WHERE remote = 1;"}) {
        db_->execute(sql);
    }
    postDidChange();
}

std::vector<std::string> CaptureStore::syncedCaptureIDs() {
    return idsOf(db_->query(
        "SELECT id FROM captures WHERE workspace_id IS NOT NULL AND sync_state = 'synced' AND deleted_at IS NULL;"));
}

void CaptureStore::log(const std::string& level, const std::string& message) noexcept {
    // The log must never be the reason a sync step fails.
    try {
        db_->execute("INSERT INTO sync_log (at, level, message) VALUES (?,?,?);",
                     {SQLValue(Clock::now()), SQLValue(level), SQLValue(message)});
    } catch (...) {
    }
    try {
        db_->execute("DELETE FROM sync_log WHERE id < (SELECT COALESCE(MAX(id), 0) - 500 FROM sync_log);");
    } catch (...) {
    }
}

std::vector<CaptureStore::SyncLogLine> CaptureStore::syncLog(std::int64_t limit) {
    std::vector<SyncLogLine> lines;
    for (const Row& row : db_->query("SELECT * FROM sync_log ORDER BY id DESC LIMIT ?;", {SQLValue(limit)})) {
        lines.push_back({row.intValue("id").value_or(0), row.date("at").value_or(Clock::now()),
                         row.string("level").value_or("info"), row.string("message").value_or("")});
    }
    return lines;
}

}  // namespace mirel
