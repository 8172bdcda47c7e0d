#include "core/store/database_error.h"

namespace mirel {

DatabaseError::DatabaseError(Case c, std::string message, std::string sql,
                             const std::string& description)
    : std::runtime_error(description), case_(c), message_(std::move(message)), sql_(std::move(sql)) {}

DatabaseError DatabaseError::openFailed(std::string message) {
    const std::string description = "Could not open the Mirel database: " + message;
    return DatabaseError(Case::openFailed, std::move(message), "", description);
}

DatabaseError DatabaseError::prepareFailed(std::string message, std::string sql) {
    const std::string description = "SQL prepare failed: " + message + "\n" + sql;
    return DatabaseError(Case::prepareFailed, std::move(message), std::move(sql), description);
}

DatabaseError DatabaseError::stepFailed(std::string message, std::string sql) {
    const std::string description = "SQL execution failed: " + message + "\n" + sql;
    return DatabaseError(Case::stepFailed, std::move(message), std::move(sql), description);
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
