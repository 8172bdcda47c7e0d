// Groups: lookup by name and folder, the namesake rule, and deleting.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

TEST_F(StoreTest, GroupsAreFoundByNameAndFolder) {
    CaptureGroup beta = makeGroup("beta"), alpha = makeGroup("Alpha"), gamma = makeGroup("gamma");
    beta.path = "/work/shop", alpha.path = "/work/shop/api/", gamma.path = "";
    for (const auto& g : {beta, alpha, gamma}) store.upsertGroup(g);
    store.setSyncMeta("default_workspace_id", "ws");
    const CaptureGroup inWorkspace = store.upsertGroup(makeGroup("beta"));  // the same name in a workspace is another group
    std::string names;
    for (const auto& g : store.groups()) names += g.name + "@" + g.workspaceID.value_or("-") + " ";
    EXPECT_EQ(names, "Alpha@- beta@- beta@ws gamma@- ");
    EXPECT_EQ(store.groupNamed("BETA", std::nullopt)->id, beta.id);
    EXPECT_EQ(store.groupNamed("beta", "ws")->id, inWorkspace.id);
    EXPECT_FALSE(store.groupNamed("alpha", "ws"));
    const std::pair<const char*, std::string> folders[] = {
        {"/work/shop", beta.id}, {"/work/shop/web/x.ts", beta.id}, {"/work/shop/api", beta.id}, {"/work/shop/api/v1", alpha.id},
        {"/work/shopping", ""}, {"", ""},
    };
    for (const auto& [path, id] : folders) EXPECT_EQ(store.groupMatchingPath(path).value_or(CaptureGroup{}).id, id) << path;
}

TEST_F(StoreTest, UpsertingAndDeletingGroups) {
    store.setSyncMeta("user_id", "me");
    const CaptureGroup local = store.upsertGroup(makeGroup("Design")), namesake = makeGroup("DESIGN");
    EXPECT_EQ(local.createdBy, "me");
    EXPECT_EQ(store.upsertGroup(namesake).id, local.id);  // a namesake gives the one that stands
    EXPECT_FALSE(store.group(namesake.id));
    store.setSyncMeta("default_workspace_id", "ws");
    const CaptureGroup shared = store.upsertGroup(makeGroup("Shared"));
    EXPECT_EQ(shared.workspaceID.value_or("-") + " " + pending("groups", shared.id), "ws pendingPush {*}");
    store.markSynced("groups", shared.id, 4);
    CaptureGroup renamed = shared;
    renamed.name = "Shared work";
    store.upsertGroup(renamed);
    EXPECT_EQ(pending("groups", shared.id) + " " + cell("groups", shared.id, "version"), "pendingPush {archived_at color_hex name} 4");
    EXPECT_EQ(pending("groups", local.id), "local {}");

    Capture filedThere = makeCapture();
    filedThere.groupID = local.id;
    store.insert(filedThere);
    store.deleteGroup(local.id);  // local: gone, its captures stay filed
    store.deleteGroup(shared.id);  // shared: archived so the change can travel
    EXPECT_EQ(cell("groups", local.id, "deleted_at") + " " + cell("groups", shared.id, "archived_at") + " " +
                  cell("groups", shared.id, "deleted_at") + " " + pending("groups", shared.id),
              "1717000000 1717000000 NULL pendingPush {archived_at color_hex name}");
    EXPECT_TRUE(store.groups().empty());
    EXPECT_EQ(store.capture(filedThere.id)->groupID, local.id);
}

}  // namespace
}  // namespace mirel::test
