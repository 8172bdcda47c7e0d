#pragma once
// A thin, thread-safe wrapper round one SQLite connection.
#include "core/store/database_error.h"
#include "core/store/row.h"
#include "core/store/sql_value.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace mirel {

class Database {
public:
    // Opens (creating if needed) the file with WAL, foreign keys, a busy
    // time-out of 5000 ms and synchronous NORMAL. Throws DatabaseError, or the
    // file system's error when the parent folder cannot be made.
    explicit Database(const std::filesystem::path& path);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs the first statement of `sql` once; gives sqlite3_changes.
    std::int64_t execute(const std::string& sql, const std::vector<SQLValue>& values = {});
    // Runs any number of statements, without binding.
    void executeRaw(const std::string& sql);
    // Rows in result order. A failing step ends the list quietly.
    std::vector<Row> query(const std::string& sql, const std::vector<SQLValue>& values = {});

    // Runs `body` all or nothing and gives its value. The outermost level is
    // BEGIN IMMEDIATE … COMMIT, so the write lock is held from the first read
    // of the body: writers in other processes wait (busy time-out) instead of
    // overwriting what the body read. Levels inside it are savepoints, so an
    // operation with its own transaction composes into a larger one. A body
    // that throws leaves nothing of its level behind.
    template <class Body>
    auto transaction(Body&& body) -> decltype(body()) {
        std::unique_lock<std::recursive_mutex> guard(lock_);
        const int level = begin();
        AfterCommit committed;
        auto run = [&]() -> decltype(body()) {
            try {
                if constexpr (std::is_void_v<decltype(body())>) {
                    body();
                    committed = commit(level);
                } else {
                    auto result = body();
                    committed = commit(level);
                    return result;
                }
            } catch (...) {
                rollback(level);
                throw;
            }
        };
        if constexpr (std::is_void_v<decltype(body())>) {
            run();
            guard.unlock();
            runQuietly(committed);
        } else {
            auto result = run();
            guard.unlock();
            runQuietly(committed);
            return result;
        }
    }

    // Runs `action` once the outermost transaction has committed, or at once
    // when none is open; dropped if the level that asked for it rolls back.
    // For what others must only see after the data: the change signal, the
    // removal of files that rows no longer name. Must not throw.
    void afterCommit(std::function<void()> action);
    bool inTransaction();

private:
    void switchToWAL();
    struct Closer {
        void operator()(sqlite3* handle) const;
    };
    struct Statement;
    struct Finalizer {
        void operator()(sqlite3_stmt* stmt) const;
    };
    struct CachedStatement {
        std::unique_ptr<sqlite3_stmt, Finalizer> stmt;
        bool inUse = false;
        bool stale = false;  // replaced when next asked for
    };

    using AfterCommit = std::vector<std::function<void()>>;

    // Fills `statement` with the prepared `sql` (nothing for an empty text)
    // and binds `values`.
    void prepare(Statement& statement, const std::string& sql, const std::vector<SQLValue>& values);
    // True when the call should be made again with a fresh statement.
    static bool firstStepOfStaleStatement(Statement& statement, int rc);
    // The level just opened: 1 for the outermost transaction.
    int begin();
    // Ends `level` successfully; for the outermost, the actions now due.
    AfterCommit commit(int level);
    // Undoes `level`; SQLite's own errors here are not the caller's news.
    void rollback(int level) noexcept;
    static void runQuietly(const AfterCommit& actions) noexcept;

    // Constant after construction.
    std::unique_ptr<sqlite3, Closer> handle_;
    // Held for every use of the handle, and over a whole transaction.
    std::recursive_mutex lock_;
    // Guarded by lock_: open levels, and the actions waiting for the commit
    // with the level that asked for each.
    int depth_ = 0;
    std::vector<std::pair<int, std::function<void()>>> pending_;
    // Guarded by lock_: prepared statements by their text, kept for the next
    // call, since parsing costs more than running most of them. Declared
    // after handle_, so they are finalized before the connection closes.
    std::unordered_map<std::string, CachedStatement> statements_;
};

}  // namespace mirel
