#pragma once
// A request the server turns down, with the HTTP status and the error body
// {"error":{"code":…,"message":…}} that clients read.
#include <stdexcept>
#include <string>

namespace mirel::server {

class Refusal : public std::runtime_error {
public:
    Refusal(int status, std::string code, const std::string& message)
        : std::runtime_error(message), status_(status), code_(std::move(code)) {}
    int status() const { return status_; }
    const std::string& code() const { return code_; }

private:
    int status_;
    std::string code_;
};

inline Refusal badRequest(const std::string& message) { return Refusal(400, "invalid_request", message); }

}  // namespace mirel::server
