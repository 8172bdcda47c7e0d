#include "server/records.h"

#include "server/storage.h"

#include "core/platform/text.h"

namespace mirel::server::Records {

namespace {

constexpr const char* kColumns = "kind, id, workspace_id, capture_id, version, row, stamps, deleted";

StoredRecord read(const Statement& s) {
    StoredRecord record;
    record.kind = s.text(0);
    record.id = s.text(1);
    record.workspaceID = s.text(2);
    record.captureID = s.optionalText(3);
    record.version = s.integer(4);
    record.row = parseJSON(s.text(5)).value_or(Json::object());
    record.stamps = parseJSON(s.text(6)).value_or(Json::object());
    record.deleted = s.integer(7) != 0;
    return record;
}

}  // namespace

std::string nameKey(const std::string& name) { return asciiLower(name); }

std::optional<StoredRecord> load(Connection& db, const std::string& kind, const std::string& id) {
    auto s = db.cached(std::string("SELECT ") + kColumns + " FROM records WHERE kind = ? AND id = ?;");
    s->bind(1, kind).bind(2, id);
    if (!s->step()) return std::nullopt;
    return read(*s);
}

std::int64_t save(Connection& db, const StoredRecord& record) {
    const std::int64_t seq = Storage::nextSequence(db);
    SqlArg captureID = record.captureID ? SqlArg(*record.captureID) : SqlArg(nullptr);
    SqlArg name = record.kind == "groups" && record.row.value("name", Json()).is_string()
                      ? SqlArg(nameKey(record.row["name"].get<std::string>()))
                      : SqlArg(nullptr);
    const Json group = record.kind == "captures" ? record.row.value("group_id", Json()) : Json();
    db.run("INSERT INTO records (kind, id, workspace_id, capture_id, group_id, version, seq, row, stamps, deleted, "
           "name_key) VALUES (?,?,?,?,?,?,?,?,?,?,?) ON CONFLICT(kind, id) DO UPDATE SET group_id = excluded.group_id, "
           "version = excluded.version, seq = excluded.seq, row = excluded.row, stamps = excluded.stamps, "
           "deleted = excluded.deleted, name_key = excluded.name_key;",
           {record.kind, record.id, record.workspaceID, captureID,
            group.is_string() ? SqlArg(group.get<std::string>()) : SqlArg(nullptr), record.version, seq,
            writeJSON(record.row), writeJSON(record.stamps), static_cast<std::int64_t>(record.deleted), name});
    return seq;
}

void hideChildren(Connection& db, const std::string& captureID) {
    db.run("UPDATE records SET gone = 1 WHERE capture_id = ? AND kind != 'captures';", {captureID});
}

std::optional<StoredRecord> groupNamed(Connection& db, const std::string& workspaceID, const std::string& name) {
    auto s = db.cached(std::string("SELECT ") + kColumns +
                       " FROM records WHERE kind = 'groups' AND workspace_id = ? AND name_key = ?;");
    s->bind(1, workspaceID).bind(2, nameKey(name));
    if (!s->step()) return std::nullopt;
    return read(*s);
}

}  // namespace mirel::server::Records
