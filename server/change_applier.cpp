#include "server/change_applier.h"

#include "server/dates.h"
#include "server/history.h"
#include "server/record_schema.h"

#include "core/platform/clock.h"

#include <cstdio>

namespace mirel::server {

namespace {

// Thrown inside one change; becomes a "rejected" verdict and rolls the change back.
struct Rejection {
    std::string reason;
    bool retry;
};

std::string singular(std::string_view table) {
    if (table == "captures") return "capture";
    if (table == "capture_images") return "image";
    if (table == "groups") return "group";
    return "comment";
}

std::string shortID(const std::string& id) { return id.size() > 8 ? id.substr(id.size() - 8) : id; }

Json stamp(std::int64_t version, const std::string& deviceID) { return Json::array({version, deviceID}); }

}  // namespace

struct ChangeApplier::Change {
    const TableSpec* spec;
    std::string id;
    std::int64_t baseVersion = 0;
    bool isDelete = false;
    Json patch = Json::object();  // only fields of the table, values normalised
};

Json Verdict::toJSON() const {
    Json out{{"id", id}, {"status", status}};
    if (version) out["version"] = *version;
    if (status == "merged") out["conflicts"] = conflicts;
    if (canonicalID) out["canonical_id"] = *canonicalID;
    if (status == "rejected") {
        out["reason"] = reason;
        out["retry"] = retry;
    }
    return out;
}

ChangeApplier::ChangeApplier(Connection& db, const SyncActor& actor, BlobCheck hasBlob)
    : db_(db), actor_(actor), hasBlob_(std::move(hasBlob)) {}

Verdict ChangeApplier::apply(const Json& change) {
    Verdict verdict;
    if (change.is_object() && change.contains("id") && change["id"].is_string()) {
        verdict.id = change["id"].get<std::string>();
    }
    const std::size_t acceptedBefore = accepted_.size();
    const std::size_t fetchesBefore = groupsToFetch_.size();
    try {
        Savepoint savepoint(db_);
        Verdict result = applyOne(change);
        savepoint.release();
        return result;
    } catch (const Rejection& rejection) {
        verdict.reason = rejection.reason;
        verdict.retry = rejection.retry;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "[mirel-server] change %s failed: %s\n", shortID(verdict.id).c_str(), error.what());
        verdict.reason = "the server could not store this change";
        verdict.retry = true;
    }
    accepted_.resize(acceptedBefore);
    groupsToFetch_.resize(fetchesBefore);
    verdict.status = "rejected";
    return verdict;
}

Verdict ChangeApplier::applyOne(const Json& json) {
    if (!json.is_object()) throw Rejection{"a change must be a JSON object", false};
    Change change;
    const Json table = json.value("table", Json());
    change.spec = table.is_string() ? tableSpec(table.get<std::string>()) : nullptr;
    if (!change.spec) throw Rejection{"this server takes no changes for that table", false};
    const Json id = json.value("id", Json());
    if (!id.is_string() || !isRecordID(id.get<std::string>())) throw Rejection{"the change has no usable id", false};
    change.id = id.get<std::string>();
    const Json base = json.value("base_version", Json(0));
    if (change.spec->versioned && (!base.is_number_integer() || base.get<std::int64_t>() < 0)) {
        throw Rejection{"base_version must be a whole number", false};
    }
    if (change.spec->versioned) change.baseVersion = base.get<std::int64_t>();
    change.isDelete = json.value("delete", Json(false)) == Json(true);
    if (!change.isDelete) {
        const Json patch = json.value("patch", Json());
        if (!patch.is_object()) throw Rejection{"a change needs a patch object or \"delete\": true", false};
        for (const auto& [key, value] : patch.items()) {
            const FieldSpec* field = fieldSpec(*change.spec, key);
            if (!field) continue;  // fields of later clients, or ones this server keeps itself
            auto normalized = normalizedValue(*field, value);
            if (!normalized) throw Rejection{"the value of " + key + " is not valid", false};
            change.patch[key] = std::move(*normalized);
        }
    }

    auto existing = Records::load(db_, std::string(change.spec->table), change.id);
    if (change.isDelete) return remove(change, existing);
    if (!existing) return create(change);
    return update(change, std::move(*existing));
}

Verdict ChangeApplier::create(const Change& change) {
    const std::string table(change.spec->table);
    const Json& patch = change.patch;
    const Date now = Clock::now();
    StoredRecord record;
    record.kind = table;
    record.id = change.id;
    record.version = 1;
    record.row = newRecordDefaults(table, now);

    if (table == "captures" || table == "groups") {
        const Json ws = patch.value("workspace_id", Json());
        if (!ws.is_string()) throw Rejection{"a new " + singular(table) + " needs its workspace_id", false};
        record.workspaceID = ws.get<std::string>();
        requireAccess(record.workspaceID);
    } else {
        StoredRecord capture = requireParentCapture(patch.value("capture_id", Json()));
        record.workspaceID = capture.workspaceID;
        record.captureID = capture.id;
    }

    Json accepted = patch;
    if (table == "groups") {
        const Json name = patch.value("name", Json());
        if (!name.is_string() || name.get<std::string>().empty()) throw Rejection{"a new group needs a name", false};
        if (auto namesake = Records::groupNamed(db_, record.workspaceID, name.get<std::string>())) {
            return remap(change, std::move(*namesake));
        }
        record.row["created_by"] = actor_.user.id;
    } else if (table == "captures") {
        if (patch.contains("group_id")) accepted["group_id"] = resolvedGroup(record.workspaceID, patch["group_id"]);
        record.row["author_id"] = actor_.user.id;
    } else if (table == "capture_images") {
        if (!patch.contains("original_sha256")) throw Rejection{"a new image needs its original_sha256", false};
        requireBlobs(record.workspaceID, patch, Json::object());
    } else {
        record.row["author_id"] = actor_.user.id;
    }

    for (const auto& [key, value] : accepted.items()) {
        record.row[key] = value;
        record.stamps[key] = stamp(1, actor_.deviceID);
    }
    if (table == "captures" && record.row["captured_at"].is_null()) record.row["captured_at"] = record.row["created_at"];
    if (table == "capture_images" || table == "comments") record.row["capture_id"] = *record.captureID;
    if (table == "captures" || table == "groups") record.row["workspace_id"] = record.workspaceID;
    record.row["id"] = record.id;
    record.row["version"] = record.version;
    record.row["updated_at"] = isoDate(now);
    persist(record, table);

    if (table == "captures") History::captureCreated(db_, record, actor_.user);
    if (table == "comments") History::commentAdded(db_, record, actor_.user);
    Verdict verdict = Verdict::of(change.id, "applied");
    verdict.version = record.version;
    return verdict;
}

Verdict ChangeApplier::update(const Change& change, StoredRecord record) {
    const std::string table(change.spec->table);
    if (record.deleted) throw Rejection{"this " + singular(table) + " was deleted on the server", false};
    requireAccess(record.workspaceID);
    if (table == "comments" && record.row.value("author_id", Json()) != Json(actor_.user.id)) {
        throw Rejection{"only its author can change a comment", false};
    }

    Json patch = change.patch;
    for (const auto& field : change.spec->fields) {
        if (!field.fixed || !patch.contains(field.name)) continue;
        const std::string name(field.name);
        const bool moves = field.type == FieldType::reference && patch[name] != record.row.value(name, Json());
        if (moves) throw Rejection{"a " + singular(table) + " can't move to another " + name.substr(0, name.size() - 3), false};
        patch.erase(name);  // a repeated first value; the first one stands
    }
    if (table == "captures" && patch.contains("group_id")) {
        patch["group_id"] = resolvedGroup(record.workspaceID, patch["group_id"]);
    }
    if (table == "capture_images") requireBlobs(record.workspaceID, patch, record.row);

    // A base older than the record means the device hadn't seen some changes:
    // fields that another device set since then keep the server's value.
    const bool stale = change.spec->versioned && change.baseVersion < record.version;
    Json before = Json::object();
    std::vector<std::string> conflicts;
    std::vector<std::pair<std::string, Json>> losingValues;
    for (const auto& [key, value] : patch.items()) {
        const Json current = record.row.value(key, Json());
        if (current == value) continue;
        const Json& mark = record.stamps.value(key, Json());
        const bool changedElsewhere = mark.is_array() && mark.size() == 2 && mark[0].is_number_integer() &&
                                      mark[0].get<std::int64_t>() > change.baseVersion && mark[1] != Json(actor_.deviceID);
        bool stands = stale && changedElsewhere;
        if (!stands && table == "groups" && key == "name") {
            auto namesake = Records::groupNamed(db_, record.workspaceID, value.get<std::string>());
            stands = namesake && namesake->id != record.id;
        }
        if (stands) {
            conflicts.push_back(key);
            losingValues.emplace_back(key, value);
            continue;
        }
        before[key] = current;
        record.row[key] = value;
    }

    if (!before.empty()) {
        record.version += 1;
        for (const auto& item : before.items()) record.stamps[item.key()] = stamp(record.version, actor_.deviceID);
        record.row["version"] = record.version;
        record.row["updated_at"] = isoDate(Clock::now());
        persist(record, table);
        if (table == "captures") History::captureChanged(db_, record, before, actor_.user);
    }
    if (!losingValues.empty() && (table == "captures" || table == "capture_images")) {
        const std::string captureID = table == "captures" ? record.id : record.captureID.value_or("");
        persist(History::conflictNote(record.workspaceID, captureID, losingValues, actor_.user), "comments");
    }
    Verdict verdict = Verdict::of(change.id, stale || !conflicts.empty() ? "merged" : "applied");
    verdict.version = record.version;
    verdict.conflicts = std::move(conflicts);
    return verdict;
}

Verdict ChangeApplier::remove(const Change& change, const std::optional<StoredRecord>& existing) {
    const std::string table(change.spec->table);
    if (!change.spec->deletable) {
        throw Rejection{table == "groups" ? "groups are archived, not deleted" : "comments can't be deleted", false};
    }
    Verdict verdict = Verdict::of(change.id, "applied");
    if (!existing) return verdict;  // nothing here to delete
    requireAccess(existing->workspaceID);
    StoredRecord record = *existing;
    if (!record.deleted) {
        record.deleted = true;
        record.version += 1;
        const std::string now = isoDate(Clock::now());
        record.row["deleted_at"] = now;
        record.row["updated_at"] = now;
        record.row["version"] = record.version;
        persist(record, table);
        if (table == "captures") Records::hideChildren(db_, record.id);
    }
    verdict.version = record.version;
    return verdict;
}

Verdict ChangeApplier::remap(const Change& change, StoredRecord canonical) {
    db_.run("INSERT OR IGNORE INTO group_aliases (alias_id, group_id) VALUES (?,?);", {change.id, canonical.id});
    // Filing something under an archived group's name brings the group back.
    if (!canonical.row.value("archived_at", Json()).is_null()) {
        canonical.version += 1;
        canonical.row["archived_at"] = nullptr;
        canonical.row["version"] = canonical.version;
        canonical.row["updated_at"] = isoDate(Clock::now());
        canonical.stamps["archived_at"] = stamp(canonical.version, actor_.deviceID);
        persist(canonical, "groups");
    }
    groupsToFetch_.push_back(canonical.id);
    Verdict verdict = Verdict::of(change.id, "remapped");
    verdict.canonicalID = canonical.id;
    return verdict;
}

void ChangeApplier::requireAccess(const std::string& workspaceID) const {
    if (!actor_.workspaces.count(workspaceID)) throw Rejection{"you are not a member of that workspace", false};
}

StoredRecord ChangeApplier::requireParentCapture(const Json& captureID) const {
    if (!captureID.is_string()) throw Rejection{"capture_id is required", false};
    auto capture = Records::load(db_, "captures", captureID.get<std::string>());
    if (!capture) throw Rejection{"capture " + shortID(captureID.get<std::string>()) + " is not on the server yet", true};
    requireAccess(capture->workspaceID);
    if (capture->deleted) throw Rejection{"the capture was deleted on the server", false};
    return *capture;
}

Json ChangeApplier::resolvedGroup(const std::string& workspaceID, const Json& groupID) const {
    if (!groupID.is_string()) return groupID;
    std::string id = groupID.get<std::string>();
    if (auto canonical = db_.text("SELECT group_id FROM group_aliases WHERE alias_id = ?;", {id})) id = *canonical;
    auto group = Records::load(db_, "groups", id);
    if (!group) throw Rejection{"group " + shortID(id) + " is not on the server yet", true};
    if (group->workspaceID != workspaceID) throw Rejection{"the group belongs to another workspace", false};
    return id;
}

void ChangeApplier::requireBlobs(const std::string& workspaceID, const Json& patch, const Json& current) const {
    for (const char* field : {"original_sha256", "marked_sha256", "thumb_sha256"}) {
        const Json value = patch.value(field, Json());
        if (!value.is_string() || current.value(field, Json()) == value) continue;
        if (!hasBlob_(workspaceID, value.get<std::string>())) {
            throw Rejection{"file " + value.get<std::string>().substr(0, 8) + " has not been uploaded yet", true};
        }
    }
}

std::int64_t ChangeApplier::persist(const StoredRecord& record, const std::string& table) {
    const std::int64_t seq = Records::save(db_, record);
    accepted_.push_back({record.workspaceID, table, record.id, seq});
    return seq;
}

}  // namespace mirel::server
