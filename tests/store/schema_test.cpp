#include "core/store/schema.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace mirel {
namespace {

std::int64_t userVersion(Database& db) {
    return db.query("PRAGMA user_version;")[0].intValue("user_version").value_or(-1);
}

std::string text(const Row& row, const std::string& column) {
    return row.string(column).value_or("NULL");
}

// The schema as lines that name every table, column, foreign key and index
// with the properties that make up the file format.
std::vector<std::string> describe(Database& db) {
    std::vector<std::string> lines;
    for (const Row& table : db.query(
             "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY name")) {
        const std::string name = text(table, "name");
        lines.push_back("table " + name);
        for (const Row& c : db.query("PRAGMA table_info(" + name + ")")) {
            std::string line = name + "." + text(c, "name") + " " + text(c, "type");
            if (c.boolValue("notnull")) line += " NOT NULL";
            if (auto dflt = c.string("dflt_value")) line += " DEFAULT " + *dflt;
            if (auto pk = c.intValue("pk"); pk && *pk > 0) line += " PK" + std::to_string(*pk);
            lines.push_back(line);
        }
        for (const Row& fk : db.query("PRAGMA foreign_key_list(" + name + ")")) {
            lines.push_back("fk " + name + "." + text(fk, "from") + " -> " + text(fk, "table") + "." +
                            text(fk, "to") + " ON DELETE " + text(fk, "on_delete"));
        }
        for (const Row& index : db.query("PRAGMA index_list(" + name + ")")) {
            if (text(index, "origin") != "c") continue;  // implicit primary-key indexes
            const std::string indexName = text(index, "name");
            std::vector<std::string> columns;
            for (const Row& column : db.query("PRAGMA index_info(" + indexName + ")")) {
                columns.push_back(column.string("name").value_or("<expr>"));
            }
            std::string line = "index " + indexName + " " + name + "(" + columns.front();
            for (std::size_t i = 1; i < columns.size(); ++i) line += ", " + columns[i];
            line += ")";
            if (index.boolValue("unique")) line += " unique";
            if (index.boolValue("partial")) line += " partial";
            lines.push_back(line);
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

const std::vector<std::string>& expectedSchema() {
    static const std::vector<std::string> lines = [] {
        std::vector<std::string> l = {
            "table activity",
            "activity.id TEXT PK1",
            "activity.capture_id TEXT",
            "activity.kind TEXT NOT NULL",
            "activity.detail TEXT NOT NULL DEFAULT ''",
            "activity.actor TEXT NOT NULL DEFAULT 'you'",
            "activity.created_at REAL NOT NULL",
            "activity.actor_id TEXT",
            "activity.remote INTEGER NOT NULL DEFAULT 0",
            "fk activity.capture_id -> captures.id ON DELETE CASCADE",
            "index idx_activity_capture activity(capture_id, created_at)",
            "index idx_activity_created activity(created_at)",

            "table capture_images",
            "capture_images.id TEXT PK1",
            "capture_images.capture_id TEXT NOT NULL",
            "capture_images.position INTEGER NOT NULL DEFAULT 0",
            "capture_images.image_path TEXT NOT NULL",
            "capture_images.annotated_path TEXT",
            "capture_images.thumb_path TEXT",
            "capture_images.width INTEGER NOT NULL DEFAULT 0",
            "capture_images.height INTEGER NOT NULL DEFAULT 0",
            "capture_images.bytes INTEGER NOT NULL DEFAULT 0",
            "capture_images.annotation_json TEXT",
            "capture_images.created_at REAL NOT NULL",
            "capture_images.remote_id TEXT",
            "capture_images.sync_state TEXT NOT NULL DEFAULT 'local'",
            "capture_images.dirty INTEGER NOT NULL DEFAULT 0",
            "capture_images.original_sha256 TEXT",
            "capture_images.marked_sha256 TEXT",
            "capture_images.thumb_sha256 TEXT",
            "capture_images.version INTEGER NOT NULL DEFAULT 0",
            "capture_images.pending TEXT",
            "capture_images.deleted_at REAL",
            "fk capture_images.capture_id -> captures.id ON DELETE CASCADE",
            "index idx_capture_images_capture capture_images(capture_id, position)",

            "table capture_tags",
            "capture_tags.capture_id TEXT NOT NULL PK1",
            "capture_tags.tag_id TEXT NOT NULL PK2",
            "fk capture_tags.capture_id -> captures.id ON DELETE CASCADE",
            "fk capture_tags.tag_id -> tags.id ON DELETE CASCADE",
            "index idx_capture_tags_tag capture_tags(tag_id)",

            "table captures",
            "captures.id TEXT PK1",
            "captures.created_at REAL NOT NULL",
            "captures.updated_at REAL NOT NULL",
            "captures.note TEXT NOT NULL DEFAULT ''",
            "captures.status TEXT NOT NULL DEFAULT 'open'",
            "captures.priority TEXT NOT NULL DEFAULT 'normal'",
            "captures.group_id TEXT",
            "captures.image_path TEXT NOT NULL",
            "captures.thumb_path TEXT",
            "captures.image_width INTEGER NOT NULL DEFAULT 0",
            "captures.image_height INTEGER NOT NULL DEFAULT 0",
            "captures.image_bytes INTEGER NOT NULL DEFAULT 0",
            "captures.capture_mode TEXT NOT NULL DEFAULT 'region'",
            "captures.app_name TEXT",
            "captures.app_bundle_id TEXT",
            "captures.window_title TEXT",
            "captures.url TEXT",
            "captures.display_name TEXT",
            "captures.claimed_by TEXT",
            "captures.claimed_at REAL",
            "captures.resolved_at REAL",
            "captures.resolution_ref TEXT",
            "captures.remote_id TEXT",
            "captures.sync_state TEXT NOT NULL DEFAULT 'local'",
            "captures.dirty INTEGER NOT NULL DEFAULT 0",
            "captures.deleted_at REAL",
            "captures.display_scale REAL NOT NULL DEFAULT 0",
            "captures.workspace_id TEXT",
            "captures.author_id TEXT",
            "captures.assignee_id TEXT",
            "captures.claimed_by_id TEXT",
            "captures.version INTEGER NOT NULL DEFAULT 0",
            "captures.pending TEXT",
            "captures.local_only INTEGER NOT NULL DEFAULT 0",
            "fk captures.group_id -> groups.id ON DELETE SET NULL",
            "index idx_captures_status captures(status) partial",
            "index idx_captures_created captures(created_at) partial",
            "index idx_captures_group captures(group_id) partial",
            "index idx_captures_workspace captures(workspace_id) partial",
            "index idx_captures_sync captures(sync_state)",

            "table comments",
            "comments.id TEXT PK1",
            "comments.capture_id TEXT NOT NULL",
            "comments.author TEXT NOT NULL",
            "comments.is_agent INTEGER NOT NULL DEFAULT 0",
            "comments.body TEXT NOT NULL",
            "comments.created_at REAL NOT NULL",
            "comments.author_id TEXT",
            "comments.actor_label TEXT",
            "comments.kind TEXT NOT NULL DEFAULT 'comment'",
            "comments.sync_state TEXT NOT NULL DEFAULT 'local'",
            "fk comments.capture_id -> captures.id ON DELETE CASCADE",
            "index idx_comments_capture comments(capture_id, created_at)",

            "table group_members",
            "group_members.group_id TEXT NOT NULL PK1",
            "group_members.user_id TEXT NOT NULL PK2",
            "group_members.removed_at REAL",

            "table groups",
            "groups.id TEXT PK1",
            "groups.name TEXT NOT NULL",
            "groups.color_hex TEXT NOT NULL DEFAULT '#6E7BF2'",
            "groups.path TEXT",
            "groups.created_at REAL NOT NULL",
            "groups.updated_at REAL NOT NULL",
            "groups.remote_id TEXT",
            "groups.sync_state TEXT NOT NULL DEFAULT 'local'",
            "groups.dirty INTEGER NOT NULL DEFAULT 0",
            "groups.deleted_at REAL",
            "groups.workspace_id TEXT",
            "groups.visibility TEXT NOT NULL DEFAULT 'private'",
            "groups.created_by TEXT",
            "groups.default_assignee_id TEXT",
            "groups.archived_at REAL",
            "groups.version INTEGER NOT NULL DEFAULT 0",
            "groups.pending TEXT",
            "index idx_groups_name groups(<expr>, name) unique partial",
            "index idx_groups_path groups(path)",

            "table people",
            "people.id TEXT PK1",
            "people.name TEXT NOT NULL",
            "people.email TEXT",
            "people.image_url TEXT",
            "people.kind TEXT NOT NULL DEFAULT 'person'",
            "people.updated_at REAL NOT NULL",

            "table sync_log",
            "sync_log.id INTEGER PK1",
            "sync_log.at REAL NOT NULL",
            "sync_log.level TEXT NOT NULL",
            "sync_log.message TEXT NOT NULL",

            "table sync_meta",
            "sync_meta.key TEXT PK1",
            "sync_meta.value TEXT NOT NULL",

            "table tags",
            "tags.id TEXT PK1",
            "tags.name TEXT NOT NULL",
            "tags.created_at REAL NOT NULL",
            "index idx_tags_name tags(name) unique",

            "table workspaces",
            "workspaces.id TEXT PK1",
            "workspaces.name TEXT NOT NULL",
            "workspaces.slug TEXT NOT NULL",
            "workspaces.role TEXT NOT NULL",
            "workspaces.settings_json TEXT",
            "workspaces.updated_at REAL NOT NULL",
        };
        std::sort(l.begin(), l.end());
        return l;
    }();
    return lines;
}

// A library as an older release left it: the steps up to `version`, run from
// their own SQL, and the version written.
void buildAtVersion(Database& db, int version) {
    for (int step = 1; step <= version; ++step) db.executeRaw(std::string(Schema::stepSQL(step)));
    db.executeRaw("PRAGMA user_version = " + std::to_string(version) + ";");
}

// Captures live, text-only and soft-deleted, in a group, with a tag, a comment
// and history; ids in upper case as early releases made them. From version 2
// on, the live capture has its image row already.
void seedOldLibrary(Database& db, int version) {
    const std::string groups = version >= 3 ? "groups" : "projects";
    const std::string groupColumn = version >= 3 ? "group_id" : "project_id";
    db.execute("INSERT INTO " + groups + " (id, name, created_at, updated_at) VALUES ('G-UP', 'Alpha', 1, 1)");
    const std::string insertCapture =
        "INSERT INTO captures (id, created_at, updated_at, " + groupColumn +
        ", image_path, thumb_path, image_width, image_height, image_bytes, deleted_at) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    db.execute(insertCapture, {"C-LIVE", 100.5, 101.0, "G-UP", "2024/03/C-LIVE.png", "2024/03/C-LIVE-t.png",
                               10, 20, 30, SQLValue::null()});
    db.execute(insertCapture, {"C-TEXT", 200.0, 200.0, SQLValue::null(), "", SQLValue::null(), 0, 0, 0,
                               SQLValue::null()});
    db.execute(insertCapture, {"C-GONE", 300.0, 300.0, "G-UP", "2024/03/C-GONE.png", SQLValue::null(), 1, 1,
                               1, 400.0});
    db.executeRaw(
        "INSERT INTO tags (id, name, created_at) VALUES ('T-BUG', 'bug', 1);"
        "INSERT INTO capture_tags (capture_id, tag_id) VALUES ('C-LIVE', 'T-BUG');"
        "INSERT INTO comments (id, capture_id, author, body, created_at) VALUES ('M-1', 'C-LIVE', 'Ann', 'hello', 5);"
        "INSERT INTO activity (id, capture_id, kind, created_at) VALUES ('A-1', 'C-LIVE', 'created', 5);"
        "INSERT INTO activity (id, capture_id, kind, created_at) VALUES ('A-2', NULL, 'imported', 6);");
    if (version >= 2) {
        db.execute(
            "INSERT INTO capture_images (id, capture_id, position, image_path, created_at) "
            "VALUES ('I-1', 'C-LIVE', 0, '2024/03/C-LIVE.png', 100.5)");
    }
}

bool isHex32(const std::string& id) {
    return id.size() == 32 &&
           std::all_of(id.begin(), id.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(SchemaTest, EmptyFileReachesTheCurrentSchema) {
    test::TempLibrary library;
    Database db(library.databasePath());
    Schema::migrate(db);
    EXPECT_EQ(userVersion(db), 5);
    EXPECT_EQ(describe(db), expectedSchema());
    EXPECT_TRUE(db.query("SELECT name FROM sqlite_master WHERE name LIKE '%project%'").empty());
    EXPECT_EQ(db.query("PRAGMA foreign_keys;")[0].intValue("foreign_keys"), 1);
    EXPECT_TRUE(Schema::stepSQL(0).empty());
    EXPECT_TRUE(Schema::stepSQL(6).empty());
}

class OldLibraryTest : public ::testing::TestWithParam<int> {};

TEST_P(OldLibraryTest, MigratesWithItsData) {
    const int version = GetParam();
    test::TempLibrary library;
    Database db(library.databasePath());
    buildAtVersion(db, version);
    seedOldLibrary(db, version);
    ASSERT_EQ(userVersion(db), version);

    Schema::migrate(db);

    EXPECT_EQ(userVersion(db), 5);
    EXPECT_EQ(describe(db), expectedSchema());
    EXPECT_EQ(db.query("PRAGMA foreign_keys;")[0].intValue("foreign_keys"), 1);
    EXPECT_TRUE(db.query("PRAGMA foreign_key_check;").empty());

    // Ids and references in lower case, the capture still in its group and
    // still holding its tag, comment and history.
    const auto captures = db.query("SELECT id, group_id, display_scale, version, local_only FROM captures ORDER BY id");
    ASSERT_EQ(captures.size(), 3u);
    EXPECT_EQ(text(captures[0], "id"), "c-gone");
    EXPECT_EQ(text(captures[1], "id"), "c-live");
    EXPECT_EQ(text(captures[2], "id"), "c-text");
    EXPECT_EQ(text(captures[1], "group_id"), "g-up");
    EXPECT_EQ(captures[1].doubleValue("display_scale"), 0.0);
    EXPECT_EQ(captures[1].intValue("version"), 0);
    EXPECT_EQ(db.query("SELECT g.name, g.visibility FROM captures c JOIN groups g ON g.id = c.group_id "
                       "WHERE c.id = 'c-live'")[0].string("name"),
              "Alpha");
    EXPECT_EQ(db.query("SELECT t.name FROM capture_tags ct JOIN tags t ON t.id = ct.tag_id "
                       "WHERE ct.capture_id = 'c-live'")[0].string("name"),
              "bug");
    const auto comment = db.query("SELECT id, kind, sync_state FROM comments WHERE capture_id = 'c-live'");
    ASSERT_EQ(comment.size(), 1u);
    EXPECT_EQ(text(comment[0], "id"), "m-1");
    EXPECT_EQ(text(comment[0], "kind"), "comment");
    EXPECT_EQ(db.query("SELECT group_concat(id) AS ids FROM activity WHERE capture_id = 'c-live'")[0].string("ids"),
              "a-1");
    EXPECT_EQ(db.query("SELECT count(*) AS n FROM activity WHERE capture_id IS NULL")[0].intValue("n"), 1);

    // Image rows: made for each live capture only when its library had none.
    const auto images = db.query(
        "SELECT id, capture_id, position, image_path, thumb_path, width, height, bytes, created_at "
        "FROM capture_images ORDER BY capture_id");
    if (version == 1) {
        ASSERT_EQ(images.size(), 2u);
        EXPECT_EQ(text(images[0], "capture_id"), "c-live");
        EXPECT_TRUE(isHex32(text(images[0], "id"))) << text(images[0], "id");
        EXPECT_EQ(images[0].intValue("position"), 0);
        EXPECT_EQ(text(images[0], "image_path"), "2024/03/C-LIVE.png");
        EXPECT_EQ(text(images[0], "thumb_path"), "2024/03/C-LIVE-t.png");
        EXPECT_EQ(images[0].intValue("width"), 10);
        EXPECT_EQ(images[0].intValue("height"), 20);
        EXPECT_EQ(images[0].intValue("bytes"), 30);
        EXPECT_EQ(images[0].doubleValue("created_at"), 100.5);
        EXPECT_EQ(text(images[1], "capture_id"), "c-text");
        EXPECT_NE(text(images[0], "id"), text(images[1], "id"));
    } else {
        ASSERT_EQ(images.size(), 1u);
        EXPECT_EQ(text(images[0], "id"), "i-1");
        EXPECT_EQ(text(images[0], "capture_id"), "c-live");
    }

    // The foreign keys follow the renames.
    db.execute("DELETE FROM groups WHERE id = 'g-up'");
    EXPECT_TRUE(db.query("SELECT group_id FROM captures WHERE id = 'c-live'")[0].value("group_id")->isNull());
    db.execute("DELETE FROM captures WHERE id = 'c-live'");
    EXPECT_EQ(db.query("SELECT count(*) AS n FROM comments")[0].intValue("n"), 0);
    EXPECT_EQ(db.query("SELECT count(*) AS n FROM capture_tags")[0].intValue("n"), 0);
}

INSTANTIATE_TEST_SUITE_P(FromEachVersion, OldLibraryTest, ::testing::Values(1, 2, 3, 4),
                         [](const auto& info) { return "Version" + std::to_string(info.param); });

// A migration that stopped after step 2 without writing its version runs step 2
// again: captures that have an image row get no second one.
TEST(SchemaTest, RepeatedImageStepAddsNoSecondRow) {
    test::TempLibrary library;
    Database db(library.databasePath());
    buildAtVersion(db, 2);
    seedOldLibrary(db, 2);
    db.executeRaw("PRAGMA user_version = 1;");
    Schema::migrate(db);
    const auto images = db.query("SELECT id, capture_id FROM capture_images ORDER BY capture_id");
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(text(images[0], "id"), "i-1");
    EXPECT_EQ(text(images[1], "capture_id"), "c-text");
}

TEST(SchemaTest, CurrentOrLaterLibraryIsLeftUntouched) {
    for (int version : {5, 6}) {
        SCOPED_TRACE(version);
        test::TempLibrary library;
        {
            Database db(library.databasePath());
            Schema::migrate(db);
            db.executeRaw("PRAGMA user_version = " + std::to_string(version) + ";");
            if (version > 5) db.executeRaw("CREATE TABLE later_things (id TEXT); DROP TABLE people;");
        }
        const std::string before = readFile(library.databasePath());
        ASSERT_FALSE(before.empty());
        {
            Database db(library.databasePath());
            Schema::migrate(db);
            EXPECT_EQ(userVersion(db), version);
        }
        EXPECT_EQ(readFile(library.databasePath()), before);
    }
}

TEST(SchemaTest, GroupNamesAreUniquePerWorkspace) {
    test::TempLibrary library;
    Database db(library.databasePath());
    Schema::migrate(db);
    const std::string insert =
        "INSERT INTO groups (id, name, workspace_id, created_at, updated_at, deleted_at) VALUES (?, ?, ?, 1, 1, ?)";
    auto add = [&](const char* id, const char* name, std::optional<std::string> workspace,
                   std::optional<Date> deleted = std::nullopt) {
        db.execute(insert, {id, name, SQLValue::string(workspace), SQLValue::date(deleted)});
    };
    add("g1", "Design", std::nullopt);
    add("g2", "Design", "w1");
    add("g3", "Design", "w2");
    add("g4", "design", std::nullopt);         // exact comparison: case differs
    add("g5", "Design", std::nullopt, 10.0);   // soft-deleted groups do not count
    EXPECT_THROW(add("x1", "Design", std::nullopt), DatabaseError);
    EXPECT_THROW(add("x2", "Design", "w1"), DatabaseError);
    EXPECT_THROW(add("x3", "Design", ""), DatabaseError);  // an empty workspace is the local scope
    EXPECT_EQ(db.query("SELECT count(*) AS n FROM groups")[0].intValue("n"), 5);
}

TEST(SchemaTest, FailingStepLeavesTheVersion) {
    struct Case {
        int version;
        std::string sabotage;
        int failingStep;
    };
    const Case cases[] = {
        // Step 3 cannot rename projects onto a table that exists.
        {2, "CREATE TABLE groups (id TEXT);", 3},
        // Step 5 cannot add a column that is there.
        {4, "ALTER TABLE captures ADD COLUMN workspace_id TEXT;", 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.version);
        test::TempLibrary library;
        {
            Database db(library.databasePath());
            buildAtVersion(db, c.version);
            seedOldLibrary(db, c.version);
            db.executeRaw(c.sabotage);
            try {
                Schema::migrate(db);
                FAIL() << "migrated";
            } catch (const DatabaseError& error) {
                EXPECT_EQ(error.errorCase(), DatabaseError::Case::stepFailed);
                EXPECT_EQ(error.sql(), Schema::stepSQL(c.failingStep));
            }
            EXPECT_EQ(userVersion(db), c.version);
        }
        // The next opening starts again at the old version and fails again.
        Database db(library.databasePath());
        EXPECT_THROW(Schema::migrate(db), DatabaseError);
        EXPECT_EQ(userVersion(db), c.version);
    }
}

}  // namespace
}  // namespace mirel
