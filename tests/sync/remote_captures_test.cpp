#include "tests/sync/sync_fixture.h"

#include "core/platform/text.h"
#include "core/sync/wire.h"

#include <algorithm>
#include <random>

namespace mirel::test {

class RemoteCaptures : public SyncStoreTest {};

// Pending fields, tombstones on either side, new rows, absent values and `*`
// are the model test's below; here is what the model leaves out.
TEST_F(RemoteCaptures, WhoWinsPerFieldAndNewRows) {
    const std::tuple<const char*, std::optional<std::string>, const char*, const char*> cases[] = {
        // sync_state, pending, merged into the remote object; the row after
        {"pendingPush", R"({"claimed_label":true})", "{}", "Remote|Ada|ws-1|u-2|9|pendingPush|{claimed_label}"},
        {"pendingPush", R"({"note":true})", R"({"workspace_id":null,"author_id":null})", "Local|Bot|NULL|NULL|9|pendingPush|{note}"},
        {"pendingPush", {}, "{}", "Remote|Bot|ws-1|u-2|9|synced|{}"},
        {"synced", R"({"note":true})", "{}", "Remote|Bot|ws-1|u-2|9|synced|{}"},
    };
    for (const auto& [syncState, pending, delta, expected] : cases) {
        const Capture local = seedShared("Local", syncState, pending);
        setColumn(db(), "captures", local.id, "claimed_by", SQLValue("Ada"));
        Json remote = object(R"({"note":"Remote","claimed_label":"Bot","version":9,"workspace_id":"ws-1","author_id":"u-2"})");
        remote["id"] = local.id;
        remote.merge_patch(object(delta));
        store.applyRemoteCapture(remote);
        EXPECT_EQ(cells("captures", local.id, "note, claimed_by, workspace_id, author_id, version, sync_state, pending"), expected)
            << delta;
    }
    // A new row takes the defaults, and dates in every form.
    Clock::pin(1714600000.0);
    const std::string id(128, 'c');  // the longest id taken; one more is refused
    store.applyRemoteCapture(Json{{"id", id + "c"}});
    store.applyRemoteCapture(object(R"({"id":")" + id + R"(","created_at":1714521600000,"display_scale":"2",
        "claimed_at":"2024-05-01T00:00:01.500Z"})"));
    Clock::pin(std::nullopt);
    EXPECT_EQ(cells("captures", id, "image_path, dirty, created_at, updated_at, display_scale, claimed_at, priority"),
              "|0|1714521600|1714600000|2|1714521601.5|normal");
    EXPECT_EQ(cells("captures", id + "c", "id"), "");
}

// Random local edits, exchanges with edits in flight and remote objects,
// checked against a small model of the field-by-field rule. Edits in flight
// come from a second store on the same file, as from mirel-mcp.
TEST_F(RemoteCaptures, RandomSequencesFollowTheModelOfTheRule) {
    const std::vector<std::string> fields = {"note", "url", "status", "tags"};
    const std::map<std::string, std::string> nextStatus = {{"open", "in_progress"}, {"in_progress", "resolved"}, {"resolved", "open"}};
    const std::map<std::string, std::string> absent = {{"note", ""}, {"url", "NULL"}, {"status", "open"}, {"tags", ""}};
    struct Model {
        bool exists = true;
        std::map<std::string, std::string> values{{"note", "Local"}, {"url", "NULL"}, {"status", "open"}, {"tags", ""}};
        std::int64_t version = 0;
        std::set<std::string> pending;
    };
    std::mt19937 random(20240501);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    auto fresh = [serial = 0](const std::string& prefix) mutable { return prefix + std::to_string(++serial); };

    CaptureStore other(library.databasePath());
    for (int sequence = 0; sequence < 40; ++sequence) {
        // Every fourth row waits to go out whole, as an adopted one does.
        const bool whole = sequence % 4 == 0;
        const std::string id = seedShared("Local", whole ? "pendingPush" : "synced", whole ? R"({"*":true})" : "{}").id;
        Model model;
        if (whole) model.pending = {"*"};

        // One local delete (one time in `deleteOdds`) or edit, always to a value
        // the field did not hold; gives the name it marks.
        const auto localEdit = [&](CaptureStore& by, int deleteOdds) {
            if (pick(deleteOdds) == 0) {
                by.softDelete(id);
                return std::string("delete");
            }
            const std::string field = fields[pick(4)];
            std::string& value = model.values[field];
            value = field == "status" ? nextStatus.at(value) : fresh("v");
            Capture c = *by.rawCapture(id);
            if (field == "note") c.note = value;
            if (field == "url") c.url = value;
            if (field == "status") c.status = *captureStatusFrom(value);
            if (field == "tags") by.setTags({value}, id);
            else by.update(c);
            return field;
        };
        const auto remoteObject = [&] {
            Json remote = {{"id", id}, {"workspace_id", kWorkspace}, {"version", pick(20)}};
            const bool tombstone = pick(10) == 0;
            if (tombstone) remote["deleted_at"] = "2024-05-03T00:00:00Z";
            if (pick(3)) remote["note"] = fresh("r");
            if (pick(3)) remote["url"] = pick(4) ? fresh("https://r/") : "";
            if (pick(3)) remote["status"] = std::next(nextStatus.begin(), pick(3))->first;
            if (pick(3)) remote["tags"] = {fresh("r")};
            store.applyRemoteCapture(remote);
            if (tombstone || !model.exists) {
                model = Model{};
                model.exists = !tombstone;
            }
            if (tombstone || model.pending.count("delete")) return;
            for (const std::string& field : fields) {
                const Json& v = Wire::field(remote, field);
                if (model.pending.count(field)) continue;
                model.values[field] = v.is_array()                 ? v[0].get<std::string>()
                                      : v != "" && v.is_string()   ? v.get<std::string>()
                                                                   : absent.at(field);
            }
            model.version = remote["version"].get<std::int64_t>();
        };
        // Collect, edit while the change is in flight, acknowledge.
        const auto exchange = [&] {
            if (!model.exists || model.pending.empty()) return;
            const auto waiting = store.pending("captures", 1000);
            const auto collected = *std::find_if(waiting.begin(), waiting.end(), [&](auto& p) { return p.id == id; });
            const std::optional<Json> change = store.captureChange(collected);
            ASSERT_TRUE(change);
            EXPECT_EQ(change->at("base_version"), model.version);
            // A new mark survives, and so does a collected field whose sent value
            // moved on (every edit here is to a new value); a tombstone sends none.
            std::set<std::string> stillPending;
            for (int n = pick(3); n > 0; --n) {
                const std::string marked = localEdit(other, 4);
                if (!collected.fields.count(marked) || change->contains("patch")) stillPending.insert(marked);
            }
            const std::int64_t version = pick(50);
            EXPECT_EQ(store.markSynced(collected, *change, version), stillPending.empty());
            model.pending = stillPending;
            model.version = version;
        };

        for (int step = 0; step < 25; ++step) {
            switch (pick(4)) {
                case 0:
                    if (model.exists) model.pending.insert(localEdit(store, 12));
                    break;
                case 1: exchange(); break;
                default: remoteObject(); break;
            }
            SCOPED_TRACE("sequence " + std::to_string(sequence) + " step " + std::to_string(step));
            ASSERT_EQ(rowExists("captures", id), model.exists);
            if (!model.exists) continue;
            const auto& v = model.values;
            EXPECT_EQ(cells("captures", id, "note, url, status, version, sync_state, pending") + "|" + join(store.tags(id), ","),
                      v.at("note") + "|" + v.at("url") + "|" + v.at("status") + "|" + std::to_string(model.version) + "|" +
                          (model.pending.empty() ? "synced" : "pendingPush") + "|" + names(model.pending) + "|" + v.at("tags"));
        }
    }
}

}  // namespace mirel::test
