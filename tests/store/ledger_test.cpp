// The pending-change ledger: the guard that keeps unshared rows out, the
// merging of field names, and clearing after the server's acknowledgement.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::makeCapture;
using test::makeImage;
using Fields = std::set<std::string>;

class LedgerTest : public ::testing::Test {
protected:
    Database& db() { return CaptureStoreTestAccess::database(store); }

    Capture seedCapture(std::optional<std::string> workspace, bool localOnly = false, Date at = test::kSeedDate) {
        Capture c = makeCapture("note", at);
        c.workspaceID = std::move(workspace);
        c.localOnly = localOnly;
        test::seedCaptureRow(db(), c);
        return c;
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
};

struct GuardCase {
    const char* name;
    std::optional<std::string> workspace;
    bool localOnly;
    bool marked;
};

class LedgerGuardTest : public LedgerTest, public ::testing::WithParamInterface<GuardCase> {};

TEST_P(LedgerGuardTest, MarksOnlyRowsThatTakePartInSync) {
    const GuardCase& param = GetParam();
    const Capture c = seedCapture(param.workspace, param.localOnly);
    const CaptureImage image = makeImage(c.id);
    test::seedImageRow(db(), image);

    store.markPending("captures", c.id, {"note"});
    store.markPending("capture_images", image.id, {"annotation_json"});

    if (param.marked) {
        EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "pendingPush");
        EXPECT_EQ(test::pendingKeys(db(), "captures", c.id), Fields{"note"});
        EXPECT_EQ(test::syncStateOf(db(), "capture_images", image.id), "pendingPush");
        EXPECT_EQ(test::pendingKeys(db(), "capture_images", image.id), Fields{"annotation_json"});
    } else {
        EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "local");
        EXPECT_FALSE(test::readText(db(), "captures", c.id, "pending"));
        EXPECT_EQ(test::syncStateOf(db(), "capture_images", image.id), "local");
        EXPECT_FALSE(test::readText(db(), "capture_images", image.id, "pending"));
    }
    // The ledger never sets dirty; the writer's own statement does.
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "dirty"), SQLValue(0));
}

INSTANTIATE_TEST_SUITE_P(Guard, LedgerGuardTest,
                         ::testing::Values(GuardCase{"local", std::nullopt, false, false},
                                           GuardCase{"localOnly", std::string("ws-1"), true, false},
                                           GuardCase{"workspace", std::string("ws-1"), false, true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LedgerTest, GroupsNeedOnlyAWorkspace) {
    CaptureGroup shared = test::makeGroup("Shared", std::string("ws-1"));
    CaptureGroup local = test::makeGroup("Local");
    test::seedGroupRow(db(), shared);
    test::seedGroupRow(db(), local);
    store.markPending("groups", shared.id, {"name"});
    store.markPending("groups", local.id, {"name"});
    EXPECT_EQ(test::pendingKeys(db(), "groups", shared.id), Fields{"name"});
    EXPECT_EQ(test::syncStateOf(db(), "groups", local.id), "local");
}

TEST_F(LedgerTest, UnknownTablesAndIdsAreIgnored) {
    const Capture c = seedCapture(std::string("ws-1"));
    EXPECT_NO_THROW(store.markPending("comments", c.id, {"body"}));
    EXPECT_NO_THROW(store.markPending("captures; DROP TABLE captures", c.id, {"note"}));
    EXPECT_NO_THROW(store.markPending("captures", "no-such-id", {"note"}));
    EXPECT_TRUE(test::rowExists(db(), "captures", c.id));
    EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "local");
}

TEST_F(LedgerTest, MergingKeepsEveryEarlierMark) {
    const Capture c = seedCapture(std::string("ws-1"));
    store.markPending("captures", c.id, {"note"});
    store.markPending("captures", c.id, {"status", "priority"});
    EXPECT_EQ(test::pendingKeys(db(), "captures", c.id), (Fields{"note", "status", "priority"}));

    const Capture whole = seedCapture(std::string("ws-1"));
    test::setColumn(db(), "captures", whole.id, "pending", SQLValue("{\"*\":true}"));
    store.markPending("captures", whole.id, {"note"});
    store.markPending("captures", whole.id, {"delete"});
    store.markPending("captures", whole.id, {"url"});
    EXPECT_EQ(test::pendingKeys(db(), "captures", whole.id), (Fields{"*", "note", "delete", "url"}));
}

TEST_F(LedgerTest, SyncedRowReturnsToPendingPush) {
    const Capture c = seedCapture(std::string("ws-1"));
    test::setColumn(db(), "captures", c.id, "sync_state", SQLValue("synced"));
    store.markPending("captures", c.id, {"note"});
    EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "pendingPush");
}

TEST_F(LedgerTest, PendingFieldsReadsOnlyObjectKeys) {
    EXPECT_TRUE(CaptureStore::pendingFields(std::nullopt).empty());
    EXPECT_TRUE(CaptureStore::pendingFields(std::string()).empty());
    EXPECT_TRUE(CaptureStore::pendingFields(std::string("[\"note\"]")).empty());
    EXPECT_TRUE(CaptureStore::pendingFields(std::string("{note")).empty());
    EXPECT_TRUE(CaptureStore::pendingFields(std::string("\"note\"")).empty());
    EXPECT_EQ(CaptureStore::pendingFields(std::string("{\"note\":true,\"*\":false}")), (Fields{"note", "*"}));
}

TEST_F(LedgerTest, PendingListsWaitingRowsOldestFirst) {
    const Capture newer = seedCapture(std::string("ws-1"), false, test::kSeedDate + 20);
    const Capture older = seedCapture(std::string("ws-1"), false, test::kSeedDate + 10);
    const Capture synced = seedCapture(std::string("ws-1"), false, test::kSeedDate);
    const Capture blank = seedCapture(std::string("ws-1"), false, test::kSeedDate + 30);
    store.markPending("captures", newer.id, {"note"});
    store.markPending("captures", older.id, {"status"});
    test::setColumn(db(), "captures", older.id, "version", SQLValue(4));
    test::setColumn(db(), "captures", synced.id, "pending", SQLValue("{\"note\":true}"));
    test::setColumn(db(), "captures", synced.id, "sync_state", SQLValue("synced"));
    test::setColumn(db(), "captures", blank.id, "sync_state", SQLValue("pendingPush"));

    const auto first = store.pending("captures", 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0], (CaptureStore::Pending{older.id, {"status"}, 4}));

    const auto all = store.pending("captures", 200);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].id, newer.id);
    EXPECT_EQ(all[2], (CaptureStore::Pending{blank.id, {}, 0}));
}

TEST_F(LedgerTest, PendingCommentsAreThoseWaitingToBePushed) {
    const Capture c = seedCapture(std::string("ws-1"));
    Comment waiting = test::makeComment(c.id, "first");
    waiting.syncState = SyncState::pendingPush;
    Comment done = test::makeComment(c.id, "second");
    done.syncState = SyncState::synced;
    test::seedComment(db(), waiting);
    test::seedComment(db(), done);
    const auto comments = store.pendingComments(200);
    ASSERT_EQ(comments.size(), 1u);
    EXPECT_EQ(comments[0].id, waiting.id);
}

TEST_F(LedgerTest, MarkSyncedClearsTheLedgerAndLocalHistoryOnly) {
    const Capture c = seedCapture(std::string("ws-1"));
    store.markPending("captures", c.id, {"note"});
    test::setColumn(db(), "captures", c.id, "dirty", SQLValue(1));
    store.recordActivity(c.id, "created", "", "you", "local-row", test::kSeedDate, std::nullopt, false);
    store.recordActivity(c.id, "created", "", "Ada", "remote-row", test::kSeedDate, std::nullopt, true);

    store.markSynced("captures", c.id, 7);

    EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "synced");
    EXPECT_FALSE(test::readText(db(), "captures", c.id, "pending"));
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "dirty"), SQLValue(0));
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "version"), SQLValue(7));
    EXPECT_FALSE(test::rowExists(db(), "activity", "local-row"));
    EXPECT_TRUE(test::rowExists(db(), "activity", "remote-row"));
}

TEST_F(LedgerTest, MarkSyncedWithoutVersionKeepsIt) {
    CaptureGroup g = test::makeGroup("Shared", std::string("ws-1"));
    g.version = 3;
    test::seedGroupRow(db(), g);
    const Capture c = seedCapture(std::string("ws-1"));
    store.recordActivity(c.id, "created", "", "you", "local-row", test::kSeedDate, std::nullopt, false);
    store.markPending("groups", g.id, {"name"});

    store.markSynced("groups", g.id, std::nullopt);

    EXPECT_EQ(test::syncStateOf(db(), "groups", g.id), "synced");
    EXPECT_EQ(test::readColumn(db(), "groups", g.id, "version"), SQLValue(3));
    EXPECT_TRUE(test::rowExists(db(), "activity", "local-row"));
}

}  // namespace
}  // namespace mirel
