#include "tests/support/seed.h"

#include "core/platform/clock.h"

namespace mirel::test {

namespace {

SQLValue text(const std::string& value) { return SQLValue(value); }
SQLValue text(const std::optional<std::string>& value) { return SQLValue::string(value); }
SQLValue word(std::string_view raw) { return SQLValue(std::string(raw)); }

}  // namespace

Capture makeCapture(const std::string& note, Date createdAt, bool withImage) {
    Capture c;
    c.id = newID(), c.createdAt = c.updatedAt = createdAt, c.note = note;
    if (withImage) c.imagePath = *(c.thumbPath = "2024/05/" + c.id + ".png"), c.imageWidth = 800, c.imageHeight = 600, c.imageBytes = 12345;
    else c.captureMode = CaptureMode::text;
    return c;
}

CaptureImage makeImage(const std::string& captureID, std::int64_t position, Date createdAt) {
    CaptureImage image;
    image.id = newID(), image.captureID = captureID, image.position = position, image.createdAt = createdAt;
    image.imagePath = *(image.thumbPath = "2024/05/" + image.id + ".png");
    image.width = 800, image.height = 600, image.bytes = 12345;
    return image;
}

CaptureGroup makeGroup(const std::string& name, const std::optional<std::string>& workspaceID) {
    CaptureGroup group;
    group.id = newID(), group.name = name, group.createdAt = group.updatedAt = kSeedDate, group.workspaceID = workspaceID;
    return group;
}

Comment makeComment(const std::string& captureID, const std::string& body, const std::string& author,
                    bool isAgent, Date createdAt) {
    return Comment::written(captureID, author, isAgent, body, createdAt);
}

void seedCaptureRow(Database& db, const Capture& c) {
    db.execute(
        "INSERT INTO captures (id, created_at, updated_at, note, status, priority, group_id, "
        "image_path, thumb_path, image_width, image_height, image_bytes, capture_mode, app_name, "
        "app_bundle_id, window_title, url, display_name, display_scale, claimed_by, claimed_at, "
        "resolved_at, resolution_ref, remote_id, sync_state, dirty, deleted_at, workspace_id, "
        "author_id, assignee_id, claimed_by_id, version, local_only) VALUES "
        "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
        "?, ?, ?);",
        {text(c.id), c.createdAt, c.updatedAt, text(c.note), word(rawValue(c.status)),
         word(rawValue(c.priority)), text(c.groupID), text(c.imagePath), text(c.thumbPath),
         c.imageWidth, c.imageHeight, c.imageBytes, word(rawValue(c.captureMode)), text(c.appName),
         text(c.appBundleID), text(c.windowTitle), text(c.url), text(c.displayName), c.displayScale,
         text(c.claimedBy), SQLValue::date(c.claimedAt), SQLValue::date(c.resolvedAt),
         text(c.resolutionRef), text(c.remoteID), word(rawValue(c.syncState)),
         SQLValue::boolean(c.dirty), SQLValue::date(c.deletedAt), text(c.workspaceID),
         text(c.authorID), text(c.assigneeID), text(c.claimedByID), c.version,
         SQLValue::boolean(c.localOnly)});
}

void seedImageRow(Database& db, const CaptureImage& i) {
    db.execute(
        "INSERT INTO capture_images (id, capture_id, position, image_path, annotated_path, "
        "thumb_path, width, height, bytes, annotation_json, created_at, remote_id, sync_state, "
        "dirty, original_sha256, marked_sha256, thumb_sha256, version, deleted_at) VALUES "
        "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);",
        {text(i.id), text(i.captureID), i.position, text(i.imagePath), text(i.annotatedPath),
         text(i.thumbPath), i.width, i.height, i.bytes, text(i.annotationJSON), i.createdAt,
         text(i.remoteID), word(rawValue(i.syncState)), SQLValue::boolean(i.dirty),
         text(i.originalSHA256), text(i.markedSHA256), text(i.thumbSHA256), i.version,
         SQLValue::date(i.deletedAt)});
}

void seedGroupRow(Database& db, const CaptureGroup& g) {
    db.execute(
        "INSERT INTO groups (id, name, color_hex, path, created_at, updated_at, remote_id, "
        "sync_state, dirty, deleted_at, workspace_id, visibility, created_by, "
        "default_assignee_id, archived_at, version) VALUES "
        "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);",
        {text(g.id), text(g.name), text(g.colorHex), text(g.path), g.createdAt, g.updatedAt,
         text(g.remoteID), word(rawValue(g.syncState)), SQLValue::boolean(g.dirty),
         SQLValue::date(g.deletedAt), text(g.workspaceID), word(rawValue(g.visibility)),
         text(g.createdBy), text(g.defaultAssigneeID), SQLValue::date(g.archivedAt), g.version});
}

void seedComment(Database& db, const Comment& c) {
    db.execute(
        "INSERT INTO comments (id, capture_id, author, is_agent, body, created_at, author_id, "
        "actor_label, kind, sync_state) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?);",
        {text(c.id), text(c.captureID), text(c.author), SQLValue::boolean(c.isAgent), text(c.body),
         c.createdAt, text(c.authorID), text(c.actorLabel), text(c.kind),
         word(rawValue(c.syncState))});
}

void setColumn(Database& db, const std::string& table, const std::string& id,
               const std::string& column, const SQLValue& value) {
    db.execute("UPDATE " + table + " SET " + column + " = ? WHERE id = ?;", {value, id});
}

}  // namespace mirel::test
