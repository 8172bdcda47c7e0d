#include "server/admin.h"

#include "server/accounts.h"
#include "server/command_line.h"
#include "server/device_flow.h"

#include <termios.h>
#include <unistd.h>

#include <iostream>

namespace mirel::server {

namespace {

// The first line of standard input; typed without echo at a terminal.
std::string readPassword() {
    const bool terminal = ::isatty(STDIN_FILENO);
    termios saved{};
    if (terminal) {
        std::cerr << "Password: " << std::flush;
        ::tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string password;
    std::getline(std::cin, password);
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::cerr << "\n";
    }
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return password;
}

// Words after the command's fixed ones: plain words, and the values of
// "--name"-like options that take one value, and of "--member"-like options
// that take every following plain word.
struct Arguments {
    std::vector<std::string> plain;
    std::string name;
    std::string user;
    std::vector<std::string> members;
    std::vector<std::string> owners;
    bool ownerFlag = false;
};

Arguments parseArguments(const std::vector<std::string>& words, std::size_t from) {
    Arguments parsed;
    std::vector<std::string>* list = &parsed.plain;
    for (std::size_t i = from; i < words.size(); ++i) {
        const std::string& word = words[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= words.size()) throw UsageError(word + " needs a value");
            return words[++i];
        };
        if (word == "--name") {
            parsed.name = value();
        } else if (word == "--user") {
            parsed.user = value();
        } else if (word == "--member") {
            list = &parsed.members;
        } else if (word == "--owner") {
            list = &parsed.owners;
            parsed.ownerFlag = true;
        } else if (word.rfind("--", 0) == 0) {
            throw UsageError("unknown option " + word);
        } else {
            list->push_back(word);
        }
    }
    return parsed;
}

User requireUser(Connection& db, const std::string& email) {
    auto user = Accounts::userByEmail(db, email);
    if (!user) throw AccountError("no user has the e-mail " + email + " (add one with: user add EMAIL --name NAME)");
    return *user;
}

std::string requireWorkspace(Connection& db, const std::string& slug) {
    auto id = Accounts::workspaceBySlug(db, slug);
    if (!id) throw AccountError("there is no workspace " + slug);
    return *id;
}

void userCommand(Connection& db, const std::vector<std::string>& words) {
    const std::string verb = words.size() > 1 ? words[1] : "";
    const Arguments args = parseArguments(words, 2);
    if (verb == "add" && args.plain.size() == 1 && !args.name.empty()) {
        const User user = Accounts::addUser(db, args.plain[0], args.name, readPassword());
        std::cout << "Added " << user.name << " <" << user.email << "> as user " << user.id << "\n";
    } else if (verb == "password" && args.plain.size() == 1) {
        Accounts::setPassword(db, args.plain[0], readPassword());
        std::cout << "Changed the password of " << args.plain[0] << "; their devices must sign in again\n";
    } else if (verb == "list" && args.plain.empty()) {
        auto s = db.prepare("SELECT email, name, id FROM users ORDER BY email;");
        while (s.step()) std::cout << s.text(0) << "\t" << s.text(1) << "\t" << s.text(2) << "\n";
    } else {
        throw UsageError("user add EMAIL --name NAME | user password EMAIL | user list");
    }
}

void addMembers(Connection& db, const std::string& workspaceID, const std::string& slug,
                const std::vector<std::string>& emails, const std::string& role, std::string& report) {
    for (const auto& email : emails) {
        Accounts::addMember(db, workspaceID, requireUser(db, email).id, role);
        report += "Added " + email + " to " + slug + " as " + role + "\n";
    }
}

void workspaceCommand(Connection& db, const std::vector<std::string>& words) {
    const std::string verb = words.size() > 1 ? words[1] : "";
    const Arguments args = parseArguments(words, 2);
    // Told after the commit: one unknown e-mail leaves everything as it was.
    std::string report;
    Transaction transaction(db, Transaction::Kind::write);
    if (verb == "add" && args.plain.size() == 1 && !args.name.empty()) {
        const std::string id = Accounts::addWorkspace(db, args.plain[0], args.name);
        report += "Added workspace " + args.plain[0] + " (" + id + ")\n";
        addMembers(db, id, args.plain[0], args.members, "member", report);
        addMembers(db, id, args.plain[0], args.owners, "owner", report);
    } else if (verb == "add-member" && !args.plain.empty() && args.plain.size() + args.owners.size() >= 2) {
        const std::string slug = args.plain[0];
        std::vector<std::string> emails(args.plain.begin() + 1, args.plain.end());
        emails.insert(emails.end(), args.owners.begin(), args.owners.end());
        addMembers(db, requireWorkspace(db, slug), slug, emails, args.ownerFlag ? "owner" : "member", report);
    } else if (verb == "remove-member" && args.plain.size() >= 2) {
        const std::string id = requireWorkspace(db, args.plain[0]);
        for (std::size_t i = 1; i < args.plain.size(); ++i) {
            const bool was = Accounts::removeMember(db, id, requireUser(db, args.plain[i]).id);
            report += (was ? "Removed " : "Not a member: ") + args.plain[i] + "\n";
        }
    } else if (verb == "list" && args.plain.empty()) {
        auto s = db.prepare("SELECT w.slug, w.name, w.id, (SELECT COUNT(*) FROM memberships m WHERE m.workspace_id = w.id) "
                            "FROM workspaces w ORDER BY w.slug;");
        while (s.step()) {
            std::cout << s.text(0) << "\t" << s.text(1) << "\t" << s.text(2) << "\t" << s.integer(3) << " members\n";
        }
    } else {
        throw UsageError("workspace add SLUG --name NAME [--member EMAIL...] | workspace add-member SLUG EMAIL... | "
                         "workspace remove-member SLUG EMAIL... | workspace list");
    }
    transaction.commit();
    std::cout << report;
}

void approveCommand(Connection& db, const std::vector<std::string>& words) {
    const Arguments args = parseArguments(words, 1);
    if (args.plain.size() != 1 || args.user.empty()) throw UsageError("approve USER_CODE --user EMAIL");
    const User user = requireUser(db, args.user);
    DeviceFlow::decide(db, args.plain[0], user.id);
    std::cout << "Approved " << *DeviceFlow::normalizeUserCode(args.plain[0]) << " for " << user.email << "\n";
}

}  // namespace

void runAdminCommand(Storage& storage, const std::vector<std::string>& words) {
    auto db = storage.connection();
    if (words[0] == "user") return userCommand(*db, words);
    if (words[0] == "workspace") return workspaceCommand(*db, words);
    if (words[0] == "approve") return approveCommand(*db, words);
    throw UsageError("unknown command " + words[0]);
}

}  // namespace mirel::server
