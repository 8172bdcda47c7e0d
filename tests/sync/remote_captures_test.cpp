#include "tests/sync/sync_fixture.h"

#include "core/platform/text.h"
#include "core/sync/wire.h"

#include <algorithm>
#include <random>

namespace mirel::test {

namespace {

class RemoteCaptures : public SyncStoreTest {
protected:
    std::string tagText(const std::string& id) { return join(store.tags(id), ","); }
};

}  // namespace

// Pending fields, tombstones on either side and versions going down are the
// model test's below; the table holds what the model leaves out.
TEST_F(RemoteCaptures, WhoWinsPerField) {
    struct Case {
        const char* name;
        const char* syncState;
        std::optional<std::string> pending;
        const char* delta;  // merged into the remote object; null removes a key
        std::optional<std::string> note, url, claimedBy;
        const char* stateAfter;
        std::set<std::string> pendingAfter;
        const char* tags;
    };
    const std::string R = "Remote", rURL = "https://remote", lURL = "https://local";
    const Case cases[] = {
        {"pending claimed_label keeps claimed_by", "pendingPush", R"({"claimed_label":true})", "{}", R, rURL,
         "Ada", "pendingPush", {"claimed_label"}, "remote"},
        {"pendingPush without a ledger becomes synced", "pendingPush", {}, "{}", R, rURL, "Bot", "synced",
         {}, "remote"},
        {"unreadable ledger counts as empty", "pendingPush", "{not json", "{}", R, rURL, "Bot", "synced",
         {}, "remote"},
        {"a ledger left on a synced row protects nothing", "synced", R"({"note":true})", "{}", R, rURL, "Bot", "synced", {}, "remote"},
        {"empty note stays empty, empty url is NULL, no tags clears them", "synced", {},
         R"({"note":"","url":"","tags":null,"claimed_label":7})", "", std::nullopt, std::nullopt, "synced",
         {}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Capture local = makeCapture("Local");
        local.workspaceID = kWorkspace;
        local.url = lURL;
        local.claimedBy = "Ada";
        local.version = 5;
        seedCaptureRow(db(), local);
        seedTag(db(), local.id, "local");
        setLedger("captures", local.id, c.syncState, c.pending);

        Json remote = object(R"({"note":"Remote","url":"https://remote","claimed_label":"Bot","version":9,
            "workspace_id":"ws-1","author_id":"u-2","tags":["Remote"],"updated_at":"2024-05-02T00:00:00Z"})");
        remote["id"] = local.id;
        remote.merge_patch(object(c.delta));
        store.applyRemoteCapture(remote);

        EXPECT_EQ(text("captures", local.id, "note"), c.note);
        EXPECT_EQ(text("captures", local.id, "url"), c.url);
        EXPECT_EQ(text("captures", local.id, "claimed_by"), c.claimedBy);
        EXPECT_EQ(integer("captures", local.id, "version"), 9);
        EXPECT_EQ(syncStateOf("captures", local.id), c.stateAfter);
        EXPECT_EQ(pendingKeys("captures", local.id), c.pendingAfter);
        EXPECT_EQ(tagText(local.id), c.tags);
    }
}

TEST_F(RemoteCaptures, NewRowsAndServerOwnedColumns) {
    Clock::pin(1714600000.0);
    const std::string id = newID();
    store.applyRemoteCapture(object(R"({"id":")" + id + R"(","note":"Hi","tags":["ui","UI"," Web "],
        "created_at":1714521600000,"display_scale":"2","claimed_at":"2024-05-01T00:00:01.500Z"})"));
    Clock::pin(std::nullopt);
    EXPECT_EQ(text("captures", id, "image_path"), "");
    EXPECT_EQ(syncStateOf("captures", id), "synced");
    EXPECT_EQ(integer("captures", id, "dirty"), 0);
    EXPECT_EQ(tagText(id), "ui,web");
    EXPECT_EQ(readColumn("captures", id, "created_at"), SQLValue(1714521600.0));
    EXPECT_EQ(readColumn("captures", id, "updated_at"), SQLValue(1714600000.0));  // no updated_at: now
    EXPECT_EQ(readColumn("captures", id, "display_scale"), SQLValue(2.0));
    EXPECT_EQ(readColumn("captures", id, "claimed_at"), SQLValue(1714521601.5));
    EXPECT_EQ(text("captures", id, "status"), "open");

    // Workspace and author follow the server even over pending edits.
    const Capture mine = seedShared("Mine", "pendingPush", R"({"note":true})");
    setColumn(db(), "captures", mine.id, "author_id", SQLValue("u-1"));
    store.applyRemoteCapture(object(R"({"id":")" + mine.id + R"("})"));
    EXPECT_EQ(text("captures", mine.id, "workspace_id"), std::nullopt);
    EXPECT_EQ(text("captures", mine.id, "author_id"), std::nullopt);
    EXPECT_EQ(text("captures", mine.id, "note"), "Mine");

    // Without a string id nothing happens.
    const auto before = countRows("captures");
    store.applyRemoteCapture(object(R"({"id":5,"note":"x"})"));
    EXPECT_EQ(countRows("captures"), before);
}

// Random local edits, exchanges with edits in flight and remote objects,
// checked against a small model of the field-by-field rule. Edits in flight
// come from a second store on the same file, as from mirel-mcp.
TEST_F(RemoteCaptures, RandomSequencesFollowTheModelOfTheRule) {
    const std::vector<std::string> fields = {"note", "url", "status", "tags"};
    const std::vector<std::string> statuses = {"open", "in_progress", "resolved"};
    struct Model {
        bool exists = true;
        std::map<std::string, std::string> values{{"note", "Local"}, {"url", ""}, {"status", "open"}, {"tags", ""}};
        std::int64_t version = 0;
        std::set<std::string> pending;
    };
    std::mt19937 random(20240501);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    int serial = 0;

    CaptureStore other(library.databasePath());
    for (int sequence = 0; sequence < 40; ++sequence) {
        // Every fourth row waits to go out whole, as an adopted one does.
        const bool whole = sequence % 4 == 0;
        const std::string id = seedShared("Local", whole ? "pendingPush" : "synced", whole ? R"({"*":true})" : "{}").id;
        Model model;
        if (whole) model.pending = {"*"};

        // One local edit with a fresh value; gives the field it marked, if any.
        const auto localEdit = [&](CaptureStore& by) -> std::optional<std::string> {
            if (!model.exists) return std::nullopt;
            const std::string field = fields[pick(4)];
            if (field == "tags") {
                std::vector<std::string> tags = {"t" + std::to_string(++serial)};
                by.setTags(tags, id);
                model.values["tags"] = tags[0];
            } else {
                Capture c = *by.rawCapture(id);
                std::string value = field == "status" ? statuses[pick(3)] : "v" + std::to_string(++serial);
                if (field == "note") c.note = value;
                if (field == "url") c.url = value;
                if (field == "status") c.status = *captureStatusFrom(value);
                by.update(c);
                if (model.values[field] == value) return std::nullopt;
                model.values[field] = value;
            }
            model.pending.insert(field);
            return field;
        };
        const auto remoteObject = [&] {
            Json remote = {{"id", id}, {"workspace_id", kWorkspace}, {"version", pick(20)}};
            if (pick(10) == 0) remote["deleted_at"] = "2024-05-03T00:00:00Z";
            if (pick(3)) remote["note"] = "r" + std::to_string(++serial);
            if (pick(3)) remote["url"] = pick(4) ? "https://r/" + std::to_string(++serial) : "";
            if (pick(3)) remote["status"] = statuses[pick(3)];
            if (pick(3)) remote["tags"] = {"r" + std::to_string(++serial)};
            store.applyRemoteCapture(remote);
            if (remote.contains("deleted_at")) {
                model = Model{};
                model.exists = false;
                return;
            }
            if (model.pending.count("delete")) return;
            const bool fresh = !model.exists;
            if (fresh) model = Model{};
            for (const std::string& field : fields) {
                if (model.pending.count(field)) continue;
                const Json& v = Wire::field(remote, field);
                model.values[field] = field == "tags" ? (v.is_array() ? v[0].get<std::string>() : "")
                                                      : v.is_string() ? v.get<std::string>()
                                                                      : (field == "status" ? "open" : "");
            }
            model.version = remote["version"].get<std::int64_t>();
        };
        // How the model's value of a field travels in a patch.
        const auto onTheWire = [&](const std::string& field) -> Json {
            const std::string& value = model.values[field];
            if (field == "tags") return value.empty() ? Json::array() : Json::array({value});
            if (field == "url" && value.empty()) return nullptr;
            return value;
        };
        // Collect, edit while the change is in flight, acknowledge.
        const auto exchange = [&] {
            if (!model.exists || model.pending.empty()) return;
            const auto waiting = store.pending("captures", 1000);
            const auto collected = *std::find_if(waiting.begin(), waiting.end(), [&](auto& p) { return p.id == id; });
            const std::optional<Json> change = store.captureChange(collected);
            ASSERT_TRUE(change);
            EXPECT_EQ(change->at("base_version"), model.version);
            std::set<std::string> marked;
            for (int n = pick(3); n > 0; --n) {
                if (pick(4) == 0) {
                    other.softDelete(id);
                    marked.insert("delete");
                } else if (const auto field = localEdit(other)) {
                    marked.insert(*field);
                }
            }
            // New marks survive; a collected field survives when its value moved on.
            std::set<std::string> stillPending;
            for (const std::string& name : marked) {
                if (!collected.fields.count(name)) stillPending.insert(name);
            }
            const Json& sent = Wire::field(*change, "patch");
            for (const std::string& field : fields) {
                if (collected.fields.count(field) && sent.contains(field) && sent[field] != onTheWire(field)) {
                    stillPending.insert(field);
                }
            }
            const std::int64_t version = pick(50);
            EXPECT_EQ(store.markSynced(collected, *change, version), stillPending.empty());
            model.pending = stillPending;
            model.version = version;
        };

        for (int step = 0; step < 25; ++step) {
            switch (pick(5)) {
                case 0: localEdit(store); break;
                case 1:
                    if (model.exists && pick(6) == 0) {
                        store.softDelete(id);
                        model.pending.insert("delete");
                    }
                    break;
                case 2: exchange(); break;
                default: remoteObject(); break;
            }
            SCOPED_TRACE("sequence " + std::to_string(sequence) + " step " + std::to_string(step));
            ASSERT_EQ(rowExists("captures", id), model.exists);
            if (!model.exists) continue;
            EXPECT_EQ(text("captures", id, "note").value_or(""), model.values["note"]);
            EXPECT_EQ(text("captures", id, "url").value_or(""), model.values["url"]);
            EXPECT_EQ(text("captures", id, "status"), model.values["status"]);
            EXPECT_EQ(tagText(id), model.values["tags"]);
            EXPECT_EQ(pendingKeys("captures", id), model.pending);
            EXPECT_EQ(syncStateOf("captures", id), model.pending.empty() ? "synced" : "pendingPush");
            EXPECT_EQ(integer("captures", id, "version"), model.version);
        }
    }
}

}  // namespace mirel::test
