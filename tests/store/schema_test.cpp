// Migrations: an empty file and every older library reach the same schema,
// pinned by a checked-in snapshot, with their data carried along.
#include "core/store/schema.h"
#include "tests/support/snapshot.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace mirel {
namespace {

std::string text(const Row& row, const char* column) { return row.string(column).value_or("NULL"); }

// Every table, column, foreign key and index with what makes up the file format, one per line.
std::string describe(Database& db) {
    std::vector<std::string> lines;
    for (const Row& table : db.query("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%';")) {
        const std::string name = text(table, "name");
        for (const Row& c : db.query("PRAGMA table_info(" + name + ")"))
            lines.push_back(name + "." + text(c, "name") + " " + text(c, "type") + (c.boolValue("notnull") ? " NOT NULL" : "") +
                            (c.string("dflt_value") ? " DEFAULT " + text(c, "dflt_value") : "") +
                            (c.boolValue("pk") ? " PK" + std::to_string(*c.intValue("pk")) : ""));
        for (const Row& fk : db.query("PRAGMA foreign_key_list(" + name + ")"))
            lines.push_back(name + "." + text(fk, "from") + " -> " + text(fk, "table") + "." + text(fk, "to") + " ON DELETE " +
                            text(fk, "on_delete"));
        for (const Row& index : db.query("PRAGMA index_list(" + name + ")")) {
            if (text(index, "origin") != "c") continue;
            std::string columns;
            for (const Row& c : db.query("PRAGMA index_info(" + text(index, "name") + ")"))
                columns += (columns.empty() ? "" : ", ") + c.string("name").value_or("<expr>");
            lines.push_back("index " + text(index, "name") + " " + name + "(" + columns + ")" +
                            (index.boolValue("unique") ? " unique" : "") + (index.boolValue("partial") ? " partial" : ""));
        }
    }
    std::sort(lines.begin(), lines.end());
    std::string out;
    for (const auto& line : lines) out += line + "\n";
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

TEST(SchemaTest, AnEmptyFileReachesTheSnapshotSchema) {
    test::TempLibrary library;
    Database db(library.databasePath());
    Schema::migrate(db);
    EXPECT_EQ(version(db), 5);
    test::expectSnapshot("library_schema.txt", describe(db));
    EXPECT_TRUE(Schema::stepSQL(0).empty() && Schema::stepSQL(6).empty());
}

TEST(SchemaTest, EveryOlderLibraryMigratesWithItsData) {
    test::TempLibrary fresh;
    Database current(fresh.databasePath());
    Schema::migrate(current);
    for (int v = 1; v <= 4; ++v) {
        test::TempLibrary library;
        Database db(library.databasePath());
        buildOldLibrary(db, v);
        Schema::migrate(db);
        EXPECT_EQ(version(db), 5);
        EXPECT_EQ(describe(db), describe(current)) << "from version " << v;
        EXPECT_EQ(db.query("PRAGMA foreign_keys;").at(0).intValue("foreign_keys"), 1);
        std::string seen;
        for (const Row& row : db.query("SELECT c.id, g.name, (SELECT group_concat(t.name) FROM capture_tags ct JOIN tags t "
                                       "ON t.id = ct.tag_id WHERE ct.capture_id = c.id) AS tags, (SELECT group_concat(m.id) "
                                       "FROM comments m WHERE m.capture_id = c.id) AS comments, (SELECT group_concat(i.image_path) "
                                       "FROM capture_images i WHERE i.capture_id = c.id) AS images FROM captures c "
                                       "LEFT JOIN groups g ON g.id = c.group_id ORDER BY c.id;"))
            seen += text(row, "id") + " " + text(row, "name") + " " + text(row, "tags") + " " + text(row, "comments") + " " +
                    text(row, "images") + "\n";
        EXPECT_EQ(seen, "c-gone Alpha NULL NULL NULL\nc-live Alpha bug m-1 a.png\nc-text NULL NULL NULL " +
                            std::string(v == 1 ? "\n" : "NULL\n"))
            << "from version " << v;
        // The foreign keys follow the renames.
        db.execute("DELETE FROM captures WHERE id = 'c-live';");
        EXPECT_EQ(db.query("SELECT COUNT(*) AS n FROM comments;").at(0).intValue("n"), 0);
    }
}

TEST(SchemaTest, ALaterLibraryIsLeftAloneAndAFailedStepKeepsItsVersion) {
    test::TempLibrary library;
    {
        Database db(library.databasePath());
        db.executeRaw("CREATE TABLE later (x); PRAGMA user_version = 6;");
    }
    std::ifstream before(library.databasePath(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(before), {}};
    {
        Database db(library.databasePath());
        Schema::migrate(db);
        EXPECT_EQ(version(db), 6);
    }
    std::ifstream after(library.databasePath(), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(after), {}), bytes);

    test::TempLibrary broken;
    Database db(broken.databasePath());
    buildOldLibrary(db, 4);
    db.executeRaw("ALTER TABLE captures ADD COLUMN workspace_id TEXT;");
    try {
        Schema::migrate(db);
        ADD_FAILURE() << "migrated";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.sql(), Schema::stepSQL(5));
    }
    EXPECT_EQ(version(db), 4);
}

}  // namespace
}  // namespace mirel
