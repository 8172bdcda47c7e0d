#include "tests/support/store_probe.h"

#include "core/store/capture_store.h"

namespace mirel::test {

SQLValue readColumn(Database& db, const std::string& table, const std::string& id, const std::string& column) {
    const auto rows = db.query("SELECT " + column + " AS v FROM " + table + " WHERE id = ?;", {SQLValue(id)});
    if (rows.empty()) return SQLValue::null();
    const SQLValue* found = rows.front().value("v");
    return found ? *found : SQLValue::null();
}

std::optional<std::string> readText(Database& db, const std::string& table, const std::string& id,
                                    const std::string& column) {
    const SQLValue value = readColumn(db, table, id, column);
    if (!value.isText()) return std::nullopt;
    return value.asText();
}

std::set<std::string> pendingKeys(Database& db, const std::string& table, const std::string& id) {
    return CaptureStore::pendingFields(readText(db, table, id, "pending"));
}

std::string syncStateOf(Database& db, const std::string& table, const std::string& id) {
    return readText(db, table, id, "sync_state").value_or("");
}

bool rowExists(Database& db, const std::string& table, const std::string& id) {
    return !db.query("SELECT 1 AS one FROM " + table + " WHERE id = ?;", {SQLValue(id)}).empty();
}

std::int64_t countRows(Database& db, const std::string& sqlCount, const std::vector<SQLValue>& values) {
    const auto rows = db.query(sqlCount, values);
    if (rows.empty() || rows.front().columnNames().empty()) return -1;
    return rows.front().intValue(rows.front().columnNames().front()).value_or(-1);
}

}  // namespace mirel::test
