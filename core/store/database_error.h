#pragma once
#include <stdexcept>
#include <string>

struct sqlite3;

namespace mirel {

// The one error type of the database layer. what() is the description the
// user sees; plainRendering() names the case and payload for log lines.
class DatabaseError : public std::runtime_error {
public:
    enum class Case { openFailed, prepareFailed, stepFailed };

    Case errorCase() const { return case_; }
    // SQLite's result code, such as SQLITE_BUSY.
    int code() const { return code_; }
    const std::string& message() const { return message_; }
    const std::string& sql() const { return sql_; }
    std::string plainRendering() const;

private:
    DatabaseError(Case c, int code, std::string message, std::string sql);
    friend DatabaseError sqliteError(sqlite3* handle, int code, DatabaseError::Case stage, const std::string& sql,
                                     const char* reported);

    Case case_;
    int code_;
    std::string message_;
    std::string sql_;
};

// The one place where a SQLite return code becomes an error. The message is
// `reported` when SQLite handed one out (sqlite3_exec), else the connection's
// own, else "no database handle" ("unknown error" when opening).
DatabaseError sqliteError(sqlite3* handle, int code, DatabaseError::Case stage, const std::string& sql,
                          const char* reported = nullptr);

}  // namespace mirel
