// Row decoders. Reading is forgiving: every field takes the fitting Row
// accessor and, when the column is absent, NULL or of the wrong kind, a fixed
// fallback. None of them fails, and the stored row is never changed.
#include "core/store/row_decoding.h"

namespace mirel {

namespace {

std::string textOr(const Row& row, const char* column, const char* fallback) {
    auto value = row.string(column);
    return value ? std::move(*value) : std::string(fallback);
}

std::string idOrNew(const Row& row) {
    auto value = row.string("id");
    return value ? std::move(*value) : newID();
}

Date dateOrNow(const Row& row, const char* column) {
    const auto value = row.date(column);
    return value ? *value : Clock::now();
}

std::int64_t intOrZero(const Row& row, const char* column) {
    return row.intValue(column).value_or(0);
}

// Two stages: the word (or the default word when missing), then the parser;
// a word that is none of the raw values falls back to the same default.
template <class Enum, class Parser>
Enum enumOr(const Row& row, const char* column, Enum fallback, Parser parse) {
    const auto word = row.string(column);
    if (!word) return fallback;
    return parse(*word).value_or(fallback);
}

SyncState syncStateOf(const Row& row) {
    return enumOr(row, "sync_state", SyncState::local, syncStateFrom);
}

}  // namespace

namespace RowDecoding {

Capture decodeCapture(const Row& row) {
    Capture c;
    c.id = idOrNew(row);
    c.createdAt = dateOrNow(row, "created_at");
    c.updatedAt = dateOrNow(row, "updated_at");
    c.note = textOr(row, "note", "");
    c.status = enumOr(row, "status", CaptureStatus::open, captureStatusFrom);
    c.priority = enumOr(row, "priority", CapturePriority::normal, capturePriorityFrom);
    c.groupID = row.string("group_id");
    c.imagePath = textOr(row, "image_path", "");
    c.thumbPath = row.string("thumb_path");
    c.imageWidth = intOrZero(row, "image_width");
    c.imageHeight = intOrZero(row, "image_height");
    c.imageBytes = intOrZero(row, "image_bytes");
    c.captureMode = enumOr(row, "capture_mode", CaptureMode::region, captureModeFrom);
    c.appName = row.string("app_name");
    c.appBundleID = row.string("app_bundle_id");
    c.windowTitle = row.string("window_title");
    c.url = row.string("url");
    c.displayName = row.string("display_name");
    c.displayScale = row.doubleValue("display_scale").value_or(0);
    c.claimedBy = row.string("claimed_by");
    c.claimedAt = row.date("claimed_at");
    c.resolvedAt = row.date("resolved_at");
    c.resolutionRef = row.string("resolution_ref");
    c.remoteID = row.string("remote_id");
    c.syncState = syncStateOf(row);
    c.dirty = row.boolValue("dirty");
    c.deletedAt = row.date("deleted_at");
    c.workspaceID = row.string("workspace_id");
    c.authorID = row.string("author_id");
    c.assigneeID = row.string("assignee_id");
    c.claimedByID = row.string("claimed_by_id");
    c.version = intOrZero(row, "version");
    c.localOnly = row.boolValue("local_only");
    return c;
}

CaptureGroup decodeGroup(const Row& row) {
    CaptureGroup g;
    g.id = idOrNew(row);
    g.name = textOr(row, "name", "Untitled");
    g.colorHex = textOr(row, "color_hex", "#6E7BF2");
    g.path = row.string("path");
    g.createdAt = dateOrNow(row, "created_at");
    g.updatedAt = dateOrNow(row, "updated_at");
    g.remoteID = row.string("remote_id");
    g.syncState = syncStateOf(row);
    g.dirty = row.boolValue("dirty");
    g.deletedAt = row.date("deleted_at");
    g.workspaceID = row.string("workspace_id");
    g.visibility = enumOr(row, "visibility", GroupVisibility::private_, groupVisibilityFrom);
    g.createdBy = row.string("created_by");
    g.defaultAssigneeID = row.string("default_assignee_id");
    g.archivedAt = row.date("archived_at");
    g.version = intOrZero(row, "version");
    return g;
}

CaptureImage decodeImage(const Row& row) {
    CaptureImage i;
    i.id = idOrNew(row);
    i.captureID = textOr(row, "capture_id", "");
    i.position = intOrZero(row, "position");
    i.imagePath = textOr(row, "image_path", "");
    i.annotatedPath = row.string("annotated_path");
    i.thumbPath = row.string("thumb_path");
    i.width = intOrZero(row, "width");
    i.height = intOrZero(row, "height");
    i.bytes = intOrZero(row, "bytes");
    i.annotationJSON = row.string("annotation_json");
    i.createdAt = dateOrNow(row, "created_at");
    i.remoteID = row.string("remote_id");
    i.syncState = syncStateOf(row);
    i.dirty = row.boolValue("dirty");
    i.originalSHA256 = row.string("original_sha256");
    i.markedSHA256 = row.string("marked_sha256");
    i.thumbSHA256 = row.string("thumb_sha256");
    i.version = intOrZero(row, "version");
    i.deletedAt = row.date("deleted_at");
    return i;
}

Comment decodeComment(const Row& row) {
    Comment c;
    c.id = idOrNew(row);
    c.captureID = textOr(row, "capture_id", "");
    c.author = textOr(row, "author", "unknown");
    c.isAgent = row.boolValue("is_agent");
    c.body = textOr(row, "body", "");
    c.createdAt = dateOrNow(row, "created_at");
    c.authorID = row.string("author_id");
    c.actorLabel = row.string("actor_label");
    c.kind = textOr(row, "kind", "comment");
    c.syncState = syncStateOf(row);
    return c;
}

ActivityEvent decodeActivity(const Row& row) {
    ActivityEvent e;
    e.id = idOrNew(row);
    e.captureID = row.string("capture_id");
    e.kind = textOr(row, "kind", "");
    e.detail = textOr(row, "detail", "");
    e.actor = textOr(row, "actor", "you");
    e.createdAt = dateOrNow(row, "created_at");
    e.actorID = row.string("actor_id");
    e.remote = row.boolValue("remote");
    return e;
}

Person decodePerson(const Row& row) {
    Person p;
    p.id = textOr(row, "id", "");
    p.name = textOr(row, "name", "Someone");
    p.email = row.string("email");
    p.imageURL = row.string("image_url");
    p.kind = textOr(row, "kind", "person");
    return p;
}

Workspace decodeWorkspace(const Row& row) {
    Workspace w;
    w.id = textOr(row, "id", "");
    w.name = textOr(row, "name", "");
    w.slug = textOr(row, "slug", "");
    w.role = textOr(row, "role", "member");
    w.settingsJSON = row.string("settings_json");
    return w;
}

}  // namespace RowDecoding
}  // namespace mirel
