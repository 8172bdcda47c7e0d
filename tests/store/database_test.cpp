// The SQLite layer: values in and out unchanged, errors that name their
// statement, and transactions that leave nothing behind when they fail.
#include "core/store/database.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <fstream>

namespace mirel {
namespace {

class DatabaseTest : public ::testing::Test {
protected:
    void SetUp() override { db.executeRaw("CREATE TABLE t (id INTEGER PRIMARY KEY, x); CREATE TABLE u (y);"); }
    std::string xs() { return db.query("SELECT group_concat(x, ',') AS xs FROM t;").at(0).string("xs").value_or(""); }
    // The error `action` throws, as "case|message|sql".
    template <class Action>
    std::string failure(Action action) {
        try {
            action();
        } catch (const DatabaseError& error) {
            return std::to_string(int(error.errorCase())) + "|" + error.message() + "|" + error.sql();
        }
        return "no error";
    }
    test::TempLibrary library;
    Database db{library.home() / "nested" / "test.sqlite"};
};

TEST_F(DatabaseTest, ValuesRoundTripAndTextIsRepaired) {
    const std::vector<SQLValue> values = {SQLValue(-7), SQLValue(2.5), SQLValue("é/✓"), SQLValue("a\xff"),
                                          SQLValue::blob({0, 1, 255}), SQLValue::blob({}), SQLValue()};
    for (const auto& value : values) db.execute("INSERT INTO u (y) VALUES (?);", {value});
    std::vector<SQLValue> back;
    for (const Row& row : db.query("SELECT y, typeof(y) AS kind FROM u ORDER BY rowid;")) back.push_back(*row.value("y"));
    std::vector<SQLValue> expected = values;
    expected[3] = SQLValue("a\uFFFD");
    EXPECT_EQ(back, expected);
    EXPECT_EQ(db.query("PRAGMA journal_mode;").at(0).string("journal_mode"), "wal");
    EXPECT_EQ(db.query("PRAGMA busy_timeout;").at(0).intValue("timeout"), 5000);
}

TEST_F(DatabaseTest, RunsFirstStatementsAndNamesTheOneThatFailed) {
    EXPECT_EQ(db.execute("INSERT INTO t (x) VALUES (1), (2); INSERT INTO t (x) VALUES (3);"), 2);
    EXPECT_EQ(db.query("SELECT x FROM t; DELETE FROM t;").size(), 2u);
    EXPECT_TRUE(db.query("-- nothing").empty());
    EXPECT_EQ(failure([&] { db.query("SELEC x FROM t"); }), "1|near \"SELEC\": syntax error|SELEC x FROM t");
    EXPECT_EQ(failure([&] { db.execute("INSERT INTO t (id) VALUES (1)"); }),
              "2|UNIQUE constraint failed: t.id|INSERT INTO t (id) VALUES (1)");
    const std::string script = "INSERT INTO t (x) VALUES (7); INSERT INTO nowhere VALUES (1); INSERT INTO t (x) VALUES (8);";
    EXPECT_EQ(failure([&] { db.executeRaw(script); }), "2|no such table: nowhere|" + script);
    EXPECT_EQ(xs(), "1,2,7");
    const auto error = sqliteError(nullptr, 1, DatabaseError::Case::stepFailed, "S", "m"),
               prepare = sqliteError(nullptr, 1, DatabaseError::Case::prepareFailed, "S", "m");
    EXPECT_EQ(std::string(error.what()) + "|" + error.plainRendering() + "|" + prepare.what() + "|" + prepare.plainRendering(),
              "SQL execution failed: m\nS|stepFailed(\"m\", sql: \"S\")|SQL prepare failed: m\nS|prepareFailed(\"m\", sql: \"S\")");
}

// Statements are kept between calls: each call must still see its own
// values, the latest data, and the schema as another connection left it.
TEST_F(DatabaseTest, KeptStatementsBehaveAsFreshOnes) {
    Database other{library.home() / "nested" / "test.sqlite"};
    db.execute("INSERT INTO t (x) VALUES (?), (?);", {SQLValue(1), SQLValue(2)});
    db.execute("INSERT INTO t (x) VALUES (?), (?);", {SQLValue(3), SQLValue()});
    EXPECT_EQ(xs(), "1,2,3");
    // A SELECT run by execute stops at its first row; its read must end there.
    db.execute("SELECT x FROM t WHERE x > ?;", {SQLValue(1)});
    other.execute("INSERT INTO t (x) VALUES (9);");
    EXPECT_EQ(xs(), "1,2,3,9");
    EXPECT_EQ(db.query("SELECT x FROM t WHERE x > ?;", {SQLValue(2)}).size(), 2u);
    // A missing value is NULL, not the one bound in the previous call.
    EXPECT_EQ(db.query("SELECT x FROM t WHERE x > ?;", {}).size(), 0u);

    other.executeRaw("ALTER TABLE t ADD COLUMN z DEFAULT 'new';");
    EXPECT_EQ(db.query("SELECT * FROM t WHERE x > ?;", {SQLValue(8)}).at(0).string("z"), "new");
    other.executeRaw("DROP TABLE t;");
    EXPECT_EQ(failure([&] { db.query("SELECT x FROM t WHERE x > ?;", {SQLValue(1)}); }),
              "1|no such table: t|SELECT x FROM t WHERE x > ?;");
    EXPECT_EQ(failure([&] { db.execute("INSERT INTO t (x) VALUES (?), (?);", {SQLValue(1), SQLValue(2)}); }),
              "1|no such table: t|INSERT INTO t (x) VALUES (?), (?);");
    // Far more texts than are kept at once.
    for (int n = 0; n < 600; ++n) db.execute("INSERT INTO u (y) VALUES (" + std::to_string(n) + ");");
    EXPECT_EQ(db.query("SELECT count(*) AS n FROM u;").at(0).intValue("n"), 600);
}

TEST_F(DatabaseTest, TransactionsCommitWholeNestAndActionsWaitForTheOutermostCommit) {
    std::vector<std::string> ran;
    const auto action = [&](const char* name) { db.afterCommit([&ran, name] { ran.push_back(name); }); };
    db.transaction([&] {
        db.execute("INSERT INTO t (x) VALUES (1)");
        action("outer");
        // A failing inner level takes only its own writes and actions with it.
        EXPECT_THROW(db.transaction([&] {
            db.execute("INSERT INTO t (x) VALUES (2)");
            action("failed");
            throw std::runtime_error("inner");
        }),
                     std::runtime_error);
        EXPECT_EQ(db.transaction([&] {
            action("inner");
            return db.execute("INSERT INTO t (x) VALUES (3)");
        }),
                  1);
        EXPECT_TRUE(ran.empty());
    });
    EXPECT_EQ(xs(), "1,3");
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner"}));
    EXPECT_FALSE(db.inTransaction());
    // An outer failure undoes inner levels that had succeeded, and their actions.
    EXPECT_THROW(db.transaction([&] {
        db.transaction([&] {
            db.execute("INSERT INTO t (x) VALUES (4)");
            action("undone");
        });
        throw std::runtime_error("outer");
    }),
                 std::runtime_error);
    EXPECT_EQ(xs(), "1,3");
    // A failing commit rolls back.
    db.executeRaw("CREATE TABLE p (id PRIMARY KEY); CREATE TABLE c (p REFERENCES p(id) DEFERRABLE INITIALLY DEFERRED);");
    EXPECT_EQ(failure([&] { db.transaction([&] { db.execute("INSERT INTO t (x) VALUES (5); "), db.execute("INSERT INTO c VALUES (1)"); }); }),
              "2|FOREIGN KEY constraint failed|COMMIT;");
    EXPECT_EQ(xs(), "1,3");
    action("now");
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner", "now"}));
}

TEST_F(DatabaseTest, AFileThatIsNoDatabaseIsAnError) {
    std::ofstream(library.databasePath()) << std::string(5000, 'x');
    EXPECT_THROW(Database{library.databasePath()}, DatabaseError);
    const auto open = sqliteError(nullptr, 14, DatabaseError::Case::openFailed, "", "m");
    EXPECT_EQ(open.plainRendering() + std::string(open.what()),
              "openFailed(\"m\")Could not open the Mirel database: m");
}

}  // namespace
}  // namespace mirel
