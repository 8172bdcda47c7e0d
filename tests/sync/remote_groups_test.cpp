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
        c.workspaceID = kWorkspace, c.groupID = group.id, c.authorID = author;
        seedCaptureRow(db(), c);
        return c;
    }
    std::string remote(const std::string& id, const std::string& rest) { return R"({"id":")" + id + "\"," + rest + "}"; }
};

}  // namespace

TEST_F(RemoteGroups, WhoWinsPerFieldNewGroupsAndTombstones) {
    const std::tuple<const char*, std::optional<std::string>, const char*> cases[] = {
        // sync_state, pending; the row after
        {"pendingPush", R"({"name":true})", "Local|#000000|workspace|6|1717200000|1717286400|pendingPush|{name}"},
        {"pendingPush", {}, "Remote|#000000|workspace|6|1717200000|1717286400|synced|{}"},
    };
    for (const auto& [syncState, pending, expected] : cases) {
        const CaptureGroup local = seedGroup("Local", syncState, pending);
        store.applyRemoteGroup(object(remote(local.id, R"("name":"Remote","color_hex":"#000000","version":6,
            "updated_at":"2024-06-01T00:00:00Z","visibility":"workspace","workspace_id":"ws-1","archived_at":1717286400)")));
        EXPECT_EQ(cells("groups", local.id, "name, color_hex, visibility, version, updated_at, archived_at, sync_state, pending"),
                  expected);
        db().execute("DELETE FROM groups;");
    }
    const std::string id = newID();
    store.applyRemoteGroup(object(remote(id, R"("name":"New","archived_at":1717200000)")));
    EXPECT_EQ(cells("groups", id, "color_hex, visibility, path, archived_at, sync_state"), "#6E7BF2|private|NULL|1717200000|synced");
    // A tombstone takes the group; what it filed stays, ungrouped.
    const Capture filed = fileUnder(*store.group(id));
    store.applyRemoteGroup(object(remote(id, R"("name":"New","deleted_at":1717200000)")));
    EXPECT_FALSE(rowExists("groups", id));
    EXPECT_EQ(cells("captures", filed.id, "group_id"), "NULL");
}

TEST_F(RemoteGroups, MembersAndDropKeepsTheUsersOwnCaptures) {
    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u1"})"));
    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u2","removed_at":1717200000})"));
    EXPECT_EQ(store.groupMemberIDs("g"), std::vector<std::string>{"u1"});
    store.applyRemoteGroupMember(object(R"({"group_id":"g","user_id":"u2"})"));
    EXPECT_EQ(store.groupMemberIDs("g").size(), 2u);

    store.setSyncMeta("user_id", "me");
    const CaptureGroup group = seedGroup("Shared");
    const Capture mine = fileUnder(group, "me");
    fileUnder(group, "them");
    fileUnder(group);
    store.applyRemoteGroupMember(object(R"({"group_id":")" + group.id + R"(","user_id":"me"})"));
    store.dropGroup(group.id);
    EXPECT_TRUE(rowExists("captures", mine.id));
    EXPECT_EQ(countRows("captures"), 1);
    EXPECT_TRUE(rowExists("groups", group.id));
    EXPECT_TRUE(store.groupMemberIDs(group.id).empty());

    // Without a user id every capture is someone else's, and the empty group goes.
    store.setSyncMeta("user_id", std::nullopt);
    store.dropGroup(group.id);
    EXPECT_FALSE(rowExists("captures", mine.id) || rowExists("groups", group.id));
}

TEST_F(RemoteGroups, RemapFoldsIntoTheCanonicalGroupWhetherOrNotItIsHere) {
    // The canonical row is here: captures move, soft-deleted ones too, and the local row goes.
    const CaptureGroup canonical = seedGroup("Canonical"), local = seedGroup("Dup", "pendingPush", R"({"*":true})");
    const Capture live = fileUnder(local), deleted = fileUnder(local);
    setColumn(db(), "captures", deleted.id, "deleted_at", SQLValue(kSeedDate));
    store.remapGroup(local.id, canonical.id);
    EXPECT_FALSE(rowExists("groups", local.id));
    EXPECT_EQ(cells("captures", live.id, "group_id") + cells("captures", deleted.id, "group_id"), canonical.id + canonical.id);

    // Not here yet: the local row stands in under the canonical id, pushes
    // nothing, keeps its folder link, and the server's row later overwrites it.
    const CaptureGroup early = seedGroup("Checkout", "pendingPush", R"({"*":true})");
    const Capture filed = fileUnder(early);
    const std::string canonicalID = newID();
    store.remapGroup(early.id, canonicalID);
    EXPECT_FALSE(rowExists("groups", early.id));
    EXPECT_EQ(text("captures", filed.id, "group_id"), canonicalID);
    EXPECT_EQ(cells("groups", canonicalID, "sync_state, pending, path"), "synced|{}|/src/Checkout");
    store.applyRemoteGroup(object(remote(canonicalID, R"("name":"Checkout","color_hex":"#111111")")));
    EXPECT_EQ(text("groups", canonicalID, "color_hex"), "#111111");

    // The foreign key still holds for everything else in the library.
    EXPECT_THROW(db().execute("UPDATE captures SET group_id = 'nowhere' WHERE id = ?;", {SQLValue(filed.id)}),
                 DatabaseError);
    store.remapGroup(canonicalID, canonicalID);
    EXPECT_TRUE(rowExists("groups", canonicalID));
}

}  // namespace mirel::test
