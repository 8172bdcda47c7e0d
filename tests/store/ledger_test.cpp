// The pending-change ledger: only rows that take part in sync are marked,
// marks merge, and the server's acknowledgement clears them.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

TEST_F(StoreTest, OnlyRowsThatTakePartInSyncAreMarked) {
    const std::tuple<std::optional<std::string>, bool, const char*> rows[] = {
        {std::nullopt, false, "local {} local {}"},
        {"ws", true, "local {} local {}"},
        {"ws", false, "pendingPush {note} pendingPush {position}"},
    };
    for (const auto& [workspace, localOnly, expected] : rows) {
        Capture c = makeCapture();
        c.workspaceID = workspace, c.localOnly = localOnly;
        store.insert(c);
        CaptureImage image = makeImage(c.id);
        store.addImage(image);
        raw.execute("UPDATE captures SET pending = NULL, sync_state = 'local';");
        raw.execute("UPDATE capture_images SET pending = NULL, sync_state = 'local';");
        store.markPending("captures", c.id, {"note"});
        store.markPending("capture_images", image.id, {"position"});
        store.markPending("comments", c.id, {"body"});  // no field ledger: ignored
        EXPECT_EQ(pending("captures", c.id) + " " + pending("capture_images", image.id), expected);
    }
}

TEST_F(StoreTest, MarksMergeAndTheAcknowledgementClearsThem) {
    Capture older = makeCapture("older", 10), newer = makeCapture("newer", 20);
    older.workspaceID = newer.workspaceID = "ws";
    store.insert(newer);
    store.insert(older);
    store.markSynced("captures", older.id, 3);
    store.markPending("captures", older.id, {"note"});
    store.markPending("captures", older.id, {"status", "note"});
    store.recordActivity(older.id, "commented", "", "Bob", "remote-1", 30, std::nullopt, true);
    using Pending = CaptureStore::Pending;
    EXPECT_EQ(store.pending("captures", 10), (std::vector<Pending>{{older.id, {"note", "status"}, 3}, {newer.id, {"*"}, 0}}));
    EXPECT_EQ(store.pending("captures", 1).size(), 1u);

    store.markSynced("captures", older.id, std::nullopt);
    store.markSynced("captures", newer.id, 8);
    EXPECT_EQ(pending("captures", older.id) + " " + cell("captures", older.id, "version") + " " +
                  cell("captures", older.id, "dirty") + " " + cell("captures", newer.id, "version"),
              "synced {} 3 0 8");
    EXPECT_TRUE(store.pending("captures", 10).empty());
    // Once acknowledged, a capture's history is what the server sends back.
    EXPECT_EQ(store.activity(older.id).size(), 1u);
    EXPECT_EQ(CaptureStore::pendingFields(R"({"a":true,"b":false})"), (std::set<std::string>{"a", "b"}));
    for (const char* bad : {"[\"a\"]", "not json", "\"a\""}) EXPECT_TRUE(CaptureStore::pendingFields(bad).empty()) << bad;
}

}  // namespace
}  // namespace mirel::test
