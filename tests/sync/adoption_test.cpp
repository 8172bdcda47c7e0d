#include "tests/sync/sync_fixture.h"

#include <fstream>

namespace mirel::test {

namespace {

class Adoption : public SyncStoreTest {
protected:
    // A local capture with an image, a comment of each state, and a local group.
    struct Local {
        Capture capture;
        CaptureImage image;
        Comment draft, synced;
        CaptureGroup group;
    };
    Local seedLocal(const std::optional<std::string>& author = std::nullopt) {
        Local l;
        l.group = makeGroup("G" + newID());
        seedGroupRow(db(), l.group);
        l.capture = makeCapture("Local");
        l.capture.groupID = l.group.id;
        l.capture.authorID = author;
        seedCaptureRow(db(), l.capture);
        setColumn(db(), "captures", l.capture.id, "pending", SQLValue(R"({"note":true})"));
        l.image = makeImage(l.capture.id);
        seedImageRow(db(), l.image);
        l.draft = makeComment(l.capture.id, "Draft");
        seedComment(db(), l.draft);
        l.synced = makeComment(l.capture.id, "Old");
        l.synced.syncState = SyncState::synced;
        seedComment(db(), l.synced);
        return l;
    }
};

}  // namespace

TEST_F(Adoption, AdoptThenGiveBack) {
    store.setSyncMeta("user_id", "me");
    const Local a = seedLocal();
    const Local b = seedLocal("author-b");
    store.adopt(a.capture.id, kWorkspace);
    store.adopt(b.capture.id, kWorkspace);
    EXPECT_EQ(text("captures", a.capture.id, "author_id"), "me");
    EXPECT_EQ(text("captures", b.capture.id, "author_id"), "author-b");
    EXPECT_EQ(pendingKeys("captures", a.capture.id), std::set<std::string>{"*"});
    EXPECT_EQ(pendingKeys("capture_images", a.image.id), std::set<std::string>{"*"});
    EXPECT_EQ(syncStateOf("comments", a.draft.id), "pendingPush");
    EXPECT_EQ(syncStateOf("comments", a.synced.id), "synced");
    EXPECT_EQ(text("groups", a.group.id, "workspace_id"), kWorkspace);
    EXPECT_EQ(pendingKeys("groups", a.group.id), std::set<std::string>{"*"});
    EXPECT_TRUE(store.localCaptures().empty());

    store.markLocalOnly(a.capture.id);
    EXPECT_EQ(text("captures", a.capture.id, "workspace_id"), std::nullopt);
    EXPECT_EQ(syncStateOf("capture_images", a.image.id), "local");
    EXPECT_EQ(syncStateOf("comments", a.draft.id), "local");
    EXPECT_EQ(syncStateOf("comments", a.synced.id), "local");
    EXPECT_EQ(store.localCaptures().size(), 1u);

    // Without a user id an unknown author stays unknown.
    store.setSyncMeta("user_id", std::nullopt);
    const Local c = seedLocal();
    store.adopt(c.capture.id, kWorkspace);
    EXPECT_EQ(text("captures", c.capture.id, "author_id"), std::nullopt);
}

TEST_F(Adoption, PurgeAndDropWorkspaceKeepWhatIsLocal) {
    const Local kept = seedLocal();
    seedActivity(db(), ActivityEvent{"mine", kept.capture.id, "created", "", "you", kSeedDate, {}, false});
    Capture shared = seedShared();
    CaptureImage image = makeImage(shared.id);
    seedImageRow(db(), image);
    for (const auto& file : {image.originalURL(), *image.thumbURL()}) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "x";
    }
    Capture gone = seedShared();
    setColumn(db(), "captures", gone.id, "deleted_at", SQLValue(kSeedDate));
    Capture other = makeCapture("Other workspace");
    other.workspaceID = "ws-2";
    seedCaptureRow(db(), other);
    seedActivity(db(), ActivityEvent{"theirs", kept.capture.id, "moved", "", "Grace", kSeedDate, {}, true});
    seedGroupRow(db(), makeGroup("Ours", std::string(kWorkspace)));
    seedGroupRow(db(), makeGroup("Theirs", std::string("ws-2")));
    store.setSyncMeta("cursor", "12");

    store.dropWorkspace(kWorkspace);
    EXPECT_FALSE(rowExists("captures", shared.id));
    EXPECT_FALSE(rowExists("captures", gone.id));
    EXPECT_FALSE(std::filesystem::exists(image.originalURL()) || std::filesystem::exists(*image.thumbURL()));
    EXPECT_TRUE(rowExists("captures", other.id));
    EXPECT_EQ(countRows("groups WHERE workspace_id IS NOT NULL"), 1);

    store.purgeAccountData();
    store.purgeAccountData();  // safe to repeat
    EXPECT_FALSE(rowExists("captures", other.id));
    EXPECT_TRUE(rowExists("captures", kept.capture.id));
    EXPECT_TRUE(rowExists("activity", "mine"));
    EXPECT_FALSE(rowExists("activity", "theirs"));
    EXPECT_TRUE(rowExists("groups", kept.group.id));
    EXPECT_EQ(store.syncMeta("cursor"), std::nullopt);
}

TEST_F(Adoption, SyncedCaptureIDsAndTheLog) {
    const Capture synced = seedShared();
    seedShared("Waiting", "pendingPush", R"({"note":true})");
    EXPECT_EQ(store.syncedCaptureIDs(), std::vector<std::string>{synced.id});

    for (int i = 1; i <= 600; ++i) store.log(i % 2 ? "info" : "warn", "line " + std::to_string(i));
    const auto lines = store.syncLog(1000);
    ASSERT_EQ(lines.size(), 501u);
    EXPECT_EQ(lines.front().message, "line 600");
    EXPECT_EQ(lines.back().message, "line 100");
    EXPECT_EQ(lines.front().level, "warn");
    EXPECT_TRUE(store.syncLog(0).empty());
}

}  // namespace mirel::test
