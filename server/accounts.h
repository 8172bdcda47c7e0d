#pragma once
// Users, workspaces, memberships and sessions.
#include "server/sqlite.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace mirel::server {

// A request about accounts that can't be carried out, with the reason as text.
class AccountError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct User {
    std::string id;
    std::string email;
    std::string name;
};

struct Membership {
    std::string workspaceID;
    std::string name;
    std::string slug;
    std::string role;
};

namespace Accounts {

User addUser(Connection& db, const std::string& email, const std::string& name, const std::string& password);
void setPassword(Connection& db, const std::string& email, const std::string& password);
std::optional<User> userByEmail(Connection& db, const std::string& email);
// The user when the e-mail and password match; absent otherwise.
std::optional<User> checkPassword(Connection& db, const std::string& email, const std::string& password);

std::string addWorkspace(Connection& db, const std::string& slug, const std::string& name);
std::optional<std::string> workspaceBySlug(Connection& db, const std::string& slug);
void addMember(Connection& db, const std::string& workspaceID, const std::string& userID, const std::string& role);
// True when there was such a membership.
bool removeMember(Connection& db, const std::string& workspaceID, const std::string& userID);
// The user's workspaces, by name.
std::vector<Membership> memberships(Connection& db, const std::string& userID);
// Everybody who shares a workspace with the user, the user included.
std::vector<User> colleagues(Connection& db, const std::string& userID);

// A new session: the token goes to the device, only its hash stays here.
std::string createSession(Connection& db, const std::string& userID);
std::optional<User> userForToken(Connection& db, const std::string& token);
void revokeSession(Connection& db, const std::string& token);

}  // namespace Accounts
}  // namespace mirel::server
