#include "tests/sync/sync_fixture.h"

#include <fstream>

namespace mirel::test {

namespace {

class Adoption : public SyncStoreTest {
protected:
    // A local capture in a local group, with an image and a comment of each state.
    struct Local { Capture capture; CaptureImage image; Comment draft, synced; CaptureGroup group; };
    Local seedLocal(const std::optional<std::string>& author = std::nullopt) {
        Local l{makeCapture("Local"), {}, {}, {}, makeGroup("G" + newID())};
        l.capture.groupID = l.group.id, l.capture.authorID = author;
        l.image = makeImage(l.capture.id);
        l.draft = makeComment(l.capture.id, "Draft"), l.synced = makeComment(l.capture.id, "Old");
        l.synced.syncState = SyncState::synced;
        seedGroupRow(db(), l.group);
        seedCaptureRow(db(), l.capture);
        setColumn(db(), "captures", l.capture.id, "pending", SQLValue(R"({"note":true})"));
        seedImageRow(db(), l.image);
        for (const Comment* comment : {&l.draft, &l.synced}) seedComment(db(), *comment);
        return l;
    }
    // The states of everything a local capture brings along.
    std::string states(const Local& l) {
        return cells("captures", l.capture.id, "workspace_id, author_id, sync_state, pending") + " " +
               cells("capture_images", l.image.id, "sync_state, pending") + " " + cells("comments", l.draft.id, "sync_state") +
               " " + cells("comments", l.synced.id, "sync_state") + " " + cells("groups", l.group.id, "workspace_id, pending");
    }
};

}  // namespace

TEST_F(Adoption, AdoptThenGiveBack) {
    store.setSyncMeta("user_id", "me");
    const Local a = seedLocal(), b = seedLocal("author-b");
    store.adopt(a.capture.id, kWorkspace);
    store.adopt(b.capture.id, kWorkspace);
    EXPECT_EQ(states(a), "ws-1|me|pendingPush|{*} pendingPush|{*} pendingPush synced ws-1|{*}");
    EXPECT_EQ(text("captures", b.capture.id, "author_id"), "author-b");
    EXPECT_TRUE(store.localCaptures().empty());

    store.markLocalOnly(a.capture.id);
    EXPECT_EQ(states(a), "NULL|me|local|{} local|{} local local ws-1|{*}");
    EXPECT_EQ(store.localCaptures().size(), 1u);
}

TEST_F(Adoption, PurgeAndDropWorkspaceKeepWhatIsLocal) {
    const Local kept = seedLocal();
    store.recordActivity(kept.capture.id, "created", "", "you", "mine", kSeedDate, std::nullopt, false);
    store.recordActivity(kept.capture.id, "moved", "", "Grace", "theirs", kSeedDate, std::nullopt, true);
    const Capture shared = seedShared(), gone = seedShared();
    seedShared("Waiting", "pendingPush", R"({"note":true})");
    setColumn(db(), "captures", gone.id, "deleted_at", SQLValue(kSeedDate));
    const CaptureImage image = makeImage(shared.id);
    seedImageRow(db(), image);
    for (const auto& file : {image.originalURL(), *image.thumbURL()}) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "x";
    }
    Capture other = makeCapture("Other workspace");
    other.workspaceID = "ws-2";
    seedCaptureRow(db(), other);
    seedGroupRow(db(), makeGroup("Ours", std::string(kWorkspace)));
    seedGroupRow(db(), makeGroup("Theirs", std::string("ws-2")));
    store.setSyncMeta("cursor", "12");
    EXPECT_EQ(store.syncedCaptureIDs(), std::vector<std::string>{shared.id});

    store.dropWorkspace(kWorkspace);
    EXPECT_FALSE(rowExists("captures", shared.id) || rowExists("captures", gone.id));
    EXPECT_FALSE(std::filesystem::exists(image.originalURL()) || std::filesystem::exists(*image.thumbURL()));
    EXPECT_TRUE(rowExists("captures", other.id));
    EXPECT_EQ(countRows("groups WHERE workspace_id IS NOT NULL"), 1);

    store.purgeAccountData();
    store.purgeAccountData();  // safe to repeat
    EXPECT_FALSE(rowExists("captures", other.id) || rowExists("activity", "theirs"));
    EXPECT_TRUE(rowExists("captures", kept.capture.id) && rowExists("activity", "mine") && rowExists("groups", kept.group.id));
    EXPECT_EQ(store.syncMeta("cursor"), std::nullopt);
}

TEST_F(Adoption, TheLogKeepsItsLast501Lines) {
    for (int i = 1; i <= 600; ++i) store.log(i % 2 ? "info" : "warn", "line " + std::to_string(i));
    const auto lines = store.syncLog(1000);
    ASSERT_EQ(lines.size(), 501u);
    EXPECT_EQ(lines.front().level + " " + lines.front().message + ", " + lines.back().message, "warn line 600, line 100");
    EXPECT_TRUE(store.syncLog(0).empty());
}

}  // namespace mirel::test
