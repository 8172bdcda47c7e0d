#include "core/store/database_error.h"

#include <sqlite3.h>

namespace mirel {

namespace {

std::string describe(DatabaseError::Case c, const std::string& message, const std::string& sql) {
    switch (c) {
        case DatabaseError::Case::openFailed: return "Could not open the Mirel database: " + message;
        case DatabaseError::Case::prepareFailed: return "SQL prepare failed: " + message + "\n" + sql;
        case DatabaseError::Case::stepFailed: return "SQL execution failed: " + message + "\n" + sql;
    }
    return message;
}

}  // namespace

DatabaseError::DatabaseError(Case c, int code, std::string message, std::string sql)
    : std::runtime_error(describe(c, message, sql)),
      case_(c),
      code_(code),
      message_(std::move(message)),
      sql_(std::move(sql)) {}

DatabaseError sqliteError(sqlite3* handle, int code, DatabaseError::Case stage, const std::string& sql,
                          const char* reported) {
    std::string message;
    if (reported) message = reported;
    else if (handle) message = sqlite3_errmsg(handle);
    else message = stage == DatabaseError::Case::openFailed ? "unknown error" : "no database handle";
    return DatabaseError(stage, code, std::move(message), sql);
}

std::string DatabaseError::plainRendering() const {
    switch (case_) {
        case Case::openFailed: return "openFailed(\"" + message_ + "\")";
        case Case::prepareFailed: return "prepareFailed(\"" + message_ + "\", sql: \"" + sql_ + "\")";
        case Case::stepFailed: return "stepFailed(\"" + message_ + "\", sql: \"" + sql_ + "\")";
    }
    return what();
}

}  // namespace mirel
