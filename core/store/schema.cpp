#include "core/store/schema.h"

#include <string>

namespace mirel::Schema {

namespace {

// The first schema: captures filed under projects.
constexpr const char* kStep1 = R"SQL(
CREATE TABLE IF NOT EXISTS projects (
    id             TEXT PRIMARY KEY,
    name           TEXT NOT NULL,
    color_hex      TEXT NOT NULL DEFAULT '#6E7BF2',
    path           TEXT,
    created_at     REAL NOT NULL,
    updated_at     REAL NOT NULL,
    remote_id      TEXT,
    sync_state     TEXT NOT NULL DEFAULT 'local',
    dirty          INTEGER NOT NULL DEFAULT 0,
    deleted_at     REAL
);
CREATE UNIQUE INDEX IF NOT EXISTS idx_projects_name ON projects(name) WHERE deleted_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_projects_path ON projects(path);

CREATE TABLE IF NOT EXISTS captures (
    id             TEXT PRIMARY KEY,
    created_at     REAL NOT NULL,
    updated_at     REAL NOT NULL,
    note           TEXT NOT NULL DEFAULT '',
    status         TEXT NOT NULL DEFAULT 'open',
    priority       TEXT NOT NULL DEFAULT 'normal',
    project_id     TEXT REFERENCES projects(id) ON DELETE SET NULL,
    image_path     TEXT NOT NULL,
    thumb_path     TEXT,
    image_width    INTEGER NOT NULL DEFAULT 0,
    image_height   INTEGER NOT NULL DEFAULT 0,
    image_bytes    INTEGER NOT NULL DEFAULT 0,
    capture_mode   TEXT NOT NULL DEFAULT 'region',
    app_name       TEXT,
    app_bundle_id  TEXT,
    window_title   TEXT,
    url            TEXT,
    display_name   TEXT,
    claimed_by     TEXT,
    claimed_at     REAL,
    resolved_at    REAL,
    resolution_ref TEXT,
    remote_id      TEXT,
    sync_state     TEXT NOT NULL DEFAULT 'local',
    dirty          INTEGER NOT NULL DEFAULT 0,
    deleted_at     REAL
);
CREATE INDEX IF NOT EXISTS idx_captures_status ON captures(status) WHERE deleted_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_captures_created ON captures(created_at) WHERE deleted_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_captures_project ON captures(project_id) WHERE deleted_at IS NULL;

CREATE TABLE IF NOT EXISTS tags (
    id             TEXT PRIMARY KEY,
    name           TEXT NOT NULL,
    created_at     REAL NOT NULL
);
CREATE UNIQUE INDEX IF NOT EXISTS idx_tags_name ON tags(name);

CREATE TABLE IF NOT EXISTS capture_tags (
    capture_id     TEXT NOT NULL REFERENCES captures(id) ON DELETE CASCADE,
    tag_id         TEXT NOT NULL REFERENCES tags(id) ON DELETE CASCADE,
    PRIMARY KEY (capture_id, tag_id)
);
CREATE INDEX IF NOT EXISTS idx_capture_tags_tag ON capture_tags(tag_id);

CREATE TABLE IF NOT EXISTS comments (
    id             TEXT PRIMARY KEY,
    capture_id     TEXT NOT NULL REFERENCES captures(id) ON DELETE CASCADE,
    author         TEXT NOT NULL,
    is_agent       INTEGER NOT NULL DEFAULT 0,
    body           TEXT NOT NULL,
    created_at     REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_comments_capture ON comments(capture_id, created_at);

CREATE TABLE IF NOT EXISTS activity (
    id             TEXT PRIMARY KEY,
    capture_id     TEXT REFERENCES captures(id) ON DELETE CASCADE,
    kind           TEXT NOT NULL,
    detail         TEXT NOT NULL DEFAULT '',
    actor          TEXT NOT NULL DEFAULT 'you',
    created_at     REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_activity_capture ON activity(capture_id, created_at);
CREATE INDEX IF NOT EXISTS idx_activity_created ON activity(created_at);
)SQL";

// Several images per capture. Soft-deleted captures get no image row: their
// files were purged when they were deleted.
constexpr const char* kStep2 = R"SQL(
CREATE TABLE IF NOT EXISTS capture_images (
    id             TEXT PRIMARY KEY,
    capture_id     TEXT NOT NULL REFERENCES captures(id) ON DELETE CASCADE,
    position       INTEGER NOT NULL DEFAULT 0,
    image_path     TEXT NOT NULL,
    annotated_path TEXT,
    thumb_path     TEXT,
    width          INTEGER NOT NULL DEFAULT 0,
    height         INTEGER NOT NULL DEFAULT 0,
    bytes          INTEGER NOT NULL DEFAULT 0,
    annotation_json TEXT,
    created_at     REAL NOT NULL,
    remote_id      TEXT,
    sync_state     TEXT NOT NULL DEFAULT 'local',
    dirty          INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX IF NOT EXISTS idx_capture_images_capture ON capture_images(capture_id, position);
INSERT INTO capture_images (id, capture_id, position, image_path, thumb_path, width, height, bytes, created_at) SELECT lower(hex(randomblob(16))), id, 0, image_path, thumb_path, image_width, image_height, image_bytes, created_at FROM captures WHERE deleted_at IS NULL AND NOT EXISTS (SELECT 1 FROM capture_images ci WHERE ci.capture_id = captures.id);
)SQL";

// Projects become groups. SQLite rewrites the captures' foreign key to follow.
constexpr const char* kStep3 = R"SQL(
ALTER TABLE projects RENAME TO groups;
ALTER TABLE captures RENAME COLUMN project_id TO group_id;
DROP INDEX IF EXISTS idx_projects_name;
DROP INDEX IF EXISTS idx_projects_path;
DROP INDEX IF EXISTS idx_captures_project;
CREATE UNIQUE INDEX IF NOT EXISTS idx_groups_name ON groups(name) WHERE deleted_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_groups_path ON groups(path);
CREATE INDEX IF NOT EXISTS idx_captures_group ON captures(group_id) WHERE deleted_at IS NULL;
)SQL";

// The screen's scale at capture time.
constexpr const char* kStep4 = R"SQL(
ALTER TABLE captures ADD COLUMN display_scale REAL NOT NULL DEFAULT 0;
)SQL";

// Identity, sharing and sync. Runs with foreign keys off (see migrate), so
// that parent and child rows can be rewritten one table at a time.
constexpr const char* kStep5 = R"SQL(
UPDATE captures SET id = lower(id), group_id = lower(group_id);
UPDATE groups SET id = lower(id);
UPDATE capture_images SET id = lower(id), capture_id = lower(capture_id);
UPDATE comments SET id = lower(id), capture_id = lower(capture_id);
UPDATE activity SET id = lower(id), capture_id = lower(capture_id);
UPDATE tags SET id = lower(id);
UPDATE capture_tags SET capture_id = lower(capture_id), tag_id = lower(tag_id);

ALTER TABLE captures ADD COLUMN workspace_id TEXT;
ALTER TABLE captures ADD COLUMN author_id TEXT;
ALTER TABLE captures ADD COLUMN assignee_id TEXT;
ALTER TABLE captures ADD COLUMN claimed_by_id TEXT;
ALTER TABLE captures ADD COLUMN version INTEGER NOT NULL DEFAULT 0;
ALTER TABLE captures ADD COLUMN pending TEXT;
ALTER TABLE captures ADD COLUMN local_only INTEGER NOT NULL DEFAULT 0;
CREATE INDEX IF NOT EXISTS idx_captures_workspace ON captures(workspace_id) WHERE deleted_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_captures_sync ON captures(sync_state);

ALTER TABLE groups ADD COLUMN workspace_id TEXT;
ALTER TABLE groups ADD COLUMN visibility TEXT NOT NULL DEFAULT 'private';
ALTER TABLE groups ADD COLUMN created_by TEXT;
ALTER TABLE groups ADD COLUMN default_assignee_id TEXT;
ALTER TABLE groups ADD COLUMN archived_at REAL;
ALTER TABLE groups ADD COLUMN version INTEGER NOT NULL DEFAULT 0;
ALTER TABLE groups ADD COLUMN pending TEXT;
DROP INDEX IF EXISTS idx_groups_name;
CREATE UNIQUE INDEX IF NOT EXISTS idx_groups_name ON groups(COALESCE(workspace_id, ''), name) WHERE deleted_at IS NULL;

ALTER TABLE capture_images ADD COLUMN original_sha256 TEXT;
ALTER TABLE capture_images ADD COLUMN marked_sha256 TEXT;
ALTER TABLE capture_images ADD COLUMN thumb_sha256 TEXT;
ALTER TABLE capture_images ADD COLUMN version INTEGER NOT NULL DEFAULT 0;
ALTER TABLE capture_images ADD COLUMN pending TEXT;
ALTER TABLE capture_images ADD COLUMN deleted_at REAL;

ALTER TABLE comments ADD COLUMN author_id TEXT;
ALTER TABLE comments ADD COLUMN actor_label TEXT;
ALTER TABLE comments ADD COLUMN kind TEXT NOT NULL DEFAULT 'comment';
ALTER TABLE comments ADD COLUMN sync_state TEXT NOT NULL DEFAULT 'local';

ALTER TABLE activity ADD COLUMN actor_id TEXT;
ALTER TABLE activity ADD COLUMN remote INTEGER NOT NULL DEFAULT 0;

CREATE TABLE IF NOT EXISTS people (
    id             TEXT PRIMARY KEY,
    name           TEXT NOT NULL,
    email          TEXT,
    image_url      TEXT,
    kind           TEXT NOT NULL DEFAULT 'person',
    updated_at     REAL NOT NULL
);

CREATE TABLE IF NOT EXISTS workspaces (
    id             TEXT PRIMARY KEY,
    name           TEXT NOT NULL,
    slug           TEXT NOT NULL,
    role           TEXT NOT NULL,
    settings_json  TEXT,
    updated_at     REAL NOT NULL
);

CREATE TABLE IF NOT EXISTS group_members (
    group_id       TEXT NOT NULL,
    user_id        TEXT NOT NULL,
    removed_at     REAL,
    PRIMARY KEY (group_id, user_id)
);

CREATE TABLE IF NOT EXISTS sync_meta (
    key            TEXT PRIMARY KEY,
    value          TEXT NOT NULL
);

CREATE TABLE IF NOT EXISTS sync_log (
    id             INTEGER PRIMARY KEY AUTOINCREMENT,
    at             REAL NOT NULL,
    level          TEXT NOT NULL,
    message        TEXT NOT NULL
);
)SQL";

}  // namespace

std::string_view stepSQL(int step) {
    switch (step) {
        case 1: return kStep1;
        case 2: return kStep2;
        case 3: return kStep3;
        case 4: return kStep4;
        case 5: return kStep5;
        default: return {};
    }
}

namespace {

std::int64_t userVersion(Database& db) {
    const std::vector<Row> rows = db.query("PRAGMA user_version;");
    return rows.empty() ? 0 : rows.front().intValue("user_version").value_or(0);
}

// Steps that rewrite ids of parents and children one table at a time.
bool needsForeignKeysOff(int step) { return step == 5; }

}  // namespace

void migrate(Database& db) {
    // A later schema than ours is opened as it stands.
    if (userVersion(db) >= currentVersion) return;
    for (int step = 1; step <= currentVersion; ++step) {
        // SQLite ignores this switch inside a transaction, so it goes round it.
        const bool keysOff = needsForeignKeysOff(step);
        if (keysOff) db.executeRaw("PRAGMA foreign_keys = OFF;");
        try {
            // Each step and its version number land together, under the write
            // lock: a process that waited here sees what the other one did,
            // and a step that fails leaves the last completed version.
            db.transaction([&] {
                if (userVersion(db) >= step) return;
                db.executeRaw(std::string(stepSQL(step)));
                db.executeRaw("PRAGMA user_version = " + std::to_string(step) + ";");
            });
        } catch (...) {
            if (keysOff) db.executeRaw("PRAGMA foreign_keys = ON;");
            throw;
        }
        if (keysOff) db.executeRaw("PRAGMA foreign_keys = ON;");
    }
}

}  // namespace mirel::Schema
