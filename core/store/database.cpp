#include "core/store/database.h"

#include "core/platform/text.h"
#include "core/store/mirel_paths.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace mirel {

void Database::Closer::operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }

void Database::Finalizer::operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }

namespace {

// Distinct statement texts kept at once; texts built at run time (lists of
// columns) could otherwise grow the cache without end.
constexpr std::size_t maxCachedStatements = 256;

}  // namespace

// A prepared statement for the length of one call: a cached one goes back to
// the cache reset, with its bindings cleared; an extra one is finalized.
struct Database::Statement {
    sqlite3_stmt* raw = nullptr;
    CachedStatement* cached = nullptr;
    std::unique_ptr<sqlite3_stmt, Finalizer> owned;

    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() {
        if (!cached) return;
        sqlite3_reset(raw);  // also ends the read a half-stepped statement holds
        sqlite3_clear_bindings(raw);
        cached->inUse = false;
    }
    sqlite3_stmt* get() const { return raw; }
};

Database::Database(const std::filesystem::path& path) {
    MirelPaths::ensureParentDirectory(path);
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                                   nullptr);
    std::unique_ptr<sqlite3, Closer> opened(raw);
    if (rc != SQLITE_OK || !raw) throw sqliteError(raw, rc, DatabaseError::Case::openFailed, "");
    handle_ = std::move(opened);
    // First: every later statement may wait for another process (switching
    // a new file to WAL takes a lock), and must wait rather than fail.
    executeRaw("PRAGMA busy_timeout = 5000;");
    switchToWAL();
    executeRaw("PRAGMA foreign_keys = ON;");
    executeRaw("PRAGMA synchronous = NORMAL;");
}

// Switching a fresh file to WAL needs an exclusive lock, and SQLite answers
// SQLITE_BUSY at once, without its busy handler, when another process holds
// the file in the moment it asks (the handler would risk a deadlock there).
// So this one statement waits by itself, as long as the busy timeout.
void Database::switchToWAL() {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(5000);
    for (;;) {
        try {
            executeRaw("PRAGMA journal_mode = WAL;");
            return;
        } catch (const DatabaseError& error) {
            const int primary = error.code() & 0xff;
            if ((primary != SQLITE_BUSY && primary != SQLITE_LOCKED) || Clock::now() >= deadline) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Database::prepare(Statement& statement, const std::string& sql, const std::vector<SQLValue>& values) {
    using Stage = DatabaseError::Case;
    if (!handle_) throw sqliteError(nullptr, SQLITE_MISUSE, Stage::prepareFailed, sql);
    auto found = statements_.find(sql);
    if (found != statements_.end() && found->second.stale && !found->second.inUse) {
        statements_.erase(found);
        found = statements_.end();
    }
    if (found != statements_.end() && !found->second.inUse) {
        statement.raw = found->second.stmt.get();
    } else {
        sqlite3_stmt* prepared = nullptr;
        const int rc = sqlite3_prepare_v2(handle_.get(), sql.c_str(), -1, &prepared, nullptr);
        statement.owned.reset(prepared);
        if (rc != SQLITE_OK) throw sqliteError(handle_.get(), rc, Stage::prepareFailed, sql);
        if (!prepared) return;  // empty text or only a comment: nothing to run
        statement.raw = prepared;
        if (found == statements_.end()) {
            if (statements_.size() >= maxCachedStatements) {
                std::erase_if(statements_, [](const auto& entry) { return !entry.second.inUse; });
            }
            statements_[sql].stmt = std::move(statement.owned);
        }
    }
    if (statement.owned == nullptr) {
        statement.cached = &statements_.at(sql);
        statement.cached->inUse = true;
    }
    sqlite3_stmt* raw = statement.raw;
    // Values beyond the statement's parameters are not bound; missing ones stay NULL.
    const int parameters = sqlite3_bind_parameter_count(raw);
    for (int index = 1; index <= parameters && index <= static_cast<int>(values.size()); ++index) {
        const SQLValue& value = values[index - 1];
        int bound = SQLITE_OK;
        if (value.isInt()) {
            bound = sqlite3_bind_int64(raw, index, value.asInt());
        } else if (value.isDouble()) {
            bound = sqlite3_bind_double(raw, index, value.asDouble());
        } else if (value.isText()) {
            bound = sqlite3_bind_text(raw, index, value.asText().c_str(), -1, SQLITE_TRANSIENT);
        } else if (value.isBlob()) {
            const Blob& bytes = value.asBlob();
            bound = bytes.empty() ? sqlite3_bind_zeroblob(raw, index, 0)
                                  : sqlite3_bind_blob64(raw, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
        } else {
            bound = sqlite3_bind_null(raw, index);
        }
        if (bound != SQLITE_OK) throw sqliteError(handle_.get(), bound, Stage::prepareFailed, sql);
    }
}

// A kept statement whose first step fails with a plain error may have been
// made stale by another connection's schema change (a dropped table, say):
// the call is made once more with a fresh statement, so that it fails, or
// not, exactly as a fresh one does.
bool Database::firstStepOfStaleStatement(Statement& statement, int rc) {
    if (!statement.cached || (rc & 0xff) != SQLITE_ERROR) return false;
    statement.cached->stale = true;
    return true;
}

std::int64_t Database::execute(const std::string& sql, const std::vector<SQLValue>& values) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    Statement statement;
    prepare(statement, sql, values);
    if (!statement.get()) return 0;
    const int rc = sqlite3_step(statement.get());
    if (firstStepOfStaleStatement(statement, rc)) return execute(sql, values);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        throw sqliteError(handle_.get(), rc, DatabaseError::Case::stepFailed, sql);
    }
    return sqlite3_changes(handle_.get());
}

void Database::executeRaw(const std::string& sql) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    if (!handle_) throw sqliteError(nullptr, SQLITE_MISUSE, DatabaseError::Case::stepFailed, sql);
    char* raw = nullptr;
    const int rc = sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, &raw);
    const std::unique_ptr<char, decltype(&sqlite3_free)> reported(raw, &sqlite3_free);
    if (rc != SQLITE_OK) throw sqliteError(handle_.get(), rc, DatabaseError::Case::stepFailed, sql, reported.get());
}

std::vector<Row> Database::query(const std::string& sql, const std::vector<SQLValue>& values) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    Statement statement;
    prepare(statement, sql, values);
    std::vector<Row> rows;
    sqlite3_stmt* stmt = statement.get();
    if (!stmt) return rows;
    int rc = sqlite3_step(stmt);
    if (firstStepOfStaleStatement(statement, rc)) return query(sql, values);
    // Names are read after the first step: a kept statement that SQLite
    // prepared again there (another connection changed the schema) may have
    // other columns now.
    const int columns = sqlite3_column_count(stmt);
    auto names = std::make_shared<Row::Columns>();
    names->reserve(columns);
    for (int i = 0; i < columns; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        names->emplace_back(name ? name : "");
    }
    for (; rc == SQLITE_ROW; rc = sqlite3_step(stmt)) {
        std::vector<SQLValue> cells;
        cells.reserve(columns);
        for (int i = 0; i < columns; ++i) {
            switch (sqlite3_column_type(stmt, i)) {
                case SQLITE_INTEGER:
                    cells.emplace_back(static_cast<std::int64_t>(sqlite3_column_int64(stmt, i)));
                    break;
                case SQLITE_FLOAT:
                    cells.emplace_back(sqlite3_column_double(stmt, i));
                    break;
                case SQLITE_TEXT: {
                    // Without a pointer the column reads as missing, like NULL.
                    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
                    cells.push_back(text ? SQLValue(repairUTF8(text)) : SQLValue::null());
                    break;
                }
                case SQLITE_BLOB: {
                    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, i));
                    const int count = sqlite3_column_bytes(stmt, i);
                    cells.push_back(SQLValue::blob(bytes ? Blob(bytes, bytes + count) : Blob{}));
                    break;
                }
                default:
                    cells.push_back(SQLValue::null());
                    break;
            }
        }
        rows.emplace_back(names, std::move(cells));
    }
    return rows;
}

namespace {

std::string savepoint(int level) { return "nest_" + std::to_string(level); }

}  // namespace

int Database::begin() {
    if (depth_ == 0) executeRaw("BEGIN IMMEDIATE TRANSACTION;");
    else executeRaw("SAVEPOINT " + savepoint(depth_ + 1) + ";");
    return ++depth_;
}

Database::AfterCommit Database::commit(int level) {
    if (level > 1) {
        executeRaw("RELEASE " + savepoint(level) + ";");
        --depth_;
        // Its actions now stand or fall with the enclosing level.
        for (auto& entry : pending_) entry.first = std::min(entry.first, depth_);
        return {};
    }
    executeRaw("COMMIT;");
    depth_ = 0;
    AfterCommit due;
    for (auto& [asker, action] : pending_) due.push_back(std::move(action));
    pending_.clear();
    return due;
}

void Database::rollback(int level) noexcept {
    try {
        if (level > 1) executeRaw("ROLLBACK TO " + savepoint(level) + "; RELEASE " + savepoint(level) + ";");
        else executeRaw("ROLLBACK;");
    } catch (...) {
        // SQLite may have ended the transaction itself (a full disk, say);
        // the first error is the one the caller needs to see.
    }
    depth_ = level - 1;
    std::erase_if(pending_, [level](const auto& entry) { return entry.first >= level; });
}

void Database::runQuietly(const AfterCommit& actions) noexcept {
    for (const auto& action : actions) {
        try {
            action();
        } catch (...) {
        }
    }
}

void Database::afterCommit(std::function<void()> action) {
    std::unique_lock<std::recursive_mutex> guard(lock_);
    if (depth_ > 0) {
        pending_.emplace_back(depth_, std::move(action));
        return;
    }
    guard.unlock();
    runQuietly({std::move(action)});
}

bool Database::inTransaction() {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return depth_ > 0;
}

}  // namespace mirel
