// The small data hung on a capture: tags, comments and the history lines.
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/sql_lists.h"

#include <set>

namespace mirel {

std::vector<std::string> CaptureStore::tags(const std::string& captureID) {
    std::vector<std::string> names;
    for (const Row& row : db_->query("SELECT t.name FROM tags t JOIN capture_tags ct ON ct.tag_id = t.id "
                                     "WHERE ct.capture_id = ? ORDER BY t.name COLLATE NOCASE;",
                                     {SQLValue(captureID)})) {
        if (auto name = row.string("name")) names.push_back(std::move(*name));
    }
    return names;
}

std::map<std::string, std::vector<std::string>> CaptureStore::tagsByCapture(
    const std::vector<std::string>& captureIDs) {
    std::map<std::string, std::vector<std::string>> byCapture;
    if (captureIDs.empty()) return byCapture;
    const auto rows = db_->query(
        "SELECT ct.capture_id AS capture_id, t.name AS name FROM tags t JOIN capture_tags ct ON ct.tag_id = t.id "
        "WHERE ct.capture_id IN (" + placeholders(captureIDs.size()) +
            ") ORDER BY ct.capture_id, t.name COLLATE NOCASE;",
        textValues(captureIDs));
    for (const Row& row : rows) {
        auto id = row.string("capture_id");
        auto name = row.string("name");
        if (id && name) byCapture[*id].push_back(std::move(*name));
    }
    return byCapture;
}

std::vector<std::string> CaptureStore::allTags() {
    // Only tags in use on a live capture; unused tag rows stay behind.
    std::vector<std::string> names;
    for (const Row& row : db_->query(
             "SELECT DISTINCT t.name FROM tags t JOIN capture_tags ct ON ct.tag_id = t.id JOIN captures c ON "
             "c.id = ct.capture_id AND c.deleted_at IS NULL ORDER BY t.name COLLATE NOCASE;")) {
        if (auto name = row.string("name")) names.push_back(std::move(*name));
    }
    return names;
}

void CaptureStore::replaceTags(const std::vector<std::string>& names, const std::string& captureID) {
    std::set<std::string> normalised;
    for (const std::string& name : names) {
        std::string tag = lowercased(trimBlanks(name));
        if (!tag.empty()) normalised.insert(std::move(tag));
    }
    db_->transaction([&] {
        // The same set again writes nothing: sync echoes repeat it all the time.
        const std::vector<std::string> current = tags(captureID);
        if (std::set<std::string>(current.begin(), current.end()) == normalised && current.size() == normalised.size()) {
            return;
        }
        db_->execute("DELETE FROM capture_tags WHERE capture_id = ?;", {SQLValue(captureID)});
        for (const std::string& name : normalised) {
            std::string tagID;
            const std::vector<Row> found = db_->query("SELECT id FROM tags WHERE name = ?;", {SQLValue(name)});
            if (!found.empty() && found.front().string("id")) {
                tagID = *found.front().string("id");
            } else {
                tagID = newID();
                db_->execute("INSERT INTO tags (id, name, created_at) VALUES (?,?,?);",
                             {SQLValue(tagID), SQLValue(name), SQLValue(Clock::now())});
            }
            db_->execute("INSERT OR IGNORE INTO capture_tags (capture_id, tag_id) VALUES (?,?);",
                         {SQLValue(captureID), SQLValue(tagID)});
        }
    });
}

void CaptureStore::setTags(const std::vector<std::string>& names, const std::string& captureID) {
    replaceTags(names, captureID);
    markPending("captures", captureID, {"tags"});
    postDidChange();
}

std::vector<Comment> CaptureStore::comments(const std::string& captureID) {
    std::vector<Comment> result;
    for (const Row& row :
         db_->query("SELECT * FROM comments WHERE capture_id = ? ORDER BY created_at ASC;", {SQLValue(captureID)})) {
        result.push_back(decodeComment(row));
    }
    return result;
}

void CaptureStore::addComment(const Comment& comment) {
    Comment c = comment;
    if (!c.authorID) c.authorID = syncMetaOrAbsent("user_id");
    if (c.isAgent && !c.actorLabel) {
        // An agent writes on behalf of the signed-in person; say both.
        const std::optional<std::string> userName = syncMetaOrAbsent("user_name");
        c.actorLabel = userName ? c.author + " \u00B7 " + *userName : c.author;
    }
    if (c.syncState == SyncState::local) {
        if (const std::optional<Capture> owner = rawCapture(c.captureID); owner && owner->isShared()) {
            c.syncState = SyncState::pendingPush;
        }
    }
    db_->execute(
        "INSERT OR IGNORE INTO comments (id, capture_id, author, is_agent, body, created_at, author_id, "
        "actor_label, kind, sync_state) VALUES (?,?,?,?,?,?,?,?,?,?);",
        {SQLValue(c.id), SQLValue(c.captureID), SQLValue(c.author), SQLValue::boolean(c.isAgent), SQLValue(c.body),
         SQLValue(c.createdAt), SQLValue::string(c.authorID), SQLValue::string(c.actorLabel), SQLValue(c.kind),
         SQLValue(std::string(rawValue(c.syncState)))});
    // A comment is news on the board, but no edit of the capture itself.
    db_->execute("UPDATE captures SET updated_at = ? WHERE id = ?;", {SQLValue(Clock::now()), SQLValue(c.captureID)});
    postDidChange();
}

std::vector<ActivityEvent> CaptureStore::activity(const std::string& captureID) {
    std::vector<ActivityEvent> result;
    for (const Row& row :
         db_->query("SELECT * FROM activity WHERE capture_id = ? ORDER BY created_at ASC;", {SQLValue(captureID)})) {
        result.push_back(decodeActivity(row));
    }
    return result;
}

void CaptureStore::recordActivity(const std::optional<std::string>& captureID, const std::string& kind,
                                  const std::string& detail, const std::string& actor, const std::string& id,
                                  Date createdAt, const std::optional<std::string>& actorID, bool remote) {
    // A local line is by the signed-in user unless told otherwise; a remote
    // line keeps what the server said, even nothing.
    std::optional<std::string> who = actorID;
    if (!who && !remote) who = syncMetaOrAbsent("user_id");
    db_->execute(
        "INSERT OR IGNORE INTO activity (id, capture_id, kind, detail, actor, created_at, actor_id, remote) "
        "VALUES (?,?,?,?,?,?,?,?);",
        {SQLValue(id), SQLValue::string(captureID), SQLValue(kind), SQLValue(detail), SQLValue(actor),
         SQLValue(createdAt), SQLValue::string(who), SQLValue::boolean(remote)});
}

}  // namespace mirel
