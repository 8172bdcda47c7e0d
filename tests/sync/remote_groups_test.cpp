#include "tests/sync/sync_fixture.h"

namespace mirel::test {

namespace {

class RemoteGroups : public SyncStoreTest {
protected:
    CaptureGroup seedGroup(const std::string& name, const std::string& syncState = "synced",
                           const std::optional<std::string>& pending = std::nullopt) {
        CaptureGroup group = makeGroup(name, std::string(kWorkspace));
        group.path = "/src/" + name;
        seedGroupRow(db(), group);
        setLedger("groups", group.id, syncState, pending);
        return group;
    }
    Capture fileUnder(const CaptureGroup& group, const std::optional<std::string>& author = std::nullopt) {
        Capture c = makeCapture("Filed");
        c.workspaceID = kWorkspace;
        c.groupID = group.id;
        c.authorID = author;
        seedCaptureRow(db(), c);
        return c;
    }
};

}  // namespace

TEST_F(RemoteGroups, WhoWinsPerField) {
    struct Case {
        const char* name;
        const char* syncState;
        std::optional<std::string> pending;
        std::string nameAfter, colorAfter, stateAfter;
    };
    const Case cases[] = {
        {"synced takes the server's", "synced", {}, "Remote", "#000000", "synced"},
        {"pending name keeps the name", "pendingPush", R"({"name":true})", "Local", "#000000", "pendingPush"},
        {"pendingPush without a ledger becomes synced", "pendingPush", {}, "Remote", "#000000", "synced"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const CaptureGroup local = seedGroup("Local", c.syncState, c.pending);
        store.applyRemoteGroup(object(R"({"id":")" + local.id + R"(","name":"Remote","color_hex":"#000000",
            "version":6,"updated_at":"2024-06-01T00:00:00Z","visibility":"workspace","workspace_id":"ws-1"})"));
        EXPECT_EQ(text("groups", local.id, "name"), c.nameAfter);
        EXPECT_EQ(text("groups", local.id, "color_hex"), c.colorAfter);
        EXPECT_EQ(syncStateOf("groups", local.id), c.stateAfter);
        EXPECT_EQ(integer("groups", local.id, "version"), 6);
        EXPECT_EQ(text("groups", local.id, "visibility"), "workspace");
        EXPECT_EQ(readColumn("groups", local.id, "updated_at"), SQLValue(1717200000.0));
        db().execute("DELETE FROM groups;");
    }
}

TEST_F(RemoteGroups, NewGroupsTombstonesAndMembers) {
    const std::string id = newID();
    store.applyRemoteGroup(object(R"({"id":")" + id + R"(","name":"New","archived_at":1717200000})"));
    EXPECT_EQ(text("groups", id, "color_hex"), "#6E7BF2");
    EXPECT_EQ(text("groups", id, "visibility"), "private");
    EXPECT_EQ(text("groups", id, "path"), std::nullopt);
    EXPECT_EQ(readColumn("groups", id, "archived_at"), SQLValue(1717200000.0));

    const CaptureGroup group = seedGroup("Filed");
    const Capture filed = fileUnder(group);
    store.applyRemoteGroup(object(R"({"id":")" + group.id + R"(","deleted_at":1717200000})"));  // no name
    EXPECT_TRUE(rowExists("groups", group.id));
    store.applyRemoteGroup(object(R"({"id":")" + group.id + R"(","name":"x","deleted_at":1717200000})"));
    EXPECT_FALSE(rowExists("groups", group.id));
    EXPECT_EQ(text("captures", filed.id, "group_id"), std::nullopt);

    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u1"})"));
    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u2","removed_at":1717200000})"));
    EXPECT_EQ(store.groupMemberIDs("g"), std::vector<std::string>{"u1"});
    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u2"})"));
    EXPECT_EQ(store.groupMemberIDs("g").size(), 2u);
}

TEST_F(RemoteGroups, DropKeepsTheUsersOwnCaptures) {
    store.setSyncMeta("user_id", "me");
    const CaptureGroup group = seedGroup("Shared");
    const Capture mine = fileUnder(group, "me");
    const Capture theirs = fileUnder(group, "them");
    const Capture nobodys = fileUnder(group);
    store.applyRemoteGroupMember(object(R"({"group_id":")" + group.id + R"(","user_id":"me"})"));
    store.dropGroup(group.id);
    EXPECT_TRUE(rowExists("captures", mine.id));
    EXPECT_FALSE(rowExists("captures", theirs.id));
    EXPECT_FALSE(rowExists("captures", nobodys.id));
    EXPECT_TRUE(rowExists("groups", group.id));
    EXPECT_TRUE(store.groupMemberIDs(group.id).empty());

    // Without a user id every capture is someone else's, and the empty group goes.
    store.setSyncMeta("user_id", std::nullopt);
    store.dropGroup(group.id);
    EXPECT_FALSE(rowExists("captures", mine.id));
    EXPECT_FALSE(rowExists("groups", group.id));
}

TEST_F(RemoteGroups, RemapFoldsIntoTheCanonicalGroupWhetherOrNotItIsHere) {
    // The canonical row is here: captures move, soft-deleted ones too, and the local row goes.
    const CaptureGroup canonical = seedGroup("Canonical");
    const CaptureGroup local = seedGroup("Dup", "pendingPush", R"({"*":true})");
    const Capture live = fileUnder(local);
    Capture deleted = makeCapture("Deleted");
    deleted.groupID = local.id;
    deleted.deletedAt = kSeedDate;
    seedCaptureRow(db(), deleted);
    store.remapGroup(local.id, canonical.id);
    EXPECT_FALSE(rowExists("groups", local.id));
    EXPECT_EQ(text("captures", live.id, "group_id"), canonical.id);
    EXPECT_EQ(text("captures", deleted.id, "group_id"), canonical.id);

    // Not here yet: the local row stands in under the canonical id, pushes
    // nothing, and the server's row later overwrites it.
    const CaptureGroup early = seedGroup("Checkout", "pendingPush", R"({"*":true})");
    const Capture filed = fileUnder(early);
    const std::string canonicalID = newID();
    store.remapGroup(early.id, canonicalID);
    EXPECT_FALSE(rowExists("groups", early.id));
    EXPECT_EQ(text("captures", filed.id, "group_id"), canonicalID);
    EXPECT_EQ(syncStateOf("groups", canonicalID), "synced");
    EXPECT_TRUE(pendingKeys("groups", canonicalID).empty());
    EXPECT_EQ(text("groups", canonicalID, "path"), "/src/Checkout");  // the local folder link survives
    store.applyRemoteGroup(object(R"({"id":")" + canonicalID + R"(","name":"Checkout","color_hex":"#111111"})"));
    EXPECT_EQ(text("groups", canonicalID, "color_hex"), "#111111");

    // The foreign key still holds for everything else in the library.
    EXPECT_THROW(db().execute("UPDATE captures SET group_id = 'nowhere' WHERE id = ?;", {SQLValue(filed.id)}),
                 DatabaseError);
    store.remapGroup(canonicalID, canonicalID);
    EXPECT_TRUE(rowExists("groups", canonicalID));
}

}  // namespace mirel::test
