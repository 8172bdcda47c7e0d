// Groups: finding them by id, name and folder, the namesake rule of
// upsertGroup, and archiving versus deleting.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::makeGroup;
using Fields = std::set<std::string>;

constexpr Date kNow = 1717000000.75;

class GroupsTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(kNow); }
    void TearDown() override { Clock::pin(std::nullopt); }
    Database& db() { return CaptureStoreTestAccess::database(store); }

    CaptureGroup seed(const std::string& name, std::optional<std::string> workspace = {},
                      std::optional<std::string> path = {}) {
        CaptureGroup g = makeGroup(name, std::move(workspace));
        g.path = std::move(path);
        test::seedGroupRow(db(), g);
        return g;
    }

    std::vector<std::string> names() {
        std::vector<std::string> out;
        for (const auto& g : store.groups()) out.push_back(g.name);
        return out;
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
};

TEST_F(GroupsTest, ListsLiveGroupsByNameIgnoringCase) {
    seed("beta");
    seed("Alpha");
    const CaptureGroup archived = seed("Archived");
    test::setColumn(db(), "groups", archived.id, "archived_at", SQLValue(1.0));
    const CaptureGroup deleted = seed("Deleted");
    test::setColumn(db(), "groups", deleted.id, "deleted_at", SQLValue(1.0));

    EXPECT_EQ(names(), (std::vector<std::string>{"Alpha", "beta"}));
    EXPECT_TRUE(store.group(archived.id));
    EXPECT_FALSE(store.group(deleted.id));
    EXPECT_FALSE(store.group("no-such-group"));
}

TEST_F(GroupsTest, NamedLookupFoldsCaseWithinOneScope) {
    const CaptureGroup local = seed("Checkout");
    const CaptureGroup shared = seed("Checkout", std::string("ws-1"));
    EXPECT_EQ(store.groupNamed("CHECKOUT", std::nullopt)->id, local.id);
    EXPECT_EQ(store.groupNamed("checkout", std::string("ws-1"))->id, shared.id);
    EXPECT_FALSE(store.groupNamed("checkout", std::string("ws-2")));
    EXPECT_FALSE(store.groupNamed("Check", std::nullopt));
}

TEST_F(GroupsTest, FolderMatchingNeedsAWholePathComponent) {
    seed("App", std::nullopt, std::string("/x/app"));
    seed("Slash", std::nullopt, std::string("/y/lib/"));
    seed("Empty", std::nullopt, std::string(""));
    seed("None");

    EXPECT_EQ(store.groupMatchingPath("/x/app")->name, "App");
    EXPECT_EQ(store.groupMatchingPath("/x/app/src/main.c")->name, "App");
    EXPECT_FALSE(store.groupMatchingPath("/x/application"));
    EXPECT_EQ(store.groupMatchingPath("/y/lib/a.c")->name, "Slash");
    EXPECT_FALSE(store.groupMatchingPath("/y/lib"));
    EXPECT_FALSE(store.groupMatchingPath(""));
}

TEST_F(GroupsTest, FirstFitByNameWinsOverTheLongerPath) {
    seed("B deep", std::nullopt, std::string("/x/app/src"));
    seed("A shallow", std::nullopt, std::string("/x/app"));
    EXPECT_EQ(store.groupMatchingPath("/x/app/src/main.c")->name, "A shallow");
}

TEST_F(GroupsTest, NewGroupTakesTheDefaultWorkspaceAndIsMarkedWhole) {
    store.setSyncMeta("default_workspace_id", "ws-1");
    store.setSyncMeta("user_id", "me");
    CaptureGroup g = makeGroup("Design");
    g.updatedAt = 5.0;
    const CaptureGroup result = store.upsertGroup(g);

    EXPECT_EQ(result.workspaceID, "ws-1");
    EXPECT_EQ(result.createdBy, "me");
    EXPECT_EQ(result.updatedAt, 5.0);  // the copy keeps what it came with
    EXPECT_EQ(test::readColumn(db(), "groups", g.id, "updated_at"), SQLValue(kNow));
    EXPECT_EQ(test::readText(db(), "groups", g.id, "workspace_id"), "ws-1");
    EXPECT_EQ(test::pendingKeys(db(), "groups", g.id), Fields{"*"});
    EXPECT_EQ(test::syncStateOf(db(), "groups", g.id), "pendingPush");
}

TEST_F(GroupsTest, NamesakeInAnotherCaseIsGivenBackAndNothingIsWritten) {
    const CaptureGroup existing = seed("Checkout");
    CaptureGroup asked = makeGroup("checkout");
    const CaptureGroup result = store.upsertGroup(asked);
    EXPECT_EQ(result.id, existing.id);
    EXPECT_EQ(result.name, "Checkout");
    EXPECT_FALSE(test::rowExists(db(), "groups", asked.id));
}

TEST_F(GroupsTest, ChangingAnExistingGroupKeepsItsSyncColumns) {
    CaptureGroup local = seed("Local");
    local.colorHex = "#FF0000";
    local.workspaceID = "ws-9";  // not written on a conflict
    store.upsertGroup(local);
    EXPECT_EQ(store.group(local.id)->colorHex, "#FF0000");
    EXPECT_TRUE(store.group(local.id)->dirty);
    EXPECT_FALSE(store.group(local.id)->workspaceID);
    EXPECT_EQ(test::syncStateOf(db(), "groups", local.id), "local");

    CaptureGroup shared = makeGroup("Shared", std::string("ws-1"));
    shared.syncState = SyncState::synced;
    shared.version = 4;
    test::seedGroupRow(db(), shared);
    shared.name = "Shared renamed";
    shared.version = 99;
    store.upsertGroup(shared);
    EXPECT_EQ(store.group(shared.id)->name, "Shared renamed");
    EXPECT_EQ(store.group(shared.id)->version, 4);
    EXPECT_EQ(test::pendingKeys(db(), "groups", shared.id), (Fields{"name", "color_hex", "archived_at"}));
}

TEST_F(GroupsTest, ExactNameOfAnArchivedGroupFailsAtTheUniqueIndex) {
    const CaptureGroup archived = seed("Old");
    test::setColumn(db(), "groups", archived.id, "archived_at", SQLValue(1.0));
    const CaptureGroup fresh = makeGroup("Old");
    try {
        store.upsertGroup(fresh);
        FAIL() << "expected a DatabaseError";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::stepFailed);
        EXPECT_NE(error.message().find("UNIQUE"), std::string::npos) << error.message();
    }
    EXPECT_FALSE(test::rowExists(db(), "groups", fresh.id));
}

TEST_F(GroupsTest, DeletingASharedGroupArchivesIt) {
    const CaptureGroup shared = seed("Shared", std::string("ws-1"));
    store.deleteGroup(shared.id);
    EXPECT_EQ(test::readColumn(db(), "groups", shared.id, "archived_at"), SQLValue(kNow));
    EXPECT_TRUE(test::readColumn(db(), "groups", shared.id, "deleted_at").isNull());
    EXPECT_EQ(test::pendingKeys(db(), "groups", shared.id), Fields{"archived_at"});
    EXPECT_TRUE(names().empty());
    EXPECT_TRUE(store.group(shared.id));
}

TEST_F(GroupsTest, DeletingALocalGroupMarksItDeletedAndLeavesCapturesFiled) {
    const CaptureGroup local = seed("Local");
    Capture c = test::makeCapture();
    c.groupID = local.id;
    test::seedCaptureRow(db(), c);
    store.deleteGroup(local.id);
    EXPECT_EQ(test::readColumn(db(), "groups", local.id, "deleted_at"), SQLValue(kNow));
    EXPECT_FALSE(store.group(local.id));
    EXPECT_EQ(store.capture(c.id)->groupID, local.id);
    EXPECT_NO_THROW(store.deleteGroup("no-such-group"));
}

}  // namespace
}  // namespace mirel
