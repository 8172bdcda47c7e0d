// Migrations: an empty file and every older library reach the same schema,
// pinned by a checked-in snapshot, with their data carried along; a failed
// step leaves the library as it was.
#include "core/store/capture_store.h"
#include "core/store/schema.h"
#include "tests/support/snapshot.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

// The schema as SQLite keeps it: every table and index as its statement.
std::string describe(Database& db) {
    std::string out;
    for (const Row& row : db.query("SELECT sql FROM sqlite_master WHERE sql IS NOT NULL ORDER BY name;"))
        out += *row.string("sql") + ";\n";
    return out;
}

std::int64_t version(Database& db) { return db.query("PRAGMA user_version;").at(0).intValue("user_version").value_or(-1); }

// A library as release `v` left it: its steps run, upper-case ids as early
// releases made them, a live, a text-only and a deleted capture in a group.
void buildOldLibrary(Database& db, int v) {
    for (int step = 1; step <= v; ++step) db.executeRaw(std::string(Schema::stepSQL(step)));
    db.executeRaw("PRAGMA user_version = " + std::to_string(v) + ";");
    const std::string groups = v >= 3 ? "groups" : "projects", column = v >= 3 ? "group_id" : "project_id";
    db.executeRaw("INSERT INTO " + groups + " (id, name, created_at, updated_at) VALUES ('G-UP', 'Alpha', 1, 1);"
                  "INSERT INTO captures (id, created_at, updated_at, " + column + ", image_path, image_width, deleted_at) VALUES "
                  "('C-LIVE', 100.5, 101, 'G-UP', 'a.png', 10, NULL), ('C-TEXT', 200, 200, NULL, '', 0, NULL), "
                  "('C-GONE', 300, 300, 'G-UP', 'b.png', 1, 400);"
                  "INSERT INTO tags (id, name, created_at) VALUES ('T-BUG', 'bug', 1);"
                  "INSERT INTO capture_tags (capture_id, tag_id) VALUES ('C-LIVE', 'T-BUG');"
                  "INSERT INTO comments (id, capture_id, author, body, created_at) VALUES ('M-1', 'C-LIVE', 'Ann', 'hi', 5);");
    if (v >= 2) db.executeRaw("INSERT INTO capture_images (id, capture_id, image_path, created_at) VALUES ('I-1', 'C-LIVE', 'a.png', 1);");
}

TEST(SchemaTest, AnEmptyFileAndEveryOlderLibraryReachTheSnapshotSchema) {
    test::TempLibrary fresh;
    Database current(fresh.databasePath());
    Schema::migrate(current);
    EXPECT_EQ(version(current), 5);
    test::expectSnapshot("library_schema.txt", describe(current));
    EXPECT_TRUE(Schema::stepSQL(0).empty() && Schema::stepSQL(6).empty());
    for (int v = 1; v <= 4; ++v) {
        test::TempLibrary library;
        Database db(library.databasePath());
        buildOldLibrary(db, v);
        Schema::migrate(db);
        EXPECT_EQ(version(db), 5);
        EXPECT_EQ(describe(db), describe(current)) << "from version " << v;
        EXPECT_EQ(db.query("PRAGMA foreign_keys;").at(0).intValue("foreign_keys"), 1);
        std::string seen;
        for (const Row& row : db.query(
                 "SELECT c.id || ' ' || COALESCE(g.name, '-') || ' ' || COALESCE((SELECT group_concat(t.name) FROM capture_tags ct "
                 "JOIN tags t ON t.id = ct.tag_id WHERE ct.capture_id = c.id), '-') || ' ' || COALESCE((SELECT group_concat(m.id) "
                 "FROM comments m WHERE m.capture_id = c.id), '-') || ' ' || COALESCE((SELECT group_concat(i.image_path) FROM "
                 "capture_images i WHERE i.capture_id = c.id), '-') AS line FROM captures c LEFT JOIN groups g ON g.id = c.group_id "
                 "ORDER BY c.id;"))
            seen += row.string("line").value_or("NULL") + "\n";
        EXPECT_EQ(seen, "c-gone Alpha - - -\nc-live Alpha bug m-1 a.png\nc-text - - - " + std::string(v == 1 ? "\n" : "-\n"))
            << "from version " << v;
        // The foreign keys follow the renames.
        db.execute("DELETE FROM captures WHERE id = 'c-live';");
        EXPECT_EQ(db.query("SELECT COUNT(*) AS n FROM comments;").at(0).intValue("n"), 0);
    }
}

// The schema, the version and every id, as they lie.
std::string state(Database& db) {
    std::string out = describe(db) + "user_version " + std::to_string(version(db)) + "\n";
    for (const Row& row : db.query("SELECT id FROM captures UNION ALL SELECT id FROM groups;")) out += *row.string("id") + " ";
    return out;
}

// A migration stopped midway leaves the library at its last completed
// version, and the next opening carries on from there.
TEST(SchemaTest, AFailedStepLeavesTheLibraryAsItWasAndALaterOpeningFinishes) {
    test::TempLibrary library;
    std::string before;
    {
        Database db(library.databasePath());
        for (int step = 1; step <= 4; ++step) db.executeRaw(std::string(Schema::stepSQL(step)));
        db.executeRaw(
            "PRAGMA user_version = 4;"
            "INSERT INTO groups (id, name, created_at, updated_at) VALUES ('G-1', 'One', 1, 1), ('g-1', 'Two', 1, 1);"
            "INSERT INTO captures (id, created_at, updated_at, note, group_id, image_path) "
            "VALUES ('C-1', 1, 1, 'kept', 'g-1', '');");
        before = state(db);
    }
    // Step 5 lower-cases the captures' ids, then fails on the two groups
    // whose ids differ only in case.
    try {
        CaptureStore store(library.databasePath());
        ADD_FAILURE() << "opened";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.sql(), Schema::stepSQL(5));
    }
    {
        Database db(library.databasePath());
        EXPECT_EQ(state(db), before);
        db.executeRaw("DELETE FROM groups WHERE id = 'G-1';");
    }
    CaptureStore store(library.databasePath());
    const auto capture = store.capture("c-1");
    ASSERT_TRUE(capture);
    EXPECT_EQ(capture->note, "kept");
    EXPECT_EQ(capture->groupID, "g-1");
    EXPECT_EQ(store.groups().size(), 1u);
}

}  // namespace
}  // namespace mirel
