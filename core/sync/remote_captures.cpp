// A remote capture meets the local row field by field: a field with a waiting
// local edit keeps its local value, every other field takes the server's.
#include "core/store/capture_store.h"
#include "core/sync/remote_apply.h"
#include "core/sync/wire.h"

namespace mirel {

using RemoteApply::Assignments;

namespace {

// A plain-string field: a string as it stands, anything else the default.
SQLValue wordOr(const Json& object, const char* key, const char* fallback) {
    return SQLValue(RemoteApply::stringAt(object, key).value_or(fallback));
}

SQLValue optionalText(const Json& object, const char* key) {
    return SQLValue::string(Wire::str(Wire::field(object, key)));
}

SQLValue optionalDate(const Json& object, const char* key) {
    return SQLValue::date(Wire::date(Wire::field(object, key)));
}

// The ledger's fields in table order: pending name, column, incoming value.
void addLedgerFields(Assignments& into, const Json& object, const std::set<std::string>& pending) {
    into.addUnless(pending, "note", "note", wordOr(object, "note", ""));
    into.addUnless(pending, "status", "status", wordOr(object, "status", "open"));
    into.addUnless(pending, "priority", "priority", wordOr(object, "priority", "normal"));
    for (const char* name : {"group_id", "assignee_id", "app_name", "app_bundle_id", "window_title", "url",
                             "display_name"}) {
        into.addUnless(pending, name, name, optionalText(object, name));
    }
    into.addUnless(pending, "display_scale", "display_scale",
                   SQLValue(Wire::floating(Wire::field(object, "display_scale"))));
    into.addUnless(pending, "capture_mode", "capture_mode", wordOr(object, "capture_mode", "region"));
    into.addUnless(pending, "claimed_by_id", "claimed_by_id", optionalText(object, "claimed_by_id"));
    into.addUnless(pending, "claimed_label", "claimed_by", optionalText(object, "claimed_label"));
    into.addUnless(pending, "claimed_at", "claimed_at", optionalDate(object, "claimed_at"));
    into.addUnless(pending, "resolved_at", "resolved_at", optionalDate(object, "resolved_at"));
    into.addUnless(pending, "resolution_ref", "resolution_ref", optionalText(object, "resolution_ref"));
}

// The fields that follow the server whatever is pending.
void addServerFields(Assignments& into, const Json& object) {
    into.add("workspace_id", optionalText(object, "workspace_id"));
    into.add("author_id", optionalText(object, "author_id"));
    into.add("updated_at", SQLValue(Wire::date(Wire::field(object, "updated_at")).value_or(Clock::now())));
    into.add("version", SQLValue(Wire::integer(Wire::field(object, "version"))));
    into.add("local_only", SQLValue(0));
}

}  // namespace

void CaptureStore::applyRemoteCapture(const Json& object) {
    const std::optional<std::string> id = RemoteApply::safeIDAt(object, "id");
    if (!id) return;
    // The workspace id later names blobs in URLs; one that could not is refused with its object.
    if (const auto workspace = Wire::str(Wire::field(object, "workspace_id"));
        workspace && !RemoteApply::isSafeID(*workspace)) {
        return;
    }
    // A remote delete wins over every local edit.
    if (Wire::date(Wire::field(object, "deleted_at"))) {
        dropCapture(*id);
        return;
    }
    // Read and write in one transaction, so that a local edit from another
    // process cannot land between them and lose its value.
    const bool tagsProtected = db_->transaction([&] {
        const std::vector<Row> rows =
            db_->query("SELECT * FROM captures WHERE id = ?;", {SQLValue(*id)});
        const bool exists = !rows.empty();
        const std::set<std::string> pending = exists ? RemoteApply::protectedFields(rows.front())
                                                     : std::set<std::string>();
        // A waiting local tombstone wins over a remote edit.
        if (pending.count("delete")) return true;

        if (exists) {
            Assignments update;
            addServerFields(update, object);
            addLedgerFields(update, object, pending);
            if (pending.empty()) {
                update.add("sync_state", SQLValue("synced"));
                update.add("pending", SQLValue::null());
            }
            update.dropUnchanged(rows.front());
            if (!update.empty()) db_->execute(update.updateSQL("captures"), update.updateValues(*id));
        } else {
            Assignments insert;
            insert.add("id", SQLValue(*id));
            insert.add("created_at",
                       SQLValue(Wire::date(Wire::field(object, "created_at")).value_or(Clock::now())));
            insert.add("image_path", SQLValue(""));
            insert.add("sync_state", SQLValue("synced"));
            insert.add("dirty", SQLValue(0));
            addServerFields(insert, object);
            addLedgerFields(insert, object, pending);
            db_->execute(insert.insertSQL("captures"), insert.values());
        }
        return pending.count("tags") > 0;
    });
    if (!tagsProtected) replaceTags(Wire::strings(Wire::field(object, "tags")), *id);
}

void CaptureStore::dropCapture(const std::string& id) {
    for (const Row& row :
         db_->query("SELECT * FROM capture_images WHERE capture_id = ?;", {SQLValue(id)})) {
        removeImageFiles(decodeImage(row));
    }
    // The schema's cascades take images, comments, activity and tag links along.
    db_->execute("DELETE FROM captures WHERE id = ?;", {SQLValue(id)});
}

}  // namespace mirel
