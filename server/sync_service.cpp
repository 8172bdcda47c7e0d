#include "server/sync_service.h"

#include "server/record_schema.h"
#include "server/refusal.h"

#include "core/platform/clock.h"

#include <algorithm>
#include <unordered_set>

namespace mirel::server {

namespace {

constexpr std::size_t kMostReconcileIDs = 200000;

struct Page {
    std::string items;  // the "changes" elements, joined by ","
    std::size_t count = 0;
    std::int64_t cursor = 0;
    bool more = false;
    std::unordered_set<std::string> keys;  // "kind/id" of the rows in the page
};

std::string placeholders(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += i ? ",?" : "?";
    return text;
}

// False when the page holds the record already.
bool appendChange(Page& page, const std::string& kind, const std::string& id, const std::string& rowText) {
    if (!page.keys.insert(kind + "/" + id).second) return false;
    if (page.count++) page.items += ",";
    // Rows are stored as written by writeJSON, so they go out as they are.
    page.items += "{\"row\":" + rowText + ",\"table\":\"" + kind + "\"}";
    return true;
}

// A record edited late sits late in the feed, behind the rows that hang on it.
// Such a parent (the capture of an image, comment or history line, the group
// of a capture) rides along with the page that needs it, so that every row
// of a page can be applied.
void addLaterParents(Connection& db, Page& page, const std::set<std::string>& workspaces,
                     std::vector<std::pair<std::string, std::string>> wanted) {
    auto parent = db.cached("SELECT row, seq, group_id, workspace_id FROM records WHERE kind = ? AND id = ?;");
    while (!wanted.empty()) {
        auto [kind, id] = wanted.back();
        wanted.pop_back();
        if (page.keys.count(kind + "/" + id)) continue;
        parent->bind(1, kind).bind(2, id);
        const bool found = parent->step() && parent->integer(1) > page.cursor && workspaces.count(parent->text(3));
        if (found) {
            appendChange(page, kind, id, parent->text(0));
            if (!parent->isNull(2)) wanted.emplace_back("groups", parent->text(2));
        }
        parent->reset();
    }
}

// Records after the cursor in these workspaces, oldest change first.
Page readPage(Connection& db, const std::set<std::string>& workspaces, std::int64_t cursor, std::int64_t latest) {
    Page page;
    page.cursor = latest;
    if (workspaces.empty()) return page;
    auto s = db.prepare("SELECT kind, row, seq, id, capture_id, group_id FROM records WHERE seq > ? AND gone = 0 "
                        "AND workspace_id IN (" + placeholders(workspaces.size()) + ") ORDER BY seq LIMIT ?;");
    int index = 1;
    s.bind(index++, cursor);
    for (const auto& id : workspaces) s.bind(index++, id);
    s.bind(index, static_cast<std::int64_t>(SyncService::kPageSize + 1));
    std::vector<std::pair<std::string, std::string>> parents;
    while (s.step()) {
        if (page.count == SyncService::kPageSize) {
            page.more = true;
            break;
        }
        const std::string kind = s.text(0);
        appendChange(page, kind, s.text(3), s.text(1));
        page.cursor = s.integer(2);
        if (!s.isNull(4)) parents.emplace_back("captures", s.text(4));
        if (!s.isNull(5)) parents.emplace_back("groups", s.text(5));
    }
    if (page.more) addLaterParents(db, page, workspaces, std::move(parents));
    else page.cursor = latest;
    return page;
}

std::int64_t integerField(const Json& body, const char* key) {
    const Json value = body.value(key, Json());
    if (!value.is_number_integer() || value.get<std::int64_t>() < 0) {
        throw badRequest(std::string(key) + " must be a whole number of at least 0");
    }
    return value.get<std::int64_t>();
}

const Json& arrayField(const Json& body, const char* key, std::size_t most) {
    static const Json empty = Json::array();
    auto found = body.find(key);
    if (found == body.end()) return empty;
    if (!found->is_array()) throw badRequest(std::string(key) + " must be a list");
    if (found->size() > most) throw badRequest(std::string(key) + " holds more than " + std::to_string(most) + " items");
    return *found;
}

std::set<std::string> parseSet(const std::optional<std::string>& text) {
    std::set<std::string> set;
    if (!text) return set;
    auto json = parseJSON(*text);
    if (json && json->is_array()) {
        for (const auto& item : *json) {
            if (item.is_string()) set.insert(item.get<std::string>());
        }
    }
    return set;
}

}  // namespace

std::set<std::string> workspaceIDs(Connection& db, const std::string& userID) {
    std::set<std::string> ids;
    auto s = db.prepare("SELECT workspace_id FROM memberships WHERE user_id = ?;");
    s.bind(1, userID);
    while (s.step()) ids.insert(s.text(0));
    return ids;
}

// What a device must be told about its workspaces: ones it gained since it
// last pulled from the start (their older records lie behind its cursor), and
// ones it lost.
struct SyncService::Notices {
    std::vector<std::string> resync;
    std::vector<std::string> dropped;
};

SyncService::Notices SyncService::workspaceNotices(Connection& db, const std::string& userID,
                                                   const std::string& deviceID, const std::set<std::string>& current,
                                                   std::int64_t cursor) {
    auto stored = db.text("SELECT known_workspaces FROM device_state WHERE user_id = ? AND device_id = ?;",
                          {userID, deviceID});
    // A device we haven't met yet is taken to know what its cursor covers.
    const std::set<std::string> known = stored ? parseSet(stored) : current;
    Notices notices;
    std::set<std::string> nowKnown;
    for (const auto& id : known) {
        if (current.count(id)) nowKnown.insert(id);
        else notices.dropped.push_back(id);
    }
    for (const auto& id : current) {
        if (known.count(id)) continue;
        // A pull from the start brings the whole workspace; a later cursor
        // needs a fresh start, asked for until the device makes it.
        if (cursor == 0) nowKnown.insert(id);
        else notices.resync.push_back(id);
    }
    if (!stored || nowKnown != known) {
        db.run("INSERT INTO device_state (user_id, device_id, known_workspaces, last_sync_at) VALUES (?,?,?,?) "
               "ON CONFLICT(user_id, device_id) DO UPDATE SET known_workspaces = excluded.known_workspaces, "
               "last_sync_at = excluded.last_sync_at;",
               {userID, deviceID, writeJSON(Json(nowKnown)), Clock::now()});
    }
    return notices;
}

std::string SyncService::sync(const User& user, const Json& body) {
    if (!body.is_object()) throw badRequest("the body must be a JSON object");
    const Json deviceID = body.value("device_id", Json());
    if (!deviceID.is_string() || !isRecordID(deviceID.get<std::string>())) {
        throw badRequest("device_id must be the device's id");
    }
    const std::int64_t cursor = integerField(body, "cursor");
    const Json& changes = arrayField(body, "changes", kMostChanges);
    const Json& fullGroups = arrayField(body, "full_groups", kMostFullGroups);

    auto db = storage_.connection();
    const SyncActor actor{user, deviceID.get<std::string>(), workspaceIDs(*db, user.id)};

    Json results = Json::array();
    std::vector<std::string> groupsToFetch;
    if (!changes.empty()) {
        ChangeApplier applier(*db, actor, [&](const std::string& ws, const std::string& sha) {
            return blobs_.has(*db, ws, sha);
        });
        Transaction transaction(*db, Transaction::Kind::write);
        for (const auto& change : changes) results.push_back(applier.apply(change).toJSON());
        transaction.commit();
        publish(applier.accepted());
        groupsToFetch = applier.groupsToFetch();
    }

    Notices notices = workspaceNotices(*db, user.id, actor.deviceID, actor.workspaces, cursor);
    Json resync = Json::array();
    Page page;
    {
        // One read transaction, so that the page and the cursor agree.
        Transaction transaction(*db, Transaction::Kind::read);
        const std::int64_t latest = Storage::currentSequence(*db);
        if (cursor > latest) {
            // This device has seen more than the server holds (a restored
            // backup): it starts again from the beginning.
            notices.resync.assign(actor.workspaces.begin(), actor.workspaces.end());
        } else {
            page = readPage(*db, actor.workspaces, cursor, latest);
        }
        for (const auto& item : fullGroups) {
            if (!item.is_string()) continue;
            auto group = Records::load(*db, "groups", item.get<std::string>());
            if (!group) continue;
            if (!actor.workspaces.count(group->workspaceID)) {
                resync.push_back({{"id", group->id}, {"mode", "drop"}});
            } else {
                appendChange(page, "groups", group->id, writeJSON(group->row));
            }
        }
        transaction.commit();
    }
    for (const auto& id : notices.resync) resync.push_back({{"id", "workspace:" + id}});
    for (const auto& id : groupsToFetch) resync.push_back({{"id", id}});

    Json people = Json::array();
    for (const auto& person : Accounts::colleagues(*db, user.id)) {
        people.push_back({{"id", person.id}, {"name", person.name}, {"email", person.email}, {"kind", "person"}});
    }
    Json rest{{"cursor", page.cursor},
              {"more", page.more},
              {"results", std::move(results)},
              {"people", std::move(people)},
              {"resync_groups", std::move(resync)},
              {"dropped_captures", Json::array()},
              {"dropped_workspaces", notices.dropped}};
    // "changes" sorts before every other key: put it first, as the writer would.
    return "{\"changes\":[" + page.items + "]," + writeJSON(rest).substr(1);
}

Json SyncService::reconcile(const User& user, const Json& body) {
    if (!body.is_object()) throw badRequest("the body must be a JSON object");
    const Json& ids = arrayField(body, "capture_ids", kMostReconcileIDs);
    auto db = storage_.connection();
    const auto workspaces = workspaceIDs(*db, user.id);
    Transaction transaction(*db, Transaction::Kind::read);

    std::unordered_set<std::string> held;
    Json drop = Json::array();
    auto lookup = db->prepare("SELECT workspace_id, deleted FROM records WHERE kind = 'captures' AND id = ?;");
    for (const auto& item : ids) {
        if (!item.is_string()) continue;
        const std::string& id = item.get_ref<const std::string&>();
        held.insert(id);
        lookup.reset();
        lookup.bind(1, id);
        // An id the server never had stays: it may be work the server lost,
        // and the device's copy is the last one.
        if (lookup.step() && (lookup.integer(1) != 0 || !workspaces.count(lookup.text(0)))) drop.push_back(id);
    }
    Json missing = Json::array();
    if (!workspaces.empty()) {
        auto live = db->prepare("SELECT id FROM records WHERE kind = 'captures' AND deleted = 0 AND workspace_id IN (" +
                                placeholders(workspaces.size()) + ");");
        int index = 1;
        for (const auto& id : workspaces) live.bind(index++, id);
        while (live.step()) {
            std::string id = live.text(0);
            if (!held.count(id)) missing.push_back(std::move(id));
        }
    }
    transaction.commit();
    return Json{{"drop", std::move(drop)}, {"missing", std::move(missing)}};
}

void SyncService::publish(const std::vector<AcceptedChange>& accepted) {
    std::vector<LiveEvent> events;
    events.reserve(accepted.size());
    for (const auto& change : accepted) {
        Json data{{"workspace_id", change.workspaceID}, {"table", change.table}, {"id", change.id}, {"cursor", change.seq}};
        events.push_back({change.workspaceID, "event: change\ndata: " + writeJSON(data) + "\n\n"});
    }
    events_.publish(events);
}

}  // namespace mirel::server
