// Filing, editing and the lifecycle of captures: what each write stores, what
// it leaves waiting for the server, and the history line it adds.
#include "core/store/mirel_paths.h"
#include "tests/store/store_fixture.h"

#include <filesystem>
#include <fstream>
#include <functional>

namespace mirel::test {
namespace {

TEST_F(StoreTest, InsertDecidesWhetherACaptureIsBornShared) {
    const std::tuple<std::optional<std::string>, bool, std::optional<std::string>, const char*> rows[] = {
        {"ws-1", false, std::nullopt, "ws-1 me pendingPush {*}"},
        {std::nullopt, false, "ws-2", "ws-2 me pendingPush {*}"},
        {"ws-1", false, "ws-2", "ws-1 me pendingPush {*}"},
        {std::nullopt, true, "ws-2", "NULL me local {}"},
        {"ws-1", true, std::nullopt, "ws-1 me local {}"},
        {std::nullopt, false, std::nullopt, "NULL me local {}"},  // the default set above is gone
    };
    store.setSyncMeta("user_id", "me");
    for (const auto& [workspace, localOnly, defaultWorkspace, expected] : rows) {
        store.setSyncMeta("default_workspace_id", defaultWorkspace);
        Capture c = makeCapture("note", kSeedDate, workspace.has_value());
        c.workspaceID = workspace;
        c.localOnly = localOnly;
        store.insert(c);
        EXPECT_EQ(cell("captures", c.id, "workspace_id") + " " + cell("captures", c.id, "author_id") + " " + pending("captures", c.id),
                  expected);
        const auto history = store.activity(c.id);
        ASSERT_EQ(history.size(), 1u);
        EXPECT_EQ(history[0].kind + ":" + history[0].detail + ":" + history[0].actor + ":" + *history[0].actorID,
                  workspace ? "created:Region:you:me" : "created:no screenshot:you:me");
    }
}

TEST_F(StoreTest, InsertStoresEveryFieldAndAFailedInsertLeavesNothing) {
    Capture c = makeCapture("Title\nBody");
    c.status = CaptureStatus::resolved, c.priority = CapturePriority::high, c.captureMode = CaptureMode::window;
    c.appName = "Safari", c.appBundleID = "com.apple.Safari", c.windowTitle = "Checkout", c.url = "https://x.test";
    c.displayName = "Built-in", c.displayScale = 2.0, c.claimedBy = "claude", c.claimedAt = 1.5, c.resolvedAt = 2.5;
    c.resolutionRef = "abc123", c.remoteID = "r-1", c.authorID = "a-1", c.assigneeID = "b-1", c.claimedByID = "c-1";
    c.version = 9, c.dirty = true;
    store.insert(c);
    EXPECT_EQ(store.rawCapture(c.id), c);
    Capture again = c, orphan = makeCapture();
    orphan.groupID = "no-such-group";
    EXPECT_THROW(store.insert(again), DatabaseError);
    EXPECT_THROW(store.insert(orphan), DatabaseError);
    EXPECT_EQ(cell("captures", orphan.id, "id") + " " + cell("activity", store.activity(c.id).at(0).id, "kind"), "NULL created");
    EXPECT_EQ(raw.query("SELECT COUNT(*) AS n FROM activity;").at(0).intValue("n"), 1);
}

TEST_F(StoreTest, UpdateMarksExactlyTheFieldsThatChanged) {
    const std::pair<std::function<void(Capture&)>, const char*> rows[] = {
        {[](Capture&) {}, "synced {}"},
        {[](Capture& c) { c.thumbPath = "other.png", c.imagePath = "x.png", c.version = 7, c.workspaceID = "w"; },
         "synced {}"},
        {[](Capture& c) {
             c.note = "n", c.status = CaptureStatus::archived, c.priority = CapturePriority::low, c.appName = "";
             c.appBundleID = "b", c.windowTitle = "w", c.url = "u", c.claimedBy = "l", c.claimedByID = "i";
             c.claimedAt = 1.0, c.resolvedAt = 2.0, c.resolutionRef = "r", c.assigneeID = "a", c.deletedAt = 3.0;
             c.groupID = "g1";
         },
         "pendingPush {app_bundle_id app_name assignee_id claimed_at claimed_by_id claimed_label delete group_id note priority "
         "resolution_ref resolved_at status url window_title}"},
    };
    CaptureGroup group;
    group.id = "g1";
    store.upsertGroup(group);
    for (const auto& [change, expected] : rows) {
        Capture c = filed("note", true);
        c.appName = "Editor";
        raw.execute("UPDATE captures SET app_name = 'Editor' WHERE id = ?;", {c.id});
        change(c);
        store.update(c);
        EXPECT_EQ(pending("captures", c.id), expected);
        EXPECT_EQ(cell("captures", c.id, "dirty") + " " + cell("captures", c.id, "updated_at"), "1 1717000000");
        // What the update may not touch stays as filed.
        EXPECT_EQ(cell("captures", c.id, "image_path") + cell("captures", c.id, "version") + cell("captures", c.id, "workspace_id"),
                  "2024/05/" + c.id + ".png1ws");
    }
    // A capture deleted already is not deleted again.
    Capture gone = filed("gone", true);
    gone.deletedAt = 5.0;
    store.update(gone);
    store.markSynced("captures", gone.id, 2);
    gone.deletedAt = 6.0;
    store.update(gone);
    EXPECT_EQ(pending("captures", gone.id), "synced {}");
}

// Each row starts from a shared capture in progress, claimed by "earlier"
// (id "e-1") at 10, resolved at 20 with "old-ref" and assigned to "bob".
TEST_F(StoreTest, LifecycleStepsChangeTheirFieldsAndLeaveOneLine) {
    using Step = std::function<std::optional<Capture>(CaptureStore&, const std::string&)>;
    const auto to = [](CaptureStatus s) { return [s](CaptureStore& st, const std::string& id) { return st.setStatus(id, s, "Ada"); }; };
    const std::pair<Step, const char*> rows[] = {
        {to(CaptureStatus::open), "open - - e-1 - old-ref bob | status_changed:In Progress → Open:Ada | "
                                  "pendingPush {claimed_at claimed_label resolved_at status}"},
        {to(CaptureStatus::inProgress), "in_progress earlier 10 e-1 - old-ref bob | status_changed:In Progress → In Progress:Ada | "
                                        "pendingPush {resolved_at}"},
        {to(CaptureStatus::resolved), "resolved earlier 10 e-1 now old-ref bob | status_changed:In Progress → Resolved:Ada | "
                                      "pendingPush {resolved_at status}"},
        {to(CaptureStatus::archived), "archived earlier 10 e-1 - old-ref bob | status_changed:In Progress → Archived:Ada | "
                                      "pendingPush {resolved_at status}"},
        {[](CaptureStore& s, const std::string& id) { return s.resolve(id, "abc123", "Ada"); },
         "resolved earlier 10 e-1 now abc123 bob | resolved:abc123:Ada | pendingPush {resolution_ref resolved_at status}"},
        {[](CaptureStore& s, const std::string& id) { return s.resolve(id, std::nullopt, "Ada"); },
         "resolved earlier 10 e-1 now - bob | resolved::Ada | pendingPush {resolution_ref resolved_at status}"},
        {[](CaptureStore& s, const std::string& id) { return s.claim(id, "claude"); },
         "in_progress claude now me 20 old-ref bob | claimed::claude | pendingPush {claimed_at claimed_by_id claimed_label}"},
        {[](CaptureStore& s, const std::string& id) { return s.assign(id, std::nullopt, "Ada"); },
         "in_progress earlier 10 e-1 20 old-ref - | assigned::Ada | pendingPush {assignee_id}"},
    };
    store.setSyncMeta("user_id", "me");
    const auto time = [](std::optional<Date> d) { return !d ? "-" : *d == kNow ? "now" : std::to_string(int(*d)); };
    for (const auto& [step, expected] : rows) {
        Capture c = filed("note", true);
        c.status = CaptureStatus::inProgress, c.claimedBy = "earlier", c.claimedByID = "e-1", c.claimedAt = 10.0;
        c.resolvedAt = 20.0, c.resolutionRef = "old-ref", c.assigneeID = "bob";
        store.update(c);
        store.markSynced("captures", c.id, 2);
        raw.execute("DELETE FROM activity;");
        const auto after = step(store, c.id);
        ASSERT_TRUE(after);
        EXPECT_EQ(after, store.capture(c.id));
        const auto history = store.activity(c.id);
        ASSERT_EQ(history.size(), 1u);
        EXPECT_EQ(std::string(rawValue(after->status)) + " " + after->claimedBy.value_or("-") + " " + time(after->claimedAt) + " " +
                      after->claimedByID.value_or("-") + " " + time(after->resolvedAt) + " " + after->resolutionRef.value_or("-") +
                      " " + after->assigneeID.value_or("-") + " | " + history[0].kind + ":" + history[0].detail + ":" +
                      history[0].actor + " | " + pending("captures", c.id),
                  expected);
    }
    // Claiming open work starts it and assigns it to the signed-in person.
    const Capture open = filed();
    EXPECT_EQ(store.claim(open.id, "claude")->status, CaptureStatus::inProgress);
    EXPECT_EQ(store.capture(open.id)->assigneeID, "me");
    // Missing and deleted captures have no lifecycle.
    store.softDelete(open.id);
    for (const std::string& id : {std::string("no-such-id"), open.id}) {
        EXPECT_FALSE(store.setStatus(id, CaptureStatus::resolved, "you"));
        EXPECT_FALSE(store.claim(id, "claude") || store.resolve(id, "r", "you") || store.assign(id, "bob", "you"));
    }
}

TEST_F(StoreTest, SoftDeleteRemovesTheFilesAndKeepsATombstone) {
    const Capture c = filed("doomed", true), cover = filed("a cover without image rows");
    CaptureImage image = makeImage(c.id);
    image.annotatedPath = "2024/05/marked.png";
    store.addImage(image);
    store.addComment(makeComment(c.id, "hi"));
    for (const auto& file : {image.originalURL(), image.displayURL(), *image.thumbURL(), cover.imageURL(), *cover.thumbURL()}) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "x";
    }
    store.softDelete(c.id);
    store.softDelete(cover.id);
    for (const auto& file : {image.originalURL(), image.displayURL(), *image.thumbURL(), cover.imageURL(), *cover.thumbURL()})
        EXPECT_FALSE(std::filesystem::exists(file)) << file;
    EXPECT_FALSE(store.capture(c.id) || store.resolveCaptureID(c.id));
    EXPECT_EQ(store.rawCapture(c.id)->deletedAt, kNow);
    EXPECT_EQ(pending("captures", c.id) + " " + cell("capture_images", image.id, "id") + " " + std::to_string(store.comments(c.id).size()),
              "pendingPush {delete} " + image.id + " 1");
    EXPECT_TRUE(std::filesystem::is_directory(MirelPaths::capturesRoot()));
}

}  // namespace
}  // namespace mirel::test
