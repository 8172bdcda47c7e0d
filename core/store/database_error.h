#pragma once
#include <stdexcept>
#include <string>

namespace mirel {

// The one error type of the database layer. what() is the description the
// user sees; plainRendering() names the case and payload for log lines.
class DatabaseError : public std::runtime_error {
public:
    enum class Case { openFailed, prepareFailed, stepFailed };

    static DatabaseError openFailed(std::string message);
    static DatabaseError prepareFailed(std::string message, std::string sql);
    static DatabaseError stepFailed(std::string message, std::string sql);

    Case errorCase() const { return case_; }
    const std::string& message() const { return message_; }
    const std::string& sql() const { return sql_; }
    std::string plainRendering() const;

private:
    DatabaseError(Case c, std::string message, std::string sql, const std::string& description);
    Case case_;
    std::string message_;
    std::string sql_;
};

}  // namespace mirel
