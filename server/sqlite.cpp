#include "server/sqlite.h"

#include <sqlite3.h>

namespace mirel::server {

namespace {

[[noreturn]] void sqliteError(sqlite3* db, int rc, const std::string& sql) {
    std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    throw StorageError("database: " + message + " (" + sql.substr(0, 80) + ")");
}

}  // namespace

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Statement::Statement(sqlite3* db, const std::string& sql) : db_(db), sql_(sql) {
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr);
    handle_.reset(raw);
    if (rc != SQLITE_OK) sqliteError(db, rc, sql);
}

Statement& Statement::bind(int index, const SqlArg& value) {
    sqlite3_stmt* s = handle_.get();
    int rc = SQLITE_OK;
    if (std::holds_alternative<std::nullptr_t>(value)) {
        rc = sqlite3_bind_null(s, index);
    } else if (auto* i = std::get_if<std::int64_t>(&value)) {
        rc = sqlite3_bind_int64(s, index, *i);
    } else if (auto* d = std::get_if<double>(&value)) {
        rc = sqlite3_bind_double(s, index, *d);
    } else {
        const auto& t = std::get<std::string>(value);
        rc = sqlite3_bind_text(s, index, t.data(), static_cast<int>(t.size()), SQLITE_TRANSIENT);
    }
    if (rc != SQLITE_OK) sqliteError(db_, rc, sql_);
    return *this;
}

Statement& Statement::bindAll(const std::vector<SqlArg>& values) {
    for (std::size_t i = 0; i < values.size(); ++i) bind(static_cast<int>(i + 1), values[i]);
    return *this;
}

bool Statement::step() {
    int rc = sqlite3_step(handle_.get());
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    sqliteError(db_, rc, sql_);
}

void Statement::reset() {
    sqlite3_reset(handle_.get());
    sqlite3_clear_bindings(handle_.get());
}

bool Statement::isNull(int column) const { return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL; }

std::int64_t Statement::integer(int column) const { return sqlite3_column_int64(handle_.get(), column); }

double Statement::real(int column) const { return sqlite3_column_double(handle_.get(), column); }

std::string Statement::text(int column) const {
    const auto* data = sqlite3_column_text(handle_.get(), column);
    if (!data) return {};
    return std::string(reinterpret_cast<const char*>(data),
                       static_cast<std::size_t>(sqlite3_column_bytes(handle_.get(), column)));
}

std::optional<std::string> Statement::optionalText(int column) const {
    if (isNull(column)) return std::nullopt;
    return text(column);
}

void Connection::Closer::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

Connection::Connection(const std::filesystem::path& path) {
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    handle_.reset(raw);
    if (rc != SQLITE_OK) sqliteError(raw, rc, "open " + path.string());
    sqlite3_busy_timeout(raw, 5000);
    execute("PRAGMA journal_mode = WAL; PRAGMA foreign_keys = ON; PRAGMA synchronous = NORMAL;");
}

void Connection::execute(const std::string& sql) {
    char* error = nullptr;
    int rc = sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = error ? error : sqlite3_errstr(rc);
        sqlite3_free(error);
        throw StorageError("database: " + message + " (" + sql.substr(0, 80) + ")");
    }
}

CachedStatement Connection::cached(const std::string& sql) {
    auto& slot = statements_[sql];
    if (!slot) slot = std::make_unique<Statement>(handle_.get(), sql);
    return CachedStatement(*slot);
}

std::int64_t Connection::run(const std::string& sql, const std::vector<SqlArg>& values) {
    auto statement = cached(sql);
    statement->bindAll(values);
    while (statement->step()) {
    }
    return sqlite3_changes64(handle_.get());
}

std::optional<std::int64_t> Connection::integer(const std::string& sql, const std::vector<SqlArg>& values) {
    auto statement = cached(sql);
    statement->bindAll(values);
    if (!statement->step() || statement->isNull(0)) return std::nullopt;
    return statement->integer(0);
}

std::optional<std::string> Connection::text(const std::string& sql, const std::vector<SqlArg>& values) {
    auto statement = cached(sql);
    statement->bindAll(values);
    if (!statement->step()) return std::nullopt;
    return statement->optionalText(0);
}

Transaction::Transaction(Connection& connection, Kind kind) : connection_(connection) {
    connection_.run(kind == Kind::write ? "BEGIN IMMEDIATE;" : "BEGIN;");
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        connection_.run("ROLLBACK;");
    } catch (const StorageError&) {
        // Nothing more can be done; SQLite rolls back a broken transaction itself.
    }
}

void Transaction::commit() {
    connection_.run("COMMIT;");
    open_ = false;
}

Savepoint::Savepoint(Connection& connection) : connection_(connection) { connection_.run("SAVEPOINT change;"); }

Savepoint::~Savepoint() {
    if (!open_) return;
    try {
        connection_.run("ROLLBACK TO change;");
        connection_.run("RELEASE change;");
    } catch (const StorageError&) {
        // The surrounding transaction's rollback covers it.
    }
}

void Savepoint::release() {
    connection_.run("RELEASE change;");
    open_ = false;
}

ConnectionPool::Lease::~Lease() {
    if (!connection_) return;
    std::lock_guard<std::mutex> guard(pool_->mutex_);
    pool_->idle_.push_back(std::move(connection_));
}

ConnectionPool::Lease ConnectionPool::acquire() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!idle_.empty()) {
            auto connection = std::move(idle_.back());
            idle_.pop_back();
            return Lease(*this, std::move(connection));
        }
    }
    return Lease(*this, std::make_unique<Connection>(path_));
}

}  // namespace mirel::server
