// Rows without a field ledger: comments and history lines, written once by
// their author and then only echoed, and the directory of people and
// workspaces. What matters here is whom a line is shown as coming from.
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/sync/remote_apply.h"
#include "core/sync/wire.h"

#include <algorithm>

namespace mirel {

namespace {

// Only web addresses are kept for a picture that something may later fetch.
std::optional<std::string> webURL(std::optional<std::string> url) {
    if (!url) return std::nullopt;
    const std::size_t colon = url->find(':');
    if (colon == std::string::npos) return std::nullopt;
    const std::string scheme = asciiLower(url->substr(0, colon));
    if (scheme != "http" && scheme != "https") return std::nullopt;
    return url;
}

}  // namespace

void CaptureStore::applyRemoteComment(const Json& object) {
    const std::optional<std::string> id = RemoteApply::safeIDAt(object, "id");
    const std::optional<std::string> captureID = RemoteApply::safeIDAt(object, "capture_id");
    if (!id || !captureID) return;
    if (Wire::date(Wire::field(object, "deleted_at"))) {
        db_->execute("DELETE FROM comments WHERE id = ?;", {SQLValue(*id)});
        return;
    }
    const std::optional<std::string> authorID = Wire::str(Wire::field(object, "author_id"));
    const std::optional<std::string> label = Wire::str(Wire::field(object, "actor_label"));
    const std::optional<std::string> name = authorID ? personName(*authorID) : std::nullopt;
    const std::string kind = RemoteApply::stringAt(object, "kind").value_or("comment");

    // A label that is the author's own name is no agent speaking for them.
    const bool personal = !label || label == name;
    const bool isAgent = kind != "conflict" && !personal;
    const bool own = authorID && personal && authorID == syncMetaOrAbsent("user_id");
    const std::string author = own ? "you" : label ? *label : name ? *name : "someone";

    db_->execute(
        "    INSERT INTO comments (id, capture_id, author, is_agent, body, created_at, author_id, actor_label, kind, "
        "sync_state)\n"
        "    VALUES (?,?,?,?,?,?,?,?,?,'synced')\n"
        "    ON CONFLICT(id) DO UPDATE SET body = excluded.body, actor_label = excluded.actor_label, kind = "
        "excluded.kind,\n"
        "        author = excluded.author, is_agent = excluded.is_agent, sync_state = 'synced';",
        {SQLValue(*id), SQLValue(*captureID), SQLValue(author), SQLValue::boolean(isAgent),
         SQLValue(RemoteApply::stringAt(object, "body").value_or("")),
         SQLValue(Wire::date(Wire::field(object, "created_at")).value_or(Clock::now())), SQLValue::string(authorID),
         SQLValue::string(label), SQLValue(kind)});
}

void CaptureStore::applyRemoteActivity(const Json& object) {
    const std::optional<std::string> id = RemoteApply::safeIDAt(object, "id");
    const std::optional<std::string> captureID = RemoteApply::safeIDAt(object, "capture_id");
    const std::optional<std::string> kind = RemoteApply::stringAt(object, "kind");
    if (!id || !captureID || !kind) return;
    const Date when = Wire::date(Wire::field(object, "created_at")).value_or(Clock::now());

    // A local line of the same kind less than 90 s away is this very event.
    if (!db_->query("SELECT 1 AS one FROM activity WHERE capture_id = ? AND kind = ? AND remote = 0 AND "
                    "ABS(created_at - ?) < 90 LIMIT 1;",
                    {SQLValue(*captureID), SQLValue(*kind), SQLValue(when)})
             .empty()) {
        return;
    }
    const std::optional<std::string> actorID = Wire::str(Wire::field(object, "actor_id"));
    const std::optional<std::string> name = actorID ? personName(*actorID) : std::nullopt;
    const std::optional<std::string> label = Wire::str(Wire::field(object, "actor_label"));
    std::string actor = label ? *label : name ? *name : "someone";
    if (actorID && actorID == syncMetaOrAbsent("user_id") && actor == syncMetaOrAbsent("user_name")) actor = "you";

    const std::string detail =
        Wire::summarize(*kind, Wire::field(object, "detail"), [this](const std::string& person) { return personName(person); });
    db_->execute(
        "    INSERT OR IGNORE INTO activity (id, capture_id, kind, detail, actor, created_at, actor_id, remote)\n"
        "    VALUES (?,?,?,?,?,?,?,?);",
        {SQLValue(*id), SQLValue(*captureID), SQLValue(*kind), SQLValue(detail), SQLValue(actor), SQLValue(when),
         SQLValue::string(actorID), SQLValue(1)});
}

void CaptureStore::applyRemotePerson(const Json& object) {
    const std::optional<std::string> id = RemoteApply::stringAt(object, "id");
    if (!id) return;
    Person person;
    person.id = *id;
    person.name = RemoteApply::stringAt(object, "name").value_or("Someone");
    person.email = Wire::str(Wire::field(object, "email"));
    std::optional<std::string> image = Wire::str(Wire::field(object, "image"));
    person.imageURL = webURL(image ? image : Wire::str(Wire::field(object, "image_url")));
    person.kind = RemoteApply::stringAt(object, "kind").value_or("person");
    upsertPerson(person);
}

void CaptureStore::upsertPerson(const Person& person) {
    // An absent email keeps the stored one; an absent picture clears it.
    db_->execute(
        "    INSERT INTO people (id, name, email, image_url, kind, updated_at) VALUES (?,?,?,?,?,?)\n"
        "    ON CONFLICT(id) DO UPDATE SET name = excluded.name, email = COALESCE(excluded.email, people.email),\n"
        "        image_url = excluded.image_url, kind = excluded.kind, updated_at = excluded.updated_at;",
        {SQLValue(person.id), SQLValue(person.name), SQLValue::string(person.email), SQLValue::string(person.imageURL),
         SQLValue(person.kind), SQLValue(Clock::now())});
}

std::optional<std::string> CaptureStore::personName(const std::string& id) {
    const std::vector<Row> rows = db_->query("SELECT name FROM people WHERE id = ?;", {SQLValue(id)});
    if (rows.empty()) return std::nullopt;
    return rows.front().string("name");
}

std::vector<Person> CaptureStore::people() {
    std::vector<Person> result;
    for (const Row& row : db_->query("SELECT * FROM people ORDER BY kind, name COLLATE NOCASE;")) {
        result.push_back(decodePerson(row));
    }
    return result;
}

std::optional<Person> CaptureStore::person(const std::string& id) {
    const std::vector<Row> rows = db_->query("SELECT * FROM people WHERE id = ?;", {SQLValue(id)});
    if (rows.empty()) return std::nullopt;
    return decodePerson(rows.front());
}

std::vector<Person> CaptureStore::assignableCandidates() {
    std::vector<Person> candidates = people();
    // People before bots, each side by name regardless of case.
    std::stable_sort(candidates.begin(), candidates.end(), [](const Person& a, const Person& b) {
        if (a.isBot() != b.isBot()) return !a.isBot();
        return lowercased(a.name) < lowercased(b.name);
    });
    return candidates;
}

void CaptureStore::replaceWorkspaces(const std::vector<Workspace>& list) {
    // The list is the whole truth about which workspaces this account has.
    db_->transaction([&] {
        db_->execute("DELETE FROM workspaces;");
        for (const Workspace& workspace : list) {
            db_->execute("INSERT INTO workspaces (id, name, slug, role, settings_json, updated_at) VALUES (?,?,?,?,?,?);",
                         {SQLValue(workspace.id), SQLValue(workspace.name), SQLValue(workspace.slug),
                          SQLValue(workspace.role), SQLValue::string(workspace.settingsJSON), SQLValue(Clock::now())});
        }
    });
}

std::vector<Workspace> CaptureStore::workspaces() {
    std::vector<Workspace> result;
    for (const Row& row : db_->query("SELECT * FROM workspaces ORDER BY name COLLATE NOCASE;")) {
        result.push_back(decodeWorkspace(row));
    }
    return result;
}

}  // namespace mirel
