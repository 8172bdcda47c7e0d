// The pending-change ledger: only rows that take part in sync are marked,
// marks merge, and the server's acknowledgement clears them.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

TEST_F(StoreTest, OnlySharedRowsAreMarkedMarksMergeAndTheAcknowledgementClearsThem) {
    Capture older = makeCapture("older", 10), newer = makeCapture("newer", 20), local = makeCapture(), localOnly = makeCapture();
    older.workspaceID = newer.workspaceID = localOnly.workspaceID = "ws";
    localOnly.localOnly = true;
    for (const auto& c : {newer, older, local, localOnly}) store.insert(c);
    const CaptureImage image = store.addImage(makeImage(older.id)), localImage = store.addImage(makeImage(local.id));
    store.markSynced("captures", older.id, 3);
    store.markSynced("capture_images", image.id, 1);
    for (const auto& c : {older, local, localOnly}) store.markPending("captures", c.id, {"note"});
    store.markPending("captures", older.id, {"status", "note"});
    for (const auto& i : {image, localImage}) store.markPending("capture_images", i.id, {"position"});
    store.markPending("comments", older.id, {"body"});  // no field ledger: ignored
    EXPECT_EQ(pending("captures", local.id) + " " + pending("captures", localOnly.id) + " " + pending("capture_images", localImage.id),
              "local {} local {} local {}");
    store.recordActivity(older.id, "commented", "", "Bob", "remote-1", 30, std::nullopt, true);
    using Pending = CaptureStore::Pending;
    EXPECT_EQ(store.pending("captures", 10), (std::vector<Pending>{{older.id, {"note", "status"}, 3}, {newer.id, {"*"}, 0}}));
    EXPECT_EQ(store.pending("captures", 1).size(), 1u);
    EXPECT_EQ(store.pending("capture_images", 10), (std::vector<Pending>{{image.id, {"position"}, 1}}));

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
