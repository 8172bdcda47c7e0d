// Reads of captures, the counting operations and the change stamp. Nothing is
// cached: every call goes to the database, so another process's write is seen
// at the next read.
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"
#include "core/store/sql_lists.h"

#include <charconv>

namespace mirel {

using namespace RowDecoding;

namespace {

std::optional<Capture> firstCapture(const std::vector<Row>& rows) {
    if (rows.empty()) return std::nullopt;
    return decodeCapture(rows.front());
}

// The shortest decimal that reads back as the same double, always with a
// digit behind the point: 1716.5, 0.0, 1e+300 stays as it is.
std::string roundTripDecimal(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".ein") == std::string::npos) text += ".0";
    return text;
}

}  // namespace

std::optional<Capture> CaptureStore::capture(const std::string& id) {
    return firstCapture(
        db_->query("SELECT * FROM captures WHERE id = ? AND deleted_at IS NULL;", {id}));
}

std::optional<Capture> CaptureStore::rawCapture(const std::string& id) {
    return firstCapture(db_->query("SELECT * FROM captures WHERE id = ?;", {id}));
}

std::optional<std::string> CaptureStore::resolveCaptureID(const std::string& text) {
    const std::string trimmed = trimWhitespaceAndNewlines(text);
    if (trimmed.empty()) return std::nullopt;
    if (capture(trimmed)) return trimmed;
    // LIKE folds ASCII case, so an upper-case prefix finds the stored id;
    // "%" and "_" typed by the caller stay wildcards.
    const auto rows = db_->query(
        "SELECT id FROM captures WHERE id LIKE ? AND deleted_at IS NULL LIMIT 2;", {trimmed + "%"});
    if (rows.size() != 1) return std::nullopt;
    return rows.front().string("id");
}

std::vector<Capture> CaptureStore::captures(const CaptureQuery& query) {
    std::string sql = "SELECT c.* FROM captures c";
    std::vector<std::string> conditions = {"c.deleted_at IS NULL"};
    std::vector<SQLValue> values;

    if (query.tag && !query.tag->empty()) {
        sql += " JOIN capture_tags ct ON ct.capture_id = c.id\n JOIN tags t ON t.id = ct.tag_id";
        conditions.push_back("LOWER(t.name) = LOWER(?)");
        values.emplace_back(*query.tag);
    }
    if (query.statuses && !query.statuses->empty()) {
        for (const auto status : *query.statuses) values.emplace_back(std::string(rawValue(status)));
        conditions.push_back("c.status IN (" + placeholders(query.statuses->size()) + ")");
    }
    if (query.groupID) {
        conditions.push_back("c.group_id = ?");
        values.emplace_back(*query.groupID);
    }
    if (query.groupName && !query.groupName->empty()) {
        conditions.push_back(
            "c.group_id IN (SELECT id FROM groups WHERE LOWER(name) = LOWER(?) AND deleted_at IS NULL)");
        values.emplace_back(*query.groupName);
    }
    if (query.priority) {
        conditions.push_back("c.priority = ?");
        values.emplace_back(std::string(rawValue(*query.priority)));
    }
    if (query.workspaceID) {
        conditions.push_back("c.workspace_id = ?");
        values.emplace_back(*query.workspaceID);
    }
    if (query.assigneeID) {
        conditions.push_back("c.assignee_id = ?");
        values.emplace_back(*query.assigneeID);
    }
    if (query.authorID) {
        // Captures filed before authorship was recorded pass the filter.
        conditions.push_back("(c.author_id = ? OR c.author_id IS NULL)");
        values.emplace_back(*query.authorID);
    }
    if (query.search && !trimBlanks(*query.search).empty()) {
        // The search is taken as typed, blanks at its ends included.
        conditions.push_back(
            "(c.note LIKE ? OR c.app_name LIKE ? OR c.window_title LIKE ? OR c.url LIKE ?)");
        const std::string pattern = "%" + *query.search + "%";
        for (int i = 0; i < 4; ++i) values.emplace_back(pattern);
    }

    sql += " WHERE " + join(conditions, " AND ");
    sql += " ORDER BY CASE c.priority WHEN 'high' THEN 0 WHEN 'normal' THEN 1 ELSE 2 END, c.created_at ";
    sql += query.newestFirst ? "DESC" : "ASC";
    sql += " LIMIT ? OFFSET ?;";
    values.emplace_back(query.limit);
    values.emplace_back(query.offset);

    std::vector<Capture> result;
    for (const auto& row : db_->query(sql, values)) result.push_back(decodeCapture(row));
    return result;
}

std::map<CaptureStatus, std::int64_t> CaptureStore::countsByStatus() {
    std::map<CaptureStatus, std::int64_t> counts;
    for (const auto& row : db_->query(
             "SELECT status, COUNT(*) AS n FROM captures WHERE deleted_at IS NULL GROUP BY status;")) {
        const auto word = row.string("status");
        const auto status = word ? captureStatusFrom(*word) : std::nullopt;
        if (!status) continue;
        counts[*status] = row.intValue("n").value_or(0);
    }
    return counts;
}

namespace {

std::map<std::string, std::int64_t> countsByCapture(Database& db, const std::string& sql,
                                                    const std::vector<SQLValue>& values = {}) {
    std::map<std::string, std::int64_t> counts;
    for (const auto& row : db.query(sql, values)) {
        const auto id = row.string("capture_id");
        if (!id) continue;
        counts[*id] = row.intValue("n").value_or(0);
    }
    return counts;
}

}  // namespace

std::map<std::string, std::int64_t> CaptureStore::imageCounts() {
    // Soft-deleted images and captures count too.
    return countsByCapture(*db_, "SELECT capture_id, COUNT(*) AS n FROM capture_images GROUP BY capture_id;");
}

std::map<std::string, std::int64_t> CaptureStore::commentCounts() {
    return countsByCapture(*db_, "SELECT capture_id, COUNT(*) AS n FROM comments GROUP BY capture_id;");
}

std::map<std::string, std::int64_t> CaptureStore::imageCounts(const std::vector<std::string>& captureIDs) {
    if (captureIDs.empty()) return {};
    return countsByCapture(*db_,
                           "SELECT capture_id, COUNT(*) AS n FROM capture_images WHERE capture_id IN (" +
                               placeholders(captureIDs.size()) + ") GROUP BY capture_id;",
                           textValues(captureIDs));
}

std::map<std::string, std::int64_t> CaptureStore::commentCounts(const std::vector<std::string>& captureIDs) {
    if (captureIDs.empty()) return {};
    return countsByCapture(*db_,
                           "SELECT capture_id, COUNT(*) AS n FROM comments WHERE capture_id IN (" +
                               placeholders(captureIDs.size()) + ") GROUP BY capture_id;",
                           textValues(captureIDs));
}

std::string CaptureStore::changeStamp() {
    const auto rows = db_->query(
        "SELECT (SELECT COUNT(*) FROM captures) AS c, "
        "(SELECT COALESCE(MAX(updated_at), 0) FROM captures) AS m, "
        "(SELECT COUNT(*) FROM comments) AS k, "
        "(SELECT COALESCE(MAX(created_at), 0) FROM comments) AS n;");
    std::int64_t c = 0, k = 0;
    double m = 0, n = 0;
    if (!rows.empty()) {
        const Row& row = rows.front();
        c = row.intValue("c").value_or(0);
        m = row.doubleValue("m").value_or(0);
        k = row.intValue("k").value_or(0);
        n = row.doubleValue("n").value_or(0);
    }
    return std::to_string(c) + "-" + roundTripDecimal(m) + "-" + std::to_string(k) + "-" +
           roundTripDecimal(n);
}

}  // namespace mirel
