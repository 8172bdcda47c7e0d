#include "server/accounts.h"

#include "server/crypto.h"

#include "core/platform/clock.h"

#include <algorithm>

namespace mirel::server::Accounts {

namespace {

constexpr std::size_t kMinimumPasswordLength = 8;

void checkPassword(const std::string& password) {
    if (password.size() < kMinimumPasswordLength) {
        throw AccountError("the password needs at least " + std::to_string(kMinimumPasswordLength) + " characters");
    }
}

bool plausibleEmail(const std::string& email) {
    auto at = email.find('@');
    return email.size() <= 254 && at != std::string::npos && at > 0 && at + 1 < email.size() &&
           email.find_first_of(" \t\r\n<>\"") == std::string::npos;
}

bool plausibleSlug(const std::string& slug) {
    return !slug.empty() && slug.size() <= 40 && std::all_of(slug.begin(), slug.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

User readUser(const Statement& s) { return User{s.text(0), s.text(1), s.text(2)}; }

}  // namespace

User addUser(Connection& db, const std::string& email, const std::string& name, const std::string& password) {
    if (!plausibleEmail(email)) throw AccountError("\"" + email + "\" is not an e-mail address");
    if (name.empty() || name.size() > 200) throw AccountError("the name must be 1 to 200 characters");
    checkPassword(password);
    if (userByEmail(db, email)) throw AccountError("a user with the e-mail " + email + " exists already");
    User user{newID(), email, name};
    db.run("INSERT INTO users (id, email, name, password_hash, created_at) VALUES (?,?,?,?,?);",
           {user.id, email, name, hashPassword(password), Clock::now()});
    return user;
}

void setPassword(Connection& db, const std::string& email, const std::string& password) {
    checkPassword(password);
    auto user = userByEmail(db, email);
    if (!user) throw AccountError("no user has the e-mail " + email);
    Transaction transaction(db, Transaction::Kind::write);
    db.run("UPDATE users SET password_hash = ? WHERE id = ?;", {hashPassword(password), user->id});
    // A new password ends every session signed in with the old one.
    db.run("DELETE FROM sessions WHERE user_id = ?;", {user->id});
    transaction.commit();
}

std::optional<User> userByEmail(Connection& db, const std::string& email) {
    auto s = db.prepare("SELECT id, email, name FROM users WHERE email = ?;");
    s.bind(1, email);
    if (!s.step()) return std::nullopt;
    return readUser(s);
}

std::optional<User> checkPassword(Connection& db, const std::string& email, const std::string& password) {
    auto s = db.prepare("SELECT id, email, name, password_hash FROM users WHERE email = ?;");
    s.bind(1, email);
    if (!s.step()) {
        // As slow as a wrong password, so that the page doesn't tell which e-mails have accounts.
        static const std::string decoy = hashPassword("no account has this password");
        verifyPassword(password, decoy);
        return std::nullopt;
    }
    if (!verifyPassword(password, s.text(3))) return std::nullopt;
    return readUser(s);
}

std::string addWorkspace(Connection& db, const std::string& slug, const std::string& name) {
    if (!plausibleSlug(slug)) throw AccountError("a slug is 1 to 40 of a-z, 0-9 and -");
    if (name.empty() || name.size() > 200) throw AccountError("the name must be 1 to 200 characters");
    if (workspaceBySlug(db, slug)) throw AccountError("the workspace " + slug + " exists already");
    std::string id = newID();
    db.run("INSERT INTO workspaces (id, slug, name, created_at) VALUES (?,?,?,?);", {id, slug, name, Clock::now()});
    return id;
}

std::optional<std::string> workspaceBySlug(Connection& db, const std::string& slug) {
    return db.text("SELECT id FROM workspaces WHERE slug = ?;", {slug});
}

void addMember(Connection& db, const std::string& workspaceID, const std::string& userID, const std::string& role) {
    db.run("INSERT INTO memberships (workspace_id, user_id, role) VALUES (?,?,?) "
           "ON CONFLICT(workspace_id, user_id) DO UPDATE SET role = excluded.role;",
           {workspaceID, userID, role});
}

bool removeMember(Connection& db, const std::string& workspaceID, const std::string& userID) {
    return db.run("DELETE FROM memberships WHERE workspace_id = ? AND user_id = ?;", {workspaceID, userID}) > 0;
}

std::vector<Membership> memberships(Connection& db, const std::string& userID) {
    auto s = db.prepare(
        "SELECT w.id, w.name, w.slug, m.role FROM memberships m JOIN workspaces w ON w.id = m.workspace_id "
        "WHERE m.user_id = ? ORDER BY w.name COLLATE NOCASE, w.id;");
    s.bind(1, userID);
    std::vector<Membership> list;
    while (s.step()) list.push_back({s.text(0), s.text(1), s.text(2), s.text(3)});
    return list;
}

std::vector<User> colleagues(Connection& db, const std::string& userID) {
    auto s = db.prepare(
        "SELECT id, email, name FROM users WHERE id = ?1 OR id IN (SELECT m.user_id FROM memberships m "
        "WHERE m.workspace_id IN (SELECT workspace_id FROM memberships WHERE user_id = ?1)) ORDER BY name, id;");
    s.bind(1, userID);
    std::vector<User> list;
    while (s.step()) list.push_back(readUser(s));
    return list;
}

std::string createSession(Connection& db, const std::string& userID) {
    std::string token = randomToken();
    Date now = Clock::now();
    db.run("INSERT INTO sessions (token_hash, user_id, created_at, last_used_at) VALUES (?,?,?,?);",
           {tokenHash(token), userID, now, now});
    return token;
}

std::optional<User> userForToken(Connection& db, const std::string& token) {
    const std::string hash = tokenHash(token);
    User user;
    Date lastUsed = 0;
    {
        auto s = db.cached(
            "SELECT u.id, u.email, u.name, s.last_used_at FROM sessions s JOIN users u ON u.id = s.user_id "
            "WHERE s.token_hash = ?;");
        s->bind(1, hash);
        if (!s->step()) return std::nullopt;
        user = readUser(*s);
        lastUsed = s->real(3);
    }
    // Kept to the minute, so that a run of reads does not turn into writes.
    Date now = Clock::now();
    if (now - lastUsed > 60) {
        db.run("UPDATE sessions SET last_used_at = ? WHERE token_hash = ?;", {now, hash});
    }
    return user;
}

void revokeSession(Connection& db, const std::string& token) {
    db.run("DELETE FROM sessions WHERE token_hash = ?;", {tokenHash(token)});
}

}  // namespace mirel::server::Accounts
