#pragma once
// The device authorization grant (RFC 8628): a device asks for a code, a person
// approves it in a browser (or an administrator with `approve`), and the
// device's next poll turns it into a session token.
#include "server/sqlite.h"

#include <optional>
#include <string>

namespace mirel::server::DeviceFlow {

constexpr double kCodeLifetime = 600;  // seconds
constexpr double kPollInterval = 2;    // seconds; the clients' own minimum
constexpr int kWrongPasswordLimit = 5;
constexpr std::int64_t kMostWaitingCodes = 1000;

struct Grant {
    std::string deviceCode;
    std::string userCode;  // "BCDF-GHJK"
};

Grant start(Connection& db);

enum class Outcome { token, pending, slowDown, denied, expired };
struct PollResult {
    Outcome outcome;
    std::string token;  // for Outcome::token
};
PollResult poll(Connection& db, const std::string& deviceCode);

// "bcdf ghjk", "BCDFGHJK" and "BCDF-GHJK" are one code; absent when the text
// can't be one.
std::optional<std::string> normalizeUserCode(const std::string& text);

// Approves (with the user) or denies a waiting code. Throws AccountError when
// the code is unknown, expired or already decided.
void decide(Connection& db, const std::string& userCode, const std::optional<std::string>& approvingUserID);
// A wrong password typed for this code; too many deny the code.
void noteWrongPassword(Connection& db, const std::string& userCode);

}  // namespace mirel::server::DeviceFlow
