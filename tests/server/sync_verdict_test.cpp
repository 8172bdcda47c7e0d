// The verdict on each pushed change, as one table: what was there before (pushed
// by two devices of one user), the change, and what the server answers and
// writes.
#include "tests/server/two_teams.h"

#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

// GCC 12 takes the JSON values of this long table for uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace mirel::test {
namespace {

struct Push {
    char device;  // 'a' or 'b'
    Json change;
};

struct VerdictCase {
    const char* name;
    std::vector<Push> before;
    Push change;
    const char* status;
    std::optional<int> version = std::nullopt;
    std::vector<std::string> conflicts = {};
    bool retry = false;
    const char* canonicalID = nullptr;
    Json rowAfter = nullptr;                  // fields of the record (of a remap, the group kept) as the reply's changes carry it
    std::vector<std::string> history = {};    // activity kinds written by the change
    std::string conflictNote = {};            // the body of the conflict note it writes
    const char* reason = nullptr;             // of a rejection, when it matters here
};

Json change(const char* table, const char* id, int base, Json patch) {
    return Json{{"table", table}, {"id", id}, {"base_version", base}, {"patch", std::move(patch)}};
}
Json capture(const char* id, int base, Json patch) { return change("captures", id, base, std::move(patch)); }
Json newCapture(const char* id) {
    return capture(id, 0, {{"workspace_id", "WS"}, {"note", "first"}, {"status", "open"}, {"priority", "normal"},
                           {"tags", Json::array()}, {"capture_mode", "region"}, {"created_at", "2024-05-01T10:00:00.000Z"}});
}
Json group(const char* id, int base, Json patch) { return change("groups", id, base, std::move(patch)); }
Json newGroup(const char* id, const char* name) { return group(id, 0, {{"workspace_id", "WS"}, {"name", name}}); }
Json image(const char* id, const char* captureID, const char* sha) {
    return change("capture_images", id, 0, {{"capture_id", captureID}, {"original_sha256", sha}, {"width", 10}, {"height", 10}});
}
Json comment(const char* id, const char* captureID) {
    return Json{{"table", "comments"}, {"id", id}, {"patch", {{"capture_id", captureID}, {"body", "looks off"}, {"kind", "comment"}}}};
}
Json tombstone(const char* table, const char* id, int base) {
    return Json{{"table", table}, {"id", id}, {"base_version", base}, {"delete", true}};
}

std::vector<VerdictCase> verdictCases() {
    return {
    {"an id made of every kind of character ids may have", {}, {'a', newCapture("azAZ09_.")}, "applied", 1, {}, false,
     nullptr, nullptr, {"created"}},
    {"an id that is no plain name", {}, {'a', newCapture("a/b")}, "rejected", std::nullopt, {}, false},
    {"a new capture is applied at version 1", {}, {'a', newCapture("c")}, "applied", 1, {}, false, nullptr,
     {{"note", "first"}, {"author_id", "ANN"}}, {"created"}},
    {"an edit on the current version is applied", {{'a', newCapture("c")}}, {'a', capture("c", 1, {{"note", "second"}})},
     "applied", 2, {}, false, nullptr, {{"note", "second"}}},
    {"a stale base merges the fields nobody else changed",
     {{'a', newCapture("c")}, {'a', capture("c", 1, {{"note", "by a"}})}},
     {'b', capture("c", 1, {{"priority", "high"}})}, "merged", 3, {}, false, nullptr,
     {{"note", "by a"}, {"priority", "high"}}},
    {"a stale base keeps the server's value where another device changed the field, and a note keeps the other",
     {{'a', newCapture("c")}, {'a', capture("c", 1, {{"note", "by a"}})}},
     {'b', capture("c", 1, {{"note", std::string(296, 'b') + "é and more"}, {"priority", "low"}})}, "merged", 3, {"note"},
     false, nullptr, {{"note", "by a"}, {"priority", "low"}}, {},
     // cut to 300 bytes of whole characters
     "These edits were not applied because someone changed the same fields first:\nnote: “" + std::string(296, 'b') + "…"},
    {"a stale base wins where the same device changed the field last",
     {{'a', newCapture("c")}, {'b', capture("c", 1, {{"note", "by b"}})}},
     {'b', capture("c", 1, {{"note", "by b again"}})}, "merged", 3, {}, false, nullptr, {{"note", "by b again"}}},
    {"an image's losing annotation is shown as JSON",
     {{'a', newCapture("c")}, {'a', image("i", "c", "SHA")}, {'a', change("capture_images", "i", 1, {{"annotation_json", {{"by", "a"}}}})}},
     {'b', change("capture_images", "i", 1, {{"annotation_json", {{"by", "b"}}}})}, "merged", 2, {"annotation_json"}, false,
     nullptr, nullptr, {}, "These edits were not applied because someone changed the same fields first:\nannotation_json: {\"by\":\"b\"}"},
    {"an equal value is no conflict and no new version",
     {{'a', newCapture("c")}, {'a', capture("c", 1, {{"note", "same"}})}},
     {'b', capture("c", 1, {{"note", "same"}})}, "merged", 2},
    {"resolving writes one resolved line", {{'a', newCapture("c")}},
     {'a', capture("c", 1, {{"status", "resolved"}, {"resolution_ref", "abc123"}, {"resolved_at", "2024-05-02T12:00:00+02:00"}})},
     "applied", 2, {}, false, nullptr, {{"status", "resolved"}, {"resolved_at", "2024-05-02T10:00:00.000Z"}}, {"resolved"}},
    {"claiming writes one claimed line", {{'a', newCapture("c")}},
     {'a', capture("c", 1, {{"status", "in_progress"}, {"claimed_by_id", "ANN"}, {"claimed_label", "agent · Ann"},
                            {"assignee_id", "ANN"}})},
     "applied", 2, {}, false, nullptr, nullptr, {"claimed"}},
    {"a status change and a move write their lines", {{'a', newGroup("g", "Moves")}, {'a', newCapture("c")}},
     {'a', capture("c", 1, {{"status", "archived"}, {"group_id", "g"}})}, "applied", 2, {}, false, nullptr,
     {{"group_id", "g"}}, {"status_changed", "moved"}},
    {"a new group with a taken name is remapped", {{'a', newGroup("g", "Checkout")}},
     {'b', newGroup("h", "checkout")}, "remapped", std::nullopt, {}, false, "g"},
    {"a new group under an archived group's name brings that group back",
     {{'a', newGroup("g", "Old")}, {'a', group("g", 1, {{"archived_at", "2024-05-01T10:00:00Z"}})}},
     {'b', newGroup("h", "old")}, "remapped", std::nullopt, {}, false, "g", {{"archived_at", nullptr}}},
    {"a capture filed under a remapped id lands in the canonical group",
     {{'a', newGroup("g", "Design")}, {'b', newGroup("h", "design")}},
     {'b', capture("c", 0, {{"workspace_id", "WS"}, {"group_id", "h"}})}, "applied", 1, {}, false, nullptr,
     {{"group_id", "g"}}, {"created"}},
    {"renaming onto another group's name keeps the old name",
     {{'a', newGroup("g", "Alpha")}, {'a', newGroup("h", "Beta")}}, {'a', group("h", 1, {{"name", "alpha"}})},
     "merged", 1, {"name"}},
    {"a capture in a workspace the user isn't in", {}, {'a', capture("c", 0, {{"workspace_id", "OTHER"}})},
     "rejected", std::nullopt, {}, false},
    {"moving a capture to another workspace", {{'a', newCapture("c")}},
     {'a', capture("c", 1, {{"workspace_id", "OTHER"}})}, "rejected", std::nullopt, {}, false, nullptr, nullptr, {}, {},
     "a capture can't move to another workspace"},
    {"a new group without its workspace", {}, {'a', group("g", 0, {{"name", "Loose"}})}, "rejected", std::nullopt, {},
     false, nullptr, nullptr, {}, {}, "a new group needs its workspace_id"},
    {"a capture whose group hasn't arrived", {}, {'a', capture("c", 0, {{"workspace_id", "WS"}, {"group_id", "g"}})},
     "rejected", std::nullopt, {}, true},
    {"an image before its capture", {}, {'a', image("i", "c", "SHA")}, "rejected", std::nullopt, {}, true},
    {"an image whose file isn't uploaded", {{'a', newCapture("c")}}, {'a', image("i", "c", "MISSING")},
     "rejected", std::nullopt, {}, true},
    {"an image with its file uploaded", {{'a', newCapture("c")}}, {'a', image("i", "c", "SHA")}, "applied", 1, {},
     false, nullptr, {{"capture_id", "c"}, {"original_sha256", "SHA"}, {"marked_sha256", nullptr}}},
    {"a tombstone", {{'a', newCapture("c")}}, {'b', tombstone("captures", "c", 0)}, "applied", 2},
    {"an edit of a deleted capture", {{'a', newCapture("c")}, {'a', tombstone("captures", "c", 1)}},
     {'b', capture("c", 1, {{"note", "late"}})}, "rejected", std::nullopt, {}, false, nullptr, nullptr, {}, {},
     "this capture was deleted on the server"},
    {"a group can't be deleted", {{'a', newGroup("g", "Kept")}}, {'a', tombstone("groups", "g", 1)}, "rejected",
     std::nullopt, {}, false},
    {"a comment", {{'a', newCapture("c")}}, {'a', comment("m", "c")}, "applied", 1, {}, false, nullptr,
     {{"body", "looks off"}, {"author_id", "ANN"}}, {"commented"}},
    {"its author edits a comment", {{'a', newCapture("c")}, {'a', comment("m", "c")}},
     {'b', change("comments", "m", 1, {{"body", "looks fine"}})}, "applied", 2},
    {"a value of the wrong kind", {{'a', newCapture("c")}}, {'a', capture("c", 1, {{"status", "done"}})}, "rejected",
     std::nullopt, {}, false},
    {"a hash that is no text", {{'a', newCapture("c")}},
     {'a', change("capture_images", "i", 0, {{"capture_id", "c"}, {"original_sha256", 5}})}, "rejected", std::nullopt, {}, false},
    {"a date that is no date", {{'a', newCapture("c")}}, {'a', capture("c", 1, {{"resolved_at", "2024-05-32T10:00:00Z"}})},
     "rejected", std::nullopt, {}, false},
    {"a tag that is too long", {{'a', newCapture("c")}}, {'a', capture("c", 1, {{"tags", {std::string(201, 't')}}})},
     "rejected", std::nullopt, {}, false},
    {"a table the server doesn't take", {}, {'a', change("people", "p", 0, Json::object())}, "rejected", std::nullopt,
     {}, false},
    };
}

class SyncVerdictTest : public TwoTeamsTest {
protected:
    void SetUp() override {
        TwoTeamsTest::SetUp();
        ids = {{"WS", acme},
               {"OTHER", server.workspaceID(bob, "bobs")},
               {"ANN", server.call("GET", "/v1/me", std::nullopt, ann).body["user"]["id"]},
               {"SHA", ContentHash::sha256(std::string_view("pixels"))},
               {"MISSING", ContentHash::sha256(std::string_view("never sent"))}};
        auto upload = server.call("POST", "/v1/uploads", Json{{"workspace_id", acme}, {"sha256", ids["SHA"]}, {"bytes", 6}}, ann);
        httplib::Client storage("127.0.0.1", server.port());
        storage.Put(upload.body["url"].get<std::string>().substr(server.url().size()), "pixels", "image/png");
    }

    // Record ids get the case's number, so that cases share one server; the
    // placeholders become real workspace, user and blob ids.
    Json resolve(const Json& value, std::size_t n, const std::string& key = "") {
        if (value.is_object()) {
            Json out = Json::object();
            for (const auto& [k, v] : value.items()) out[k] = resolve(v, n, k);
            return out;
        }
        if (!value.is_string()) return value;
        const std::string text = value.get<std::string>();
        if (ids.count(text)) return ids[text];
        if (key == "id" || key == "capture_id" || key == "group_id") return text + "-" + std::to_string(n);
        return value;
    }

    Json push(const Push& push, std::size_t n, std::int64_t cursor) {
        return server.sync(ann, cursor, Json::array({resolve(push.change, n)}), std::string("device-") + push.device);
    }

    std::map<std::string, Json> ids;
};

TEST_F(SyncVerdictTest, EachChangeGetsItsVerdict) {
    const std::vector<VerdictCase> cases = verdictCases();
    std::int64_t cursor = 0;  // each case reads only what it wrote
    for (std::size_t n = 0; n < cases.size(); ++n) {
        const VerdictCase& c = cases[n];
        SCOPED_TRACE(c.name);
        for (const auto& before : c.before) {
            Json reply = push(before, n, cursor);
            ASSERT_NE(reply["results"][0]["status"], "rejected") << reply["results"][0];
            cursor = reply["cursor"];
        }
        const Json sent = resolve(c.change.change, n);
        const Json reply = push(c.change, n, cursor);
        cursor = reply["cursor"];
        const Json& result = reply["results"][0];
        EXPECT_EQ(result["id"], sent["id"]);
        EXPECT_EQ(result["status"], c.status) << result;
        if (c.version) {
            EXPECT_EQ(result.value("version", -1), *c.version) << result;
        }
        if (std::string(c.status) == "merged") {
            EXPECT_EQ(result["conflicts"], Json(c.conflicts));
        }
        if (std::string(c.status) == "rejected") {
            EXPECT_EQ(result["retry"], c.retry) << result;
            EXPECT_EQ(result.value("reason", ""), c.reason ? c.reason : result.value("reason", "(none)"));
        }
        if (c.canonicalID) {
            EXPECT_EQ(result["canonical_id"], resolve(Json{{"id", c.canonicalID}}, n)["id"]);
        }

        std::vector<std::string> history;
        std::string note;
        Json row;
        for (const auto& item : reply["changes"]) {
            if (item["table"] == "activity") history.push_back(item["row"]["kind"]);
            if (item["table"] == "comments" && item["row"]["kind"] == "conflict")  // every client reads its is_agent
                note = item["row"]["body"].get<std::string>() + (item["row"].value("is_agent", Json()) == false ? "" : " [is_agent?]");
            if (item["row"]["id"] == (c.canonicalID ? resolve(Json{{"id", c.canonicalID}}, n)["id"] : sent["id"])) row = item["row"];
        }
        EXPECT_EQ(history, c.history);
        EXPECT_EQ(note, c.conflictNote);
        const Json rowAfter = resolve(c.rowAfter.is_null() ? Json::object() : c.rowAfter, n);
        for (const auto& [field, expected] : rowAfter.items()) {
            EXPECT_EQ(row.value(field, Json("(missing)")), expected) << field;
        }
    }
}

}  // namespace
}  // namespace mirel::test
