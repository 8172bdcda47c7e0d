#pragma once
// A thin, thread-safe wrapper round one SQLite connection.
#include "core/store/database_error.h"
#include "core/store/row.h"
#include "core/store/sql_value.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

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

    // BEGIN IMMEDIATE … COMMIT round `body`, rolled back when the body or the
    // commit throws. Transactions do not nest.
    template <class Body>
    auto transaction(Body&& body) -> decltype(body()) {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        executeRaw("BEGIN IMMEDIATE TRANSACTION;");
        try {
            if constexpr (std::is_void_v<decltype(body())>) {
                body();
                executeRaw("COMMIT;");
            } else {
                auto result = body();
                executeRaw("COMMIT;");
                return result;
            }
        } catch (...) {
            rollbackQuietly();
            throw;
        }
    }

private:
    struct Closer {
        void operator()(sqlite3* handle) const;
    };
    struct Statement;

    Statement prepare(const std::string& sql, const std::vector<SQLValue>& values);
    void rollbackQuietly();

    // Constant after construction.
    std::unique_ptr<sqlite3, Closer> handle_;
    // Held for every use of the handle, and over a whole transaction.
    std::recursive_mutex lock_;
};

}  // namespace mirel
