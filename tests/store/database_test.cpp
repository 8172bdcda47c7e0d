#include "core/store/database.h"
#include "core/store/schema.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <thread>

namespace fs = std::filesystem;

namespace mirel {
namespace {

class DatabaseTest : public ::testing::Test {
protected:
    DatabaseTest() : db(library.databasePath()) {
        db.executeRaw("CREATE TABLE t (id INTEGER PRIMARY KEY, x);");
    }

    std::int64_t count(const std::string& table = "t") {
        return db.query("SELECT count(*) AS n FROM " + table)[0].intValue("n").value_or(-1);
    }

    test::TempLibrary library;
    Database db;
};

TEST_F(DatabaseTest, OpensWithTheLibrarySettings) {
    EXPECT_EQ(db.query("PRAGMA journal_mode;")[0].string("journal_mode"), "wal");
    EXPECT_EQ(db.query("PRAGMA foreign_keys;")[0].intValue("foreign_keys"), 1);
    EXPECT_EQ(db.query("PRAGMA busy_timeout;")[0].intValue("timeout"), 5000);
    EXPECT_EQ(db.query("PRAGMA synchronous;")[0].intValue("synchronous"), 1);  // NORMAL
}

TEST_F(DatabaseTest, MakesTheParentFolders) {
    Database nested(library.home() / "a/b/mirel.sqlite");
    EXPECT_TRUE(fs::exists(library.home() / "a/b/mirel.sqlite"));
}

TEST_F(DatabaseTest, BoundValuesRoundTrip) {
    const Blob bytes{0, 1, 255};
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue(std::int64_t{-9007199254740993})});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue(2.5)});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue("naïve ✓")});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue::blob(bytes)});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue::blob({})});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue::null()});
    // A shorter list leaves the rest NULL, a longer one does no harm.
    db.execute("INSERT INTO t (id, x) VALUES (?, ?)", {SQLValue(100)});
    db.execute("INSERT INTO t (x) VALUES (?)", {SQLValue(7), SQLValue(8)});

    const auto rows = db.query("SELECT x, typeof(x) AS kind FROM t ORDER BY rowid");
    ASSERT_EQ(rows.size(), 8u);
    EXPECT_EQ(*rows[0].value("x"), SQLValue(std::int64_t{-9007199254740993}));
    EXPECT_EQ(*rows[1].value("x"), SQLValue(2.5));
    EXPECT_EQ(*rows[2].value("x"), SQLValue("naïve ✓"));
    EXPECT_EQ(*rows[3].value("x"), SQLValue::blob(bytes));
    // An empty blob is a zero-length blob, not NULL.
    EXPECT_EQ(rows[4].string("kind"), "blob");
    EXPECT_EQ(rows[4].data("x"), Blob{});
    EXPECT_TRUE(rows[5].value("x")->isNull());
    EXPECT_TRUE(rows[6].value("x")->isNull());
    EXPECT_EQ(rows[7].intValue("x"), 7);
}

TEST_F(DatabaseTest, ExecuteRunsOnlyTheFirstStatementAndCountsChanges) {
    EXPECT_EQ(db.execute("INSERT INTO t (x) VALUES (1); INSERT INTO t (x) VALUES (2);"), 1);
    EXPECT_EQ(count(), 1);
    db.executeRaw("INSERT INTO t (x) VALUES (2); INSERT INTO t (x) VALUES (3);");
    EXPECT_EQ(count(), 3);

    EXPECT_EQ(db.execute("UPDATE t SET x = x + 1"), 3);
    // A statement with rows succeeds and gives the count of the last write.
    EXPECT_EQ(db.execute("SELECT * FROM t"), 3);
    // A write that returns rows is done by its first step, though SQLite
    // counts its changes only once the statement is finished.
    db.execute("INSERT INTO t (x) VALUES (9) RETURNING id");
    EXPECT_EQ(count(), 4);
}

TEST_F(DatabaseTest, QueryRunsOnlyTheFirstStatement) {
    const auto rows = db.query("SELECT 1 AS one; INSERT INTO t (x) VALUES (1);");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].intValue("one"), 1);
    EXPECT_EQ(count(), 0);

    // A write through query runs once and gives no rows.
    EXPECT_TRUE(db.query("INSERT INTO t (x) VALUES (?)", {SQLValue(5)}).empty());
    EXPECT_EQ(count(), 1);
}

TEST_F(DatabaseTest, FailingStepInsideQueryEndsTheListQuietly) {
    db.executeRaw("INSERT INTO t (x) VALUES (1), (2), (-9223372036854775808), (4);");
    // abs() of the smallest integer overflows at the third row.
    const auto rows = db.query("SELECT abs(x) AS a FROM t ORDER BY id");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1].intValue("a"), 2);
}

TEST_F(DatabaseTest, RowsKeyColumnsByNameAndCopyText) {
    const auto rows = db.query(
        "SELECT 1 AS a, 2 AS a, CAST(x'ff41' AS TEXT) AS bad, CAST(x'41004243' AS TEXT) AS nul");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].intValue("a"), 2);  // the later column wins
    EXPECT_EQ(rows[0].string("bad"), "\uFFFDA");
    EXPECT_EQ(rows[0].string("nul"), "A");
}

TEST(RowTest, AccessorsConvertOnlyWhatFits) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Row row({
        {"int", SQLValue(42)},       {"zero", SQLValue(0)},        {"half", SQLValue(0.5)},
        {"neg", SQLValue(-1.7)},     {"big", SQLValue(1e300)},     {"small", SQLValue(-1e300)},
        {"nan", SQLValue(nan)},      {"text", SQLValue("5")},      {"blob", SQLValue::blob({1, 2})},
        {"null", SQLValue::null()},  {"onehalf", SQLValue(1.5)},
    });
    struct Expect {
        std::string column;
        std::optional<std::string> string;
        std::optional<std::int64_t> integer;
        std::optional<double> real;
        bool flag;
        std::optional<Blob> data;
    };
    const std::int64_t max = std::numeric_limits<std::int64_t>::max();
    const std::int64_t min = std::numeric_limits<std::int64_t>::min();
    const Expect expectations[] = {
        {"int", {}, 42, 42.0, true, {}},
        {"zero", {}, 0, 0.0, false, {}},
        {"half", {}, 0, 0.5, false, {}},
        {"onehalf", {}, 1, 1.5, true, {}},
        {"neg", {}, -1, -1.7, true, {}},
        {"big", {}, max, 1e300, true, {}},
        {"small", {}, min, -1e300, true, {}},
        {"text", "5", {}, {}, false, {}},
        {"blob", {}, {}, {}, false, Blob{1, 2}},
        {"null", {}, {}, {}, false, {}},
        {"missing", {}, {}, {}, false, {}},
    };
    for (const Expect& e : expectations) {
        SCOPED_TRACE(e.column);
        EXPECT_EQ(row.string(e.column), e.string);
        EXPECT_EQ(row.intValue(e.column), e.integer);
        EXPECT_EQ(row.doubleValue(e.column), e.real);
        EXPECT_EQ(row.date(e.column), e.real);
        EXPECT_EQ(row.boolValue(e.column), e.flag);
        EXPECT_EQ(row.data(e.column), e.data);
    }
    EXPECT_EQ(row.intValue("nan"), std::nullopt);
    EXPECT_FALSE(row.boolValue("nan"));
}

TEST(SQLValueTest, ConvenienceConstructors) {
    EXPECT_EQ(SQLValue::string(std::nullopt), SQLValue::null());
    EXPECT_EQ(SQLValue::string("a"), SQLValue("a"));
    EXPECT_EQ(SQLValue::date(std::nullopt), SQLValue::null());
    EXPECT_EQ(SQLValue::date(12.5), SQLValue(12.5));
    EXPECT_EQ(SQLValue::boolean(true), SQLValue(1));
    EXPECT_EQ(SQLValue::boolean(false), SQLValue(0));
}

TEST_F(DatabaseTest, ErrorsCarryTheStatement) {
    const std::string bad = "SELEC oops FROM t";
    try {
        db.query(bad);
        FAIL() << "no error";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::prepareFailed);
        const std::string description = error.what();
        EXPECT_EQ(description.rfind("SQL prepare failed: ", 0), 0u) << description;
        EXPECT_EQ(description.substr(description.size() - bad.size() - 1), "\n" + bad);
        EXPECT_EQ(error.sql(), bad);
    }

    db.execute("INSERT INTO t (id, x) VALUES (1, 1)");
    try {
        db.execute("INSERT INTO t (id, x) VALUES (1, 2)");
        FAIL() << "no error";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::stepFailed);
        EXPECT_EQ(std::string(error.what()),
                  "SQL execution failed: UNIQUE constraint failed: t.id\nINSERT INTO t (id, x) VALUES (1, 2)");
    }

    // executeRaw stops at the failing statement and reports the whole text.
    const std::string script = "INSERT INTO t (x) VALUES (7); INSERT INTO nowhere VALUES (1); INSERT INTO t (x) VALUES (8);";
    try {
        db.executeRaw(script);
        FAIL() << "no error";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::stepFailed);
        EXPECT_EQ(error.message(), "no such table: nowhere");
        EXPECT_EQ(error.sql(), script);
    }
    EXPECT_EQ(db.query("SELECT group_concat(x) AS xs FROM t ORDER BY id")[0].string("xs"), "1,7");
}

struct BodyFailed : std::runtime_error {
    BodyFailed() : std::runtime_error("body failed") {}
};

TEST_F(DatabaseTest, TransactionCommitsAndGivesTheBodysValue) {
    const std::int64_t changed = db.transaction([&] {
        db.execute("INSERT INTO t (x) VALUES (1)");
        return db.execute("INSERT INTO t (x) VALUES (2)");
    });
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(count(), 2);
}

TEST_F(DatabaseTest, FailedBodyLeavesNoTraceAndItsErrorReachesTheCaller) {
    EXPECT_THROW(db.transaction([&] {
        db.execute("INSERT INTO t (x) VALUES (1)");
        throw BodyFailed();
    }),
                 BodyFailed);
    EXPECT_EQ(count(), 0);

    // The connection is usable afterwards.
    db.transaction([&] { db.execute("INSERT INTO t (x) VALUES (3)"); });
    EXPECT_EQ(count(), 1);
}

TEST_F(DatabaseTest, TransactionsNestAndActionsWaitForTheOutermostCommit) {
    auto xs = [&] { return db.query("SELECT group_concat(x) AS xs FROM t ORDER BY id")[0].string("xs"); };
    std::vector<std::string> ran;
    db.transaction([&] {
        db.execute("INSERT INTO t (x) VALUES (1)");
        db.afterCommit([&] { ran.push_back("outer"); });
        // A failing inner level takes only its own writes and actions with it.
        EXPECT_THROW(db.transaction([&] {
            db.execute("INSERT INTO t (x) VALUES (2)");
            db.afterCommit([&] { ran.push_back("failed"); });
            throw BodyFailed();
        }),
                     BodyFailed);
        db.transaction([&] {
            db.execute("INSERT INTO t (x) VALUES (3)");
            db.afterCommit([&] { ran.push_back("inner"); });
        });
        EXPECT_THROW(db.transaction([] { throw BodyFailed(); }), BodyFailed);
        EXPECT_TRUE(ran.empty());
    });
    EXPECT_EQ(xs(), "1,3");
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner"}));
    EXPECT_FALSE(db.inTransaction());

    // An outer failure undoes inner levels that had succeeded, and their actions.
    EXPECT_THROW(db.transaction([&] {
        db.transaction([&] {
            db.execute("INSERT INTO t (x) VALUES (4)");
            db.afterCommit([&] { ran.push_back("undone"); });
        });
        throw BodyFailed();
    }),
                 BodyFailed);
    EXPECT_EQ(xs(), "1,3");
    db.afterCommit([&] { ran.push_back("now"); });
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner", "now"}));
}

TEST_F(DatabaseTest, FailedCommitRollsBack) {
    db.executeRaw(
        "CREATE TABLE parent (id TEXT PRIMARY KEY);"
        "CREATE TABLE child (parent_id TEXT REFERENCES parent(id) DEFERRABLE INITIALLY DEFERRED);");
    try {
        db.transaction([&] { db.execute("INSERT INTO child VALUES ('missing')"); });
        FAIL() << "no error";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.sql(), "COMMIT;");
    }
    EXPECT_EQ(count("child"), 0);
    db.execute("INSERT INTO parent VALUES ('p')");
    EXPECT_EQ(count("parent"), 1);
}

TEST_F(DatabaseTest, TransactionsKeepOtherThreadsOut) {
    db.execute("INSERT INTO t (id, x) VALUES (1, 0)");
    auto work = [&] {
        for (int i = 0; i < 100; ++i) {
            db.transaction([&] {
                const auto x = db.query("SELECT x FROM t WHERE id = 1")[0].intValue("x").value_or(0);
                db.execute("UPDATE t SET x = ? WHERE id = 1", {SQLValue(x + 1)});
            });
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(db.query("SELECT x FROM t WHERE id = 1")[0].intValue("x"), 200);
}

TEST(DatabaseOpenTest, GarbageFileIsAnErrorNotACrash) {
    test::TempLibrary library;
    {
        std::ofstream out(library.databasePath(), std::ios::binary);
        for (int i = 0; i < 8192; ++i) out.put(static_cast<char>((i * 7919 + 13) % 251));
    }
    EXPECT_THROW(
        {
            Database db(library.databasePath());
            Schema::migrate(db);
        },
        DatabaseError);
}

TEST(DatabaseOpenTest, UnwritableFolderIsAnError) {
    test::TempLibrary library;
    const fs::path locked = library.home() / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    if (access(locked.c_str(), W_OK) == 0) {
        GTEST_SKIP() << "permissions do not bind this user (root)";
    }
    try {
        Database db(locked / "mirel.sqlite");
        FAIL() << "opened";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::openFailed);
        EXPECT_EQ(std::string(error.what()).rfind("Could not open the Mirel database: ", 0), 0u);
    }
    EXPECT_THROW(Database(locked / "sub/mirel.sqlite"), fs::filesystem_error);
}

}  // namespace
}  // namespace mirel
