// Ledger rows become the change objects of a push. What goes out is always
// the row's current value of each pending field: the ledger keeps names only.
#include "core/store/capture_store.h"
#include "core/sync/wire.h"

namespace mirel {

namespace {

Json orNull(const std::optional<std::string>& value) { return value ? Json(*value) : Json(nullptr); }

std::string text(std::string_view word) { return std::string(word); }

// Every key a capture change can carry. Tags are read only when asked for.
Json captureRecord(const Capture& c, const std::optional<std::vector<std::string>>& tags) {
    Json record = {
        {"workspace_id", orNull(c.workspaceID)},
        {"group_id", orNull(c.groupID)},
        {"note", c.note},
        {"status", text(rawValue(c.status))},
        {"priority", text(rawValue(c.priority))},
        {"app_name", orNull(c.appName)},
        {"app_bundle_id", orNull(c.appBundleID)},
        {"window_title", orNull(c.windowTitle)},
        {"url", orNull(c.url)},
        {"display_name", orNull(c.displayName)},
        {"display_scale", c.displayScale},
        {"capture_mode", text(rawValue(c.captureMode))},
        {"claimed_by_id", orNull(c.claimedByID)},
        {"claimed_label", orNull(c.claimedBy)},
        {"claimed_at", Wire::stamp(c.claimedAt)},
        {"resolved_at", Wire::stamp(c.resolvedAt)},
        {"resolution_ref", orNull(c.resolutionRef)},
        {"assignee_id", orNull(c.assigneeID)},
        {"created_at", Wire::stamp(c.createdAt)},
        {"captured_at", Wire::stamp(c.createdAt)},
    };
    if (tags) record["tags"] = *tags;
    return record;
}

// The annotation travels as a JSON value; text that does not parse goes as null.
Json annotationValue(const std::optional<std::string>& annotationJSON) {
    if (!annotationJSON) return nullptr;
    std::optional<Json> parsed = parseJSON(*annotationJSON);
    return parsed ? std::move(*parsed) : Json(nullptr);
}

Json imageRecord(const CaptureImage& image) {
    return {
        {"capture_id", image.captureID},
        {"position", image.position},
        {"original_sha256", orNull(image.originalSHA256)},
        {"marked_sha256", orNull(image.markedSHA256)},
        {"thumb_sha256", orNull(image.thumbSHA256)},
        {"width", image.width},
        {"height", image.height},
        {"bytes", image.bytes},
        {"annotation_json", annotationValue(image.annotationJSON)},
        {"created_at", Wire::stamp(image.createdAt)},
    };
}

// A group's whole record has four keys; a partial patch has its own three.
Json groupRecord(const CaptureGroup& group) {
    return {
        {"workspace_id", orNull(group.workspaceID)},
        {"name", group.name},
        {"color_hex", group.colorHex},
        {"visibility", text(rawValue(group.visibility))},
    };
}

Json groupPartial(const CaptureGroup& group, const std::set<std::string>& fields) {
    Json patch = Json::object();
    if (fields.count("name")) patch["name"] = group.name;
    if (fields.count("color_hex")) patch["color_hex"] = group.colorHex;
    if (fields.count("archived_at")) patch["archived_at"] = Wire::stamp(group.archivedAt);
    return patch;
}

// The whole record under `*`, else the keys of it that `fields` names.
Json patchOf(const Json& whole, const std::set<std::string>& fields) {
    if (fields.count("*")) return whole;
    Json patch = Json::object();
    for (const std::string& name : fields) {
        if (const auto it = whole.find(name); it != whole.end()) patch[name] = *it;
    }
    return patch;
}

Json change(const std::string& table, const std::string& id, std::int64_t baseVersion) {
    return {{"table", table}, {"id", id}, {"base_version", baseVersion}};
}

Json tombstone(const std::string& table, const std::string& id, std::int64_t baseVersion) {
    Json object = change(table, id, baseVersion);
    object["delete"] = true;
    return object;
}

std::optional<Json> withPatch(const std::string& table, const CaptureStore::Pending& pending, Json patch) {
    if (patch.empty()) return std::nullopt;
    Json object = change(table, pending.id, pending.version);
    object["patch"] = std::move(patch);
    return object;
}

bool wantsTags(const std::set<std::string>& fields) { return fields.count("*") || fields.count("tags"); }

}  // namespace

std::optional<Json> CaptureStore::captureChange(const Pending& pending) {
    const std::optional<Capture> capture = rawCapture(pending.id);
    if (!capture) return std::nullopt;
    // A tombstone goes out whatever else is pending, workspace or not.
    if (pending.fields.count("delete") || capture->deletedAt) {
        return tombstone("captures", pending.id, pending.version);
    }
    if (!capture->workspaceID) return std::nullopt;
    std::optional<std::vector<std::string>> tagNames;
    if (wantsTags(pending.fields)) tagNames = tags(pending.id);
    return withPatch("captures", pending, patchOf(captureRecord(*capture, tagNames), pending.fields));
}

std::optional<Json> CaptureStore::imageChange(const Pending& pending, const CaptureImage& image) {
    if (pending.fields.count("delete") || image.deletedAt) {
        return tombstone("capture_images", pending.id, pending.version);
    }
    // The server hears of an image only once its original has a blob.
    if (!image.originalSHA256) return std::nullopt;
    return withPatch("capture_images", pending, patchOf(imageRecord(image), pending.fields));
}

std::optional<Json> CaptureStore::groupChange(const Pending& pending) {
    const std::vector<Row> rows = db_->query("SELECT * FROM groups WHERE id = ?;", {SQLValue(pending.id)});
    if (rows.empty()) return std::nullopt;
    const CaptureGroup group = decodeGroup(rows.front());
    if (pending.fields.count("*")) {
        if (!group.workspaceID) return std::nullopt;
        return withPatch("groups", pending, groupRecord(group));
    }
    return withPatch("groups", pending, groupPartial(group, pending.fields));
}

Json CaptureStore::commentChange(const Comment& comment) {
    return {
        {"table", "comments"},
        {"id", comment.id},
        {"patch",
         {
             {"capture_id", comment.captureID},
             {"body", comment.body},
             {"created_at", Wire::stamp(comment.createdAt)},
             {"is_agent", comment.isAgent},
             {"actor_label", orNull(comment.actorLabel)},
             {"kind", comment.kind},
         }},
    };
}

void CaptureStore::markCommentSynced(const std::string& id) {
    db_->execute("UPDATE comments SET sync_state = 'synced' WHERE id = ?;", {SQLValue(id)});
}

bool CaptureStore::markSynced(const Pending& collected, const Json& sentChange,
                              const std::optional<std::int64_t>& version) {
    const Json& tableValue = Wire::field(sentChange, "table");
    const std::string table = tableValue.is_string() ? tableValue.get<std::string>() : std::string();
    if (table == "comments") {
        markCommentSynced(collected.id);
        return true;
    }
    if (table != "captures" && table != "capture_images" && table != "groups") return true;

    // One write transaction: no other writer, in this process or another, can
    // edit the row between the comparison and the clearing.
    return db_->transaction([&] {
        const std::vector<Row> rows = db_->query("SELECT * FROM " + table + " WHERE id = ?;", {SQLValue(collected.id)});
        if (rows.empty()) return true;
        const Row& row = rows.front();
        std::set<std::string> stillPending;

        // A sent value that no longer stands was edited in flight.
        const Json& sentPatch = Wire::field(sentChange, "patch");
        if (sentPatch.is_object() && row.string("sync_state") != std::optional<std::string>("local")) {
            Json current;
            if (table == "captures") {
                std::optional<std::vector<std::string>> tagNames;
                if (sentPatch.contains("tags")) tagNames = tags(collected.id);
                current = captureRecord(decodeCapture(row), tagNames);
            } else if (table == "capture_images") {
                current = imageRecord(decodeImage(row));
            } else {
                const CaptureGroup group = decodeGroup(row);
                current = groupRecord(group);
                current["archived_at"] = Wire::stamp(group.archivedAt);
            }
            for (auto it = sentPatch.begin(); it != sentPatch.end(); ++it) {
                if (Wire::field(current, it.key()) != it.value()) stillPending.insert(it.key());
            }
        }
        // So was every name marked since the row was collected.
        if (row.string("sync_state") == std::optional<std::string>("pendingPush")) {
            for (const std::string& name : pendingFields(row.string("pending"))) {
                if (!collected.fields.count(name)) stillPending.insert(name);
            }
        }

        if (stillPending.empty()) {
            markSynced(table, collected.id, version);
            return true;
        }
        Json marks = Json::object();
        for (const std::string& name : stillPending) marks[name] = true;
        db_->execute("UPDATE " + table + " SET pending = ?, sync_state = 'pendingPush', version = COALESCE(?, version) "
                         "WHERE id = ?;",
                     {SQLValue(writeJSON(marks)), version ? SQLValue(*version) : SQLValue::null(),
                      SQLValue(collected.id)});
        if (table == "captures") {
            // As for a clean row: the history from here on is what the server echoes.
            db_->execute("DELETE FROM activity WHERE capture_id = ? AND remote = 0;", {SQLValue(collected.id)});
        }
        return false;
    });
}

}  // namespace mirel
