#include "server/storage.h"

#include "server/crypto.h"

#include "core/platform/file_io.h"


#include <fstream>
#include <sstream>

namespace mirel::server {

namespace {

constexpr int kSchemaVersion = 2;

// One generic table holds the records of every kind: the server needs the same
// bookkeeping for each (version, change sequence, field stamps, access by
// workspace), and sends rows back as the JSON objects the clients apply.
constexpr const char* kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL UNIQUE COLLATE NOCASE,
    name TEXT NOT NULL,
    password_hash TEXT NOT NULL,
    created_at REAL NOT NULL);
CREATE TABLE IF NOT EXISTS workspaces (
    id TEXT PRIMARY KEY,
    slug TEXT NOT NULL UNIQUE,
    name TEXT NOT NULL,
    created_at REAL NOT NULL);
CREATE TABLE IF NOT EXISTS memberships (
    workspace_id TEXT NOT NULL REFERENCES workspaces(id) ON DELETE CASCADE,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    role TEXT NOT NULL,
    PRIMARY KEY (workspace_id, user_id));
CREATE TABLE IF NOT EXISTS sessions (
    token_hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    created_at REAL NOT NULL,
    last_used_at REAL NOT NULL);
CREATE TABLE IF NOT EXISTS device_codes (
    code_hash TEXT PRIMARY KEY,
    user_code TEXT NOT NULL UNIQUE,
    expires_at REAL NOT NULL,
    interval REAL NOT NULL,
    last_poll_at REAL,
    state TEXT NOT NULL DEFAULT 'pending',
    user_id TEXT REFERENCES users(id) ON DELETE CASCADE,
    failed_attempts INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS devices (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    name TEXT NOT NULL,
    platform TEXT NOT NULL,
    app_version TEXT,
    created_at REAL NOT NULL,
    last_seen_at REAL NOT NULL,
    PRIMARY KEY (user_id, id));
CREATE TABLE IF NOT EXISTS device_state (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    device_id TEXT NOT NULL,
    known_workspaces TEXT NOT NULL,
    last_sync_at REAL NOT NULL,
    PRIMARY KEY (user_id, device_id));
CREATE TABLE IF NOT EXISTS records (
    kind TEXT NOT NULL,
    id TEXT NOT NULL,
    workspace_id TEXT NOT NULL,
    capture_id TEXT,
    group_id TEXT,
    version INTEGER NOT NULL,
    seq INTEGER NOT NULL,
    row TEXT NOT NULL,
    stamps TEXT NOT NULL DEFAULT '{}',
    deleted INTEGER NOT NULL DEFAULT 0,
    gone INTEGER NOT NULL DEFAULT 0,
    name_key TEXT,
    PRIMARY KEY (kind, id));
CREATE INDEX IF NOT EXISTS records_seq ON records(seq);
CREATE INDEX IF NOT EXISTS records_capture ON records(capture_id);
CREATE UNIQUE INDEX IF NOT EXISTS records_group_name ON records(workspace_id, name_key) WHERE kind = 'groups';
CREATE TABLE IF NOT EXISTS group_aliases (
    alias_id TEXT PRIMARY KEY,
    group_id TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS blobs (
    workspace_id TEXT NOT NULL,
    sha256 TEXT NOT NULL,
    bytes INTEGER NOT NULL,
    content_type TEXT NOT NULL,
    stored_at REAL NOT NULL,
    PRIMARY KEY (workspace_id, sha256));
INSERT OR IGNORE INTO meta (key, value) VALUES ('seq', '0');
)SQL";

std::string readOrMakeKey(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (in) {
        std::ostringstream bytes;
        bytes << in.rdbuf();
        std::string key = bytes.str();
        if (key.size() == 32) return key;
        throw StorageError("the URL signing key " + path.string() + " is damaged; remove it to make a new one");
    }
    std::string key = randomBytes(32);
    writeFileAtomically(path, key, 0600, Durability::beforeRename);
    return key;
}

}  // namespace

Storage::Storage(std::filesystem::path folder)
    : folder_(std::move(folder)), pool_(folder_ / "server.sqlite") {
    std::filesystem::create_directories(folder_);
    std::filesystem::permissions(folder_, std::filesystem::perms::owner_all, std::filesystem::perm_options::replace);
    std::filesystem::create_directories(blobsFolder() / "incoming");
    auto connection = this->connection();
    auto version = connection->integer("PRAGMA user_version;").value_or(0);
    if (version > kSchemaVersion) {
        throw StorageError("the data folder was written by a newer mirel-server (schema " + std::to_string(version) + ")");
    }
    if (version == 1) {
        // Version 2 keeps a capture's group beside its row, for the feed.
        connection->execute("ALTER TABLE records ADD COLUMN group_id TEXT;"
                            "UPDATE records SET group_id = json_extract(row, '$.group_id') WHERE kind = 'captures';");
    }
    connection->execute(kSchema);
    connection->execute("PRAGMA user_version = " + std::to_string(kSchemaVersion) + ";");
    urlSigningKey_ = readOrMakeKey(folder_ / "url-signing.key");
}

std::int64_t Storage::currentSequence(Connection& connection) {
    return connection.integer("SELECT CAST(value AS INTEGER) FROM meta WHERE key = 'seq';").value_or(0);
}

std::int64_t Storage::nextSequence(Connection& connection) {
    return connection
        .integer("UPDATE meta SET value = CAST(value AS INTEGER) + 1 WHERE key = 'seq' RETURNING CAST(value AS INTEGER);")
        .value();
}

}  // namespace mirel::server
