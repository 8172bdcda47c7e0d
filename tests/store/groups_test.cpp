// Groups: lookup by name and folder, the namesake rule, and deleting.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

CaptureGroup group(const std::string& id, const std::string& name, std::optional<std::string> path = std::nullopt) {
    CaptureGroup g;
    g.id = id;
    g.name = name;
    g.path = std::move(path);
    return g;
}

TEST_F(StoreTest, GroupsAreFoundByNameAndFolder) {
    store.upsertGroup(group("g-b", "beta", "/work/shop"));
    store.upsertGroup(group("g-a", "Alpha", "/work/shop/api/"));
    store.upsertGroup(group("g-c", "gamma", ""));
    store.setSyncMeta("default_workspace_id", "ws");
    store.upsertGroup(group("g-w", "beta"));  // the same name in a workspace is another group
    std::string names;
    for (const auto& g : store.groups()) names += g.name + "@" + g.workspaceID.value_or("-") + " ";
    EXPECT_EQ(names, "Alpha@- beta@- beta@ws gamma@- ");
    EXPECT_EQ(store.groupNamed("BETA", std::nullopt)->id, "g-b");
    EXPECT_EQ(store.groupNamed("beta", "ws")->id, "g-w");
    EXPECT_FALSE(store.groupNamed("alpha", "ws"));
    const std::pair<const char*, const char*> folders[] = {
        {"/work/shop", "g-b"}, {"/work/shop/web/x.ts", "g-b"}, {"/work/shop/api", "g-b"}, {"/work/shop/api/v1", "g-a"},
        {"/work/shopping", "-"}, {"", "-"},
    };
    for (const auto& [path, id] : folders) EXPECT_EQ(store.groupMatchingPath(path).value_or(group("-", "")).id, id) << path;
}

TEST_F(StoreTest, UpsertingAndDeletingGroups) {
    store.setSyncMeta("user_id", "me");
    const CaptureGroup local = store.upsertGroup(group("g-1", "Design"));
    EXPECT_EQ(local.createdBy, "me");
    EXPECT_EQ(store.upsertGroup(group("g-2", "DESIGN")).id, "g-1");  // a namesake gives the one that stands
    EXPECT_FALSE(store.group("g-2"));
    store.setSyncMeta("default_workspace_id", "ws");
    const CaptureGroup shared = store.upsertGroup(group("g-3", "Shared"));
    EXPECT_EQ(shared.workspaceID, "ws");
    EXPECT_EQ(pending("groups", "g-3"), "pendingPush {*}");
    store.markSynced("groups", "g-3", 4);
    CaptureGroup renamed = shared;
    renamed.name = "Shared work";
    store.upsertGroup(renamed);
    EXPECT_EQ(pending("groups", "g-3") + " " + cell("groups", "g-3", "version"), "pendingPush {archived_at color_hex name} 4");
    EXPECT_EQ(pending("groups", "g-1"), "local {}");

    Capture filedThere = makeCapture();
    filedThere.groupID = "g-1";
    store.insert(filedThere);
    store.deleteGroup("g-1");  // local: gone, its captures stay filed
    store.deleteGroup("g-3");  // shared: archived so the change can travel
    EXPECT_EQ(cell("groups", "g-1", "deleted_at") + " " + cell("groups", "g-3", "archived_at") + " " +
                  cell("groups", "g-3", "deleted_at") + " " + pending("groups", "g-3"),
              "1717000000 1717000000 NULL pendingPush {archived_at color_hex name}");
    EXPECT_TRUE(store.groups().empty());
    EXPECT_EQ(store.capture(filedThere.id)->groupID, "g-1");
}

}  // namespace
}  // namespace mirel::test
