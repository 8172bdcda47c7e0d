// A migration stopped midway leaves the library at its last completed
// version, and the next opening carries on from there.
#include "core/store/capture_store.h"
#include "core/store/schema.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

// Schema and every row of every table, as text.
std::vector<std::string> dump(Database& db) {
    std::vector<std::string> lines;
    for (const Row& table : db.query("SELECT type, name, sql FROM sqlite_master ORDER BY type, name")) {
        lines.push_back(table.string("sql").value_or(table.string("name").value_or("")));
        if (table.string("type") != "table") continue;
        const std::string name = *table.string("name");
        std::string columns = "'" + name + ":'";
        for (const Row& column : db.query("PRAGMA table_info(" + name + ")"))
            columns += " || ' ' || quote(" + *column.string("name") + ")";
        for (const Row& row : db.query("SELECT " + columns + " AS line FROM " + name + " ORDER BY rowid"))
            lines.push_back(*row.string("line"));
    }
    lines.push_back("user_version " + std::to_string(*db.query("PRAGMA user_version")[0].intValue("user_version")));
    return lines;
}

TEST(MigrationRecovery, AFailedStepLeavesTheLibraryAsItWasAndALaterOpeningFinishes) {
    test::TempLibrary library;
    std::vector<std::string> before;
    {
        Database db(library.databasePath());
        for (int step = 1; step <= 4; ++step) db.executeRaw(std::string(Schema::stepSQL(step)));
        db.executeRaw(
            "PRAGMA user_version = 4;"
            "INSERT INTO groups (id, name, created_at, updated_at) VALUES ('G-1', 'One', 1, 1), ('g-1', 'Two', 1, 1);"
            "INSERT INTO captures (id, created_at, updated_at, note, group_id, image_path) "
            "VALUES ('C-1', 1, 1, 'kept', 'g-1', '');");
        before = dump(db);
    }
    // Step 5 lower-cases the captures' ids, then fails on the two groups
    // whose ids differ only in case.
    EXPECT_THROW(CaptureStore store(library.databasePath()), DatabaseError);
    {
        Database db(library.databasePath());
        EXPECT_EQ(dump(db), before);
        EXPECT_EQ(db.query("PRAGMA foreign_keys")[0].intValue("foreign_keys"), 1);
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
