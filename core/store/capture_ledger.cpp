// The pending-change ledger: which rows, and which fields of them, still have
// to reach the server. It lives in the tables' own pending/sync_state columns.
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"

namespace mirel {

using namespace RowDecoding;

namespace {

// The condition under which a row of `table` takes part in sync, or nullptr
// for a table that has no field ledger.
const char* ledgerGuard(const std::string& table) {
    if (table == "captures") return "workspace_id IS NOT NULL AND local_only = 0";
    if (table == "groups") return "workspace_id IS NOT NULL";
    if (table == "capture_images") {
        // Images have no workspace of their own; they follow their capture.
        return "EXISTS (SELECT 1 FROM captures c WHERE c.id = capture_images.capture_id "
               "AND c.workspace_id IS NOT NULL AND c.local_only = 0)";
    }
    return nullptr;
}

}  // namespace

void CaptureStore::markPending(const std::string& table, const std::string& id,
                               const std::vector<std::string>& fields) {
    const char* guard = ledgerGuard(table);
    if (!guard) return;
    Json marks = Json::object();
    for (const std::string& field : fields) marks[field] = true;
    const std::string g(guard);
    // One statement, so guard, merge and state change land together.
    const std::string sql = "    UPDATE " + table + " SET\n        pending = CASE WHEN " + g +
                            " THEN json_patch(COALESCE(pending, '{}'), ?) ELSE pending END,\n"
                            "        sync_state = CASE WHEN " + g +
                            " THEN 'pendingPush' ELSE sync_state END\n    WHERE id = ?;";
    db_->execute(sql, {SQLValue(writeJSON(marks)), SQLValue(id)});
}

std::vector<CaptureStore::Pending> CaptureStore::pending(const std::string& table, std::int64_t limit) {
    const std::vector<Row> rows = db_->query(
        "SELECT id, pending, version FROM " + table +
            " WHERE sync_state = 'pendingPush' ORDER BY created_at ASC LIMIT ?;",
        {SQLValue(limit)});
    std::vector<Pending> result;
    result.reserve(rows.size());
    for (const Row& row : rows) {
        std::optional<std::string> id = row.string("id");
        if (!id) continue;
        result.push_back(Pending{*id, pendingFields(row.string("pending")), row.intValue("version").value_or(0)});
    }
    return result;
}

std::vector<Comment> CaptureStore::pendingComments(std::int64_t limit) {
    const std::vector<Row> rows = db_->query(
        "SELECT * FROM comments WHERE sync_state = 'pendingPush' ORDER BY created_at ASC LIMIT ?;",
        {SQLValue(limit)});
    std::vector<Comment> result;
    result.reserve(rows.size());
    for (const Row& row : rows) result.push_back(decodeComment(row));
    return result;
}

void CaptureStore::markSynced(const std::string& table, const std::string& id,
                              const std::optional<std::int64_t>& version) {
    if (version) {
        db_->execute("UPDATE " + table +
                         " SET pending = NULL, sync_state = 'synced', version = ?, dirty = 0 WHERE id = ?;",
                     {SQLValue(*version), SQLValue(id)});
    } else {
        db_->execute("UPDATE " + table + " SET pending = NULL, sync_state = 'synced', dirty = 0 WHERE id = ?;",
                     {SQLValue(id)});
    }
    if (table == "captures") {
        // Once acknowledged, a capture's history is what the server sends back.
        db_->execute("DELETE FROM activity WHERE capture_id = ? AND remote = 0;", {SQLValue(id)});
    }
}

std::set<std::string> CaptureStore::pendingFields(const std::optional<std::string>& json) {
    std::set<std::string> fields;
    if (!json) return fields;
    std::optional<Json> parsed = parseJSON(*json);
    if (!parsed || !parsed->is_object()) return fields;
    for (auto it = parsed->begin(); it != parsed->end(); ++it) fields.insert(it.key());
    return fields;
}

}  // namespace mirel
