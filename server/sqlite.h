#pragma once
// A small RAII layer over SQLite for the server: connections, statements,
// transactions and a pool, so that each request thread holds its own connection
// and WAL lets readers run beside the one writer.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace mirel::server {

// Every SQLite failure on the server side.
class StorageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

using SqlArg = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

class Statement {
public:
    Statement(sqlite3* db, const std::string& sql);

    Statement& bind(int index, const SqlArg& value);
    Statement& bindAll(const std::vector<SqlArg>& values);
    // Steps once: true when a row is ready.
    bool step();
    void reset();

    bool isNull(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;
    std::string text(int column) const;
    std::optional<std::string> optionalText(int column) const;

private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    sqlite3* db_;
    std::string sql_;
    std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
};

// A statement kept by its connection for reuse; reset when the handle goes.
class CachedStatement {
public:
    explicit CachedStatement(Statement& statement) : statement_(&statement) {}
    CachedStatement(const CachedStatement&) = delete;
    CachedStatement& operator=(const CachedStatement&) = delete;
    ~CachedStatement() { statement_->reset(); }
    Statement* operator->() const { return statement_; }
    Statement& operator*() const { return *statement_; }

private:
    Statement* statement_;
};

class Connection {
public:
    // Opens (creating) the file with WAL, foreign keys and a 5 s busy time-out.
    explicit Connection(const std::filesystem::path& path);

    void execute(const std::string& sql);  // any number of statements, no binding
    // Runs one statement to its end; gives the number of changed rows.
    std::int64_t run(const std::string& sql, const std::vector<SqlArg>& values = {});
    Statement prepare(const std::string& sql) { return Statement(handle_.get(), sql); }
    // Prepared once per connection. Not for a statement that is still being
    // stepped elsewhere.
    CachedStatement cached(const std::string& sql);
    // The first column of the first row, if there is one.
    std::optional<std::int64_t> integer(const std::string& sql, const std::vector<SqlArg>& values = {});
    std::optional<std::string> text(const std::string& sql, const std::vector<SqlArg>& values = {});

private:
    struct Closer {
        void operator()(sqlite3* db) const;
    };
    std::unique_ptr<sqlite3, Closer> handle_;
    std::unordered_map<std::string, std::unique_ptr<Statement>> statements_;
};

// BEGIN IMMEDIATE (a writer) or BEGIN (a consistent read) … COMMIT; rolled back
// when left without commit().
class Transaction {
public:
    enum class Kind { read, write };
    Transaction(Connection& connection, Kind kind);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Connection& connection_;
    bool open_ = true;
};

// A savepoint inside a transaction: one change that fails leaves the others.
class Savepoint {
public:
    explicit Savepoint(Connection& connection);
    ~Savepoint();
    Savepoint(const Savepoint&) = delete;
    Savepoint& operator=(const Savepoint&) = delete;
    void release();

private:
    Connection& connection_;
    bool open_ = true;
};

class ConnectionPool {
public:
    explicit ConnectionPool(std::filesystem::path path) : path_(std::move(path)) {}

    class Lease {
    public:
        Lease(ConnectionPool& pool, std::unique_ptr<Connection> connection)
            : pool_(&pool), connection_(std::move(connection)) {}
        Lease(Lease&&) = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease();
        Connection& operator*() const { return *connection_; }
        Connection* operator->() const { return connection_.get(); }

    private:
        ConnectionPool* pool_;
        std::unique_ptr<Connection> connection_;
    };

    Lease acquire();

private:
    // Constant after construction.
    std::filesystem::path path_;
    // Guarded by mutex_.
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_;
};

}  // namespace mirel::server
