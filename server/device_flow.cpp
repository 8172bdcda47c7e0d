#include "server/device_flow.h"

#include "server/accounts.h"
#include "server/crypto.h"
#include "server/refusal.h"

#include "core/platform/clock.h"

namespace mirel::server::DeviceFlow {

namespace {

// No vowels, so no words; no look-alike digits.
constexpr std::string_view kAlphabet = "BCDFGHJKLMNPQRSTVWXZ";

std::string newUserCode() {
    std::string bytes = randomBytes(8);
    std::string code;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4) code += '-';
        // 256 is not a multiple of 20; the small bias costs nothing against an 8-letter code.
        code += kAlphabet[static_cast<unsigned char>(bytes[i]) % kAlphabet.size()];
    }
    return code;
}

}  // namespace

Grant start(Connection& db) {
    Transaction transaction(db, Transaction::Kind::write);
    Date now = Clock::now();
    db.run("DELETE FROM device_codes WHERE expires_at < ?;", {now});
    if (db.integer("SELECT COUNT(*) FROM device_codes;").value_or(0) >= kMostWaitingCodes) {
        throw Refusal(503, "busy", "Too many sign-ins are waiting; try again in a few minutes.");
    }
    Grant grant{randomToken(), newUserCode()};
    while (db.integer("SELECT 1 FROM device_codes WHERE user_code = ?;", {grant.userCode})) {
        grant.userCode = newUserCode();
    }
    db.run("INSERT INTO device_codes (code_hash, user_code, expires_at, interval) VALUES (?,?,?,?);",
           {tokenHash(grant.deviceCode), grant.userCode, now + kCodeLifetime, kPollInterval});
    transaction.commit();
    return grant;
}

PollResult poll(Connection& db, const std::string& deviceCode) {
    Transaction transaction(db, Transaction::Kind::write);
    const std::string hash = tokenHash(deviceCode);
    auto s = db.prepare("SELECT expires_at, interval, last_poll_at, state, user_id FROM device_codes WHERE code_hash = ?;");
    s.bind(1, hash);
    if (!s.step()) return {Outcome::expired, {}};
    const Date expiresAt = s.real(0);
    const double interval = s.real(1);
    const bool polledBefore = !s.isNull(2);
    const Date lastPoll = s.real(2);
    const std::string state = s.text(3);
    const std::string userID = s.text(4);
    s.reset();

    const Date now = Clock::now();
    PollResult result{Outcome::pending, {}};
    if (now >= expiresAt) {
        result.outcome = Outcome::expired;
    } else if (state == "denied") {
        result.outcome = Outcome::denied;
    } else if (state == "approved") {
        result = {Outcome::token, Accounts::createSession(db, userID)};
    } else if (polledBefore && now - lastPoll < interval - 0.5) {
        // RFC 8628: every slow_down adds 5 seconds for the rest of this code's life.
        db.run("UPDATE device_codes SET interval = ?, last_poll_at = ? WHERE code_hash = ?;", {interval + 5, now, hash});
        result.outcome = Outcome::slowDown;
    } else {
        db.run("UPDATE device_codes SET last_poll_at = ? WHERE code_hash = ?;", {now, hash});
    }
    if (result.outcome != Outcome::pending && result.outcome != Outcome::slowDown) {
        db.run("DELETE FROM device_codes WHERE code_hash = ?;", {hash});
    }
    transaction.commit();
    return result;
}

std::optional<std::string> normalizeUserCode(const std::string& text) {
    std::string letters;
    for (char c : text) {
        if (c == '-' || c == ' ') continue;
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (kAlphabet.find(c) == std::string_view::npos) return std::nullopt;
        letters += c;
    }
    if (letters.size() != 8) return std::nullopt;
    return letters.substr(0, 4) + "-" + letters.substr(4);
}

void decide(Connection& db, const std::string& userCode, const std::optional<std::string>& approvingUserID) {
    auto code = normalizeUserCode(userCode);
    if (!code) throw AccountError("\"" + userCode + "\" is not a sign-in code");
    Transaction transaction(db, Transaction::Kind::write);
    auto state = db.text("SELECT state FROM device_codes WHERE user_code = ? AND expires_at > ?;", {*code, Clock::now()});
    if (!state) throw AccountError("the code " + *code + " is unknown or has expired; start the sign-in again");
    if (*state != "pending") throw AccountError("the code " + *code + " has been used already");
    if (approvingUserID) {
        db.run("UPDATE device_codes SET state = 'approved', user_id = ? WHERE user_code = ?;", {*approvingUserID, *code});
    } else {
        db.run("UPDATE device_codes SET state = 'denied' WHERE user_code = ?;", {*code});
    }
    transaction.commit();
}

void noteWrongPassword(Connection& db, const std::string& userCode) {
    db.run("UPDATE device_codes SET failed_attempts = failed_attempts + 1, "
           "state = CASE WHEN failed_attempts + 1 >= ? THEN 'denied' ELSE state END "
           "WHERE user_code = ? AND state = 'pending';",
           {static_cast<std::int64_t>(kWrongPasswordLimit), userCode});
}

}  // namespace mirel::server::DeviceFlow
