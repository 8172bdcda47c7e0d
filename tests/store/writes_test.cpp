// Creating captures, writing them back, and the lifecycle: what each write
// stores, what it enters in the ledger, and what history it leaves.
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/dbus_session.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>

namespace mirel {
namespace {

using test::makeCapture;
using Fields = std::set<std::string>;

constexpr Date kNow = 1717000000.5;

class WritesTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(kNow); }
    void TearDown() override { Clock::pin(std::nullopt); }
    Database& db() { return CaptureStoreTestAccess::database(store); }

    // A capture of workspace "ws-1" as it stands after a sync: nothing waiting.
    Capture seedShared(const std::string& note = "note") {
        Capture c = makeCapture(note);
        c.workspaceID = "ws-1";
        c.syncState = SyncState::synced;
        test::seedCaptureRow(db(), c);
        return c;
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
};

// ---- insert ----

struct SharingCase {
    const char* name;
    std::optional<std::string> workspace;
    bool localOnly;
    std::optional<std::string> defaultWorkspace;
    std::optional<std::string> storedWorkspace;
    bool bornShared;
};

class InsertSharingTest : public WritesTest, public ::testing::WithParamInterface<SharingCase> {};

TEST_P(InsertSharingTest, DecidesWhetherTheCaptureIsBornShared) {
    const SharingCase& param = GetParam();
    if (param.defaultWorkspace) store.setSyncMeta("default_workspace_id", param.defaultWorkspace);
    Capture c = makeCapture();
    c.workspaceID = param.workspace;
    c.localOnly = param.localOnly;
    store.insert(c);

    EXPECT_EQ(test::readText(db(), "captures", c.id, "workspace_id"), param.storedWorkspace);
    if (param.bornShared) {
        EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "pendingPush");
        EXPECT_EQ(test::readColumn(db(), "captures", c.id, "dirty"), SQLValue(1));
        EXPECT_EQ(test::readText(db(), "captures", c.id, "pending"), "{\"*\":true}");
    } else {
        EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "local");
        EXPECT_EQ(test::readColumn(db(), "captures", c.id, "dirty"), SQLValue(0));
        EXPECT_FALSE(test::readText(db(), "captures", c.id, "pending"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Insert, InsertSharingTest,
    ::testing::Values(
        SharingCase{"NoWorkspace", std::nullopt, false, std::nullopt, std::nullopt, false},
        SharingCase{"OwnWorkspace", std::string("ws-1"), false, std::nullopt, std::string("ws-1"), true},
        SharingCase{"DefaultWorkspace", std::nullopt, false, std::string("ws-2"), std::string("ws-2"), true},
        SharingCase{"OwnBeatsDefault", std::string("ws-1"), false, std::string("ws-2"), std::string("ws-1"), true},
        SharingCase{"LocalOnlyIgnoresDefault", std::nullopt, true, std::string("ws-2"), std::nullopt, false},
        SharingCase{"LocalOnlyKeepsOwn", std::string("ws-1"), true, std::nullopt, std::string("ws-1"), false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WritesTest, InsertStoresEveryColumnAndReadsBackEqual) {
    Capture c = makeCapture("Title\nBody");
    c.updatedAt = test::kSeedDate + 5;
    c.status = CaptureStatus::resolved;
    c.priority = CapturePriority::high;
    c.captureMode = CaptureMode::window;
    c.appName = "Safari";
    c.appBundleID = "com.apple.Safari";
    c.windowTitle = "Checkout";
    c.url = "https://example.com/cart";
    c.displayName = "Built-in Retina Display";
    c.displayScale = 2.0;
    c.claimedBy = "claude";
    c.claimedAt = test::kSeedDate + 1;
    c.resolvedAt = test::kSeedDate + 2;
    c.resolutionRef = "abc123";
    c.remoteID = "r-1";
    c.deletedAt = std::nullopt;
    c.authorID = "author-1";
    c.assigneeID = "assignee-1";
    c.claimedByID = "claimer-1";
    c.version = 9;
    c.dirty = true;
    CaptureGroup g = test::makeGroup("Checkout");
    test::seedGroupRow(db(), g);
    c.groupID = g.id;

    store.insert(c);
    EXPECT_EQ(store.rawCapture(c.id), c);
}

TEST_F(WritesTest, InsertTakesTheAuthorFromTheSignedInUser) {
    store.setSyncMeta("user_id", "user-1");
    Capture mine = makeCapture();
    store.insert(mine);
    Capture theirs = makeCapture();
    theirs.authorID = "user-2";
    store.insert(theirs);
    EXPECT_EQ(test::readText(db(), "captures", mine.id, "author_id"), "user-1");
    EXPECT_EQ(test::readText(db(), "captures", theirs.id, "author_id"), "user-2");
}

TEST_F(WritesTest, InsertWritesTheCreatedLine) {
    store.setSyncMeta("user_id", "user-1");
    Capture shot = makeCapture();
    shot.captureMode = CaptureMode::fullscreen;
    Capture text = makeCapture("text", test::kSeedDate, false);
    text.captureMode = CaptureMode::region;  // the mode does not matter without an image
    store.insert(shot);
    store.insert(text);

    const auto shotHistory = store.activity(shot.id);
    ASSERT_EQ(shotHistory.size(), 1u);
    EXPECT_EQ(shotHistory[0].kind, "created");
    EXPECT_EQ(shotHistory[0].detail, "Full Screen");
    EXPECT_EQ(shotHistory[0].actor, "you");
    EXPECT_EQ(shotHistory[0].actorID, "user-1");
    EXPECT_EQ(shotHistory[0].createdAt, kNow);
    EXPECT_FALSE(shotHistory[0].remote);

    const auto textHistory = store.activity(text.id);
    ASSERT_EQ(textHistory.size(), 1u);
    EXPECT_EQ(textHistory[0].detail, "no screenshot");
}

TEST_F(WritesTest, InsertOfAnExistingIdRollsBackWhole) {
    Capture c = makeCapture("first");
    store.insert(c);
    Capture again = c;
    again.note = "second";
    EXPECT_THROW(store.insert(again), DatabaseError);
    EXPECT_EQ(store.capture(c.id)->note, "first");
    EXPECT_EQ(store.activity(c.id).size(), 1u);
}

TEST_F(WritesTest, InsertWithAnUnknownGroupFailsAtTheForeignKey) {
    Capture c = makeCapture();
    c.groupID = "no-such-group";
    EXPECT_THROW(store.insert(c), DatabaseError);
    EXPECT_FALSE(test::rowExists(db(), "captures", c.id));
    EXPECT_EQ(test::countRows(db(), "SELECT COUNT(*) AS n FROM activity;"), 0);
}

// ---- update ----

struct UpdateCase {
    const char* name;
    std::function<void(Capture&)> change;
    Fields marked;
};

class UpdateLedgerTest : public WritesTest, public ::testing::WithParamInterface<UpdateCase> {};

TEST_P(UpdateLedgerTest, MarksExactlyTheChangedFields) {
    Capture c = seedShared();
    c.appName = "Safari";
    c.deletedAt = std::nullopt;
    test::setColumn(db(), "captures", c.id, "app_name", SQLValue("Safari"));
    GetParam().change(c);
    store.update(c);

    const Fields expected = GetParam().marked;
    EXPECT_EQ(test::pendingKeys(db(), "captures", c.id), expected);
    EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), expected.empty() ? "synced" : "pendingPush");
    // Whatever changed, the row is dirty and its time moved.
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "dirty"), SQLValue(1));
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "updated_at"), SQLValue(kNow));
}

INSTANTIATE_TEST_SUITE_P(
    Update, UpdateLedgerTest,
    ::testing::Values(
        UpdateCase{"Nothing", [](Capture&) {}, {}},
        UpdateCase{"Note", [](Capture& c) { c.note = "other"; }, {"note"}},
        UpdateCase{"Status", [](Capture& c) { c.status = CaptureStatus::archived; }, {"status"}},
        UpdateCase{"Priority", [](Capture& c) { c.priority = CapturePriority::low; }, {"priority"}},
        UpdateCase{"AppNameToEmpty", [](Capture& c) { c.appName = ""; }, {"app_name"}},
        UpdateCase{"AppNameToAbsent", [](Capture& c) { c.appName.reset(); }, {"app_name"}},
        UpdateCase{"BundleID", [](Capture& c) { c.appBundleID = "com.x"; }, {"app_bundle_id"}},
        UpdateCase{"WindowTitle", [](Capture& c) { c.windowTitle = ""; }, {"window_title"}},
        UpdateCase{"URL", [](Capture& c) { c.url = "https://x"; }, {"url"}},
        UpdateCase{"ClaimedBy", [](Capture& c) { c.claimedBy = "claude"; }, {"claimed_label"}},
        UpdateCase{"ClaimedByID", [](Capture& c) { c.claimedByID = "u"; }, {"claimed_by_id"}},
        UpdateCase{"ClaimedAt", [](Capture& c) { c.claimedAt = 5.0; }, {"claimed_at"}},
        UpdateCase{"ResolvedAt", [](Capture& c) { c.resolvedAt = 5.0; }, {"resolved_at"}},
        UpdateCase{"ResolutionRef", [](Capture& c) { c.resolutionRef = "abc"; }, {"resolution_ref"}},
        UpdateCase{"Assignee", [](Capture& c) { c.assigneeID = "u"; }, {"assignee_id"}},
        UpdateCase{"Deleted", [](Capture& c) { c.deletedAt = 5.0; }, {"delete"}},
        UpdateCase{"ThumbOnly", [](Capture& c) { c.thumbPath = "other.png"; }, {}},
        UpdateCase{"Several",
                   [](Capture& c) {
                       c.note = "n";
                       c.status = CaptureStatus::resolved;
                       c.resolvedAt = 9.0;
                   },
                   {"note", "status", "resolved_at"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WritesTest, UpdateOfAnAlreadyDeletedCaptureDoesNotMarkDeleteAgain) {
    Capture c = makeCapture();
    c.workspaceID = "ws-1";
    c.syncState = SyncState::synced;
    c.deletedAt = 100.0;
    test::seedCaptureRow(db(), c);
    c.deletedAt = 200.0;
    store.update(c);
    EXPECT_TRUE(test::pendingKeys(db(), "captures", c.id).empty());
    EXPECT_EQ(test::readColumn(db(), "captures", c.id, "deleted_at"), SQLValue(200.0));
}

TEST_F(WritesTest, UpdateLeavesSyncColumnsAndImagesAlone) {
    Capture c = seedShared();
    Capture changed = c;
    changed.imagePath = "elsewhere.png";
    changed.imageWidth = 1;
    changed.captureMode = CaptureMode::text;
    changed.workspaceID = "ws-9";
    changed.version = 42;
    changed.syncState = SyncState::local;
    store.update(changed);
    const Capture stored = *store.capture(c.id);
    EXPECT_EQ(stored.imagePath, c.imagePath);
    EXPECT_EQ(stored.imageWidth, c.imageWidth);
    EXPECT_EQ(stored.captureMode, c.captureMode);
    EXPECT_EQ(stored.workspaceID, "ws-1");
    EXPECT_EQ(stored.version, c.version);
    EXPECT_EQ(stored.syncState, SyncState::synced);
}

TEST_F(WritesTest, UpdateOfAnUnknownIdWritesNothing) {
    Capture ghost = makeCapture();
    EXPECT_NO_THROW(store.update(ghost));
    EXPECT_FALSE(test::rowExists(db(), "captures", ghost.id));
}

// ---- lifecycle ----

struct LifecycleCase {
    const char* name;
    std::function<std::optional<Capture>(CaptureStore&, const std::string&)> act;
    CaptureStatus status;
    // What became of the claim and resolution fields, seeded all present.
    bool keepsClaimedBy, keepsClaimedAt, resolvedNow, resolvedCleared;
    std::optional<std::string> resolutionRef;
    std::optional<std::string> assignee;
    const char* kind;
    const char* detail;
    const char* actor;
};

class LifecycleTest : public WritesTest, public ::testing::WithParamInterface<LifecycleCase> {};

TEST_P(LifecycleTest, ChangesTheListedFieldsAndLeavesOneLine) {
    const LifecycleCase& param = GetParam();
    store.setSyncMeta("user_id", "me");
    Capture c = makeCapture();
    c.status = CaptureStatus::inProgress;
    c.claimedBy = "earlier";
    c.claimedByID = "earlier-id";
    c.claimedAt = 10.0;
    c.resolvedAt = 20.0;
    c.resolutionRef = "old-ref";
    c.assigneeID = "assignee";
    test::seedCaptureRow(db(), c);

    const std::optional<Capture> result = param.act(store, c.id);
    ASSERT_TRUE(result);
    EXPECT_EQ(result, store.capture(c.id));
    EXPECT_EQ(result->status, param.status);
    if (param.keepsClaimedBy) { EXPECT_EQ(result->claimedBy, "earlier"); }
    if (param.keepsClaimedAt) { EXPECT_EQ(result->claimedAt, 10.0); }
    if (param.resolvedNow) { EXPECT_EQ(result->resolvedAt, kNow); }
    if (param.resolvedCleared) { EXPECT_FALSE(result->resolvedAt); }
    EXPECT_EQ(result->resolutionRef, param.resolutionRef);
    EXPECT_EQ(result->assigneeID, param.assignee);

    const auto history = store.activity(c.id);
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0].kind, param.kind);
    EXPECT_EQ(history[0].detail, param.detail);
    EXPECT_EQ(history[0].actor, param.actor);
    EXPECT_EQ(history[0].actorID, "me");
}

const auto setTo = [](CaptureStatus status) {
    return [status](CaptureStore& s, const std::string& id) { return s.setStatus(id, status, "Ada"); };
};

INSTANTIATE_TEST_SUITE_P(
    Lifecycle, LifecycleTest,
    ::testing::Values(
        LifecycleCase{"ReopenClearsClaimLabelAndTime", setTo(CaptureStatus::open), CaptureStatus::open, false, false,
                      false, true, std::string("old-ref"), std::string("assignee"), "status_changed",
                      "In Progress \u2192 Open", "Ada"},
        LifecycleCase{"InProgress", setTo(CaptureStatus::inProgress), CaptureStatus::inProgress, true, true, false,
                      true, std::string("old-ref"), std::string("assignee"), "status_changed",
                      "In Progress \u2192 In Progress", "Ada"},
        LifecycleCase{"Resolved", setTo(CaptureStatus::resolved), CaptureStatus::resolved, true, true, true, false,
                      std::string("old-ref"), std::string("assignee"), "status_changed",
                      "In Progress \u2192 Resolved", "Ada"},
        LifecycleCase{"Archived", setTo(CaptureStatus::archived), CaptureStatus::archived, true, true, false, true,
                      std::string("old-ref"), std::string("assignee"), "status_changed",
                      "In Progress \u2192 Archived", "Ada"},
        LifecycleCase{"Resolve",
                      [](CaptureStore& s, const std::string& id) { return s.resolve(id, "abc123", "Ada"); },
                      CaptureStatus::resolved, true, true, true, false, std::string("abc123"),
                      std::string("assignee"), "resolved", "abc123", "Ada"},
        LifecycleCase{"ResolveWithoutReference",
                      [](CaptureStore& s, const std::string& id) { return s.resolve(id, std::nullopt, "Ada"); },
                      CaptureStatus::resolved, true, true, true, false, std::nullopt, std::string("assignee"),
                      "resolved", "", "Ada"},
        LifecycleCase{"Assign",
                      [](CaptureStore& s, const std::string& id) { return s.assign(id, "bob", "Ada"); },
                      CaptureStatus::inProgress, true, true, false, false, std::string("old-ref"),
                      std::string("bob"), "assigned", "bob", "Ada"},
        LifecycleCase{"Unassign",
                      [](CaptureStore& s, const std::string& id) { return s.assign(id, std::nullopt, "Ada"); },
                      CaptureStatus::inProgress, true, true, false, false, std::string("old-ref"), std::nullopt,
                      "assigned", "", "Ada"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WritesTest, ClaimOverwritesTheClaimantAndStartsOpenWork) {
    store.setSyncMeta("user_id", "me");
    Capture open = makeCapture();
    test::seedCaptureRow(db(), open);
    Capture resolved = makeCapture();
    resolved.status = CaptureStatus::resolved;
    resolved.claimedBy = "earlier";
    resolved.claimedByID = "earlier-id";
    resolved.assigneeID = "someone";
    test::seedCaptureRow(db(), resolved);

    const auto first = store.claim(open.id, "claude");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, CaptureStatus::inProgress);
    EXPECT_EQ(first->claimedBy, "claude");
    EXPECT_EQ(first->claimedByID, "me");
    EXPECT_EQ(first->claimedAt, kNow);
    EXPECT_EQ(first->assigneeID, "me");

    const auto second = store.claim(resolved.id, "claude");
    ASSERT_TRUE(second);
    EXPECT_EQ(second->status, CaptureStatus::resolved);
    EXPECT_EQ(second->claimedBy, "claude");
    EXPECT_EQ(second->claimedByID, "me");
    EXPECT_EQ(second->assigneeID, "someone");

    const auto history = store.activity(open.id);
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0].kind, "claimed");
    EXPECT_EQ(history[0].detail, "");
    EXPECT_EQ(history[0].actor, "claude");
}

TEST_F(WritesTest, ClaimWithoutSignedInUserClearsTheClaimantID) {
    Capture c = makeCapture();
    c.claimedByID = "earlier-id";
    test::seedCaptureRow(db(), c);
    const auto claimed = store.claim(c.id, "claude");
    ASSERT_TRUE(claimed);
    EXPECT_FALSE(claimed->claimedByID);
    EXPECT_FALSE(claimed->assigneeID);
}

TEST_F(WritesTest, ClaimMarksTheClaimFieldsOfASharedCapture) {
    store.setSyncMeta("user_id", "me");
    const Capture c = seedShared();
    store.claim(c.id, "claude");
    EXPECT_EQ(test::pendingKeys(db(), "captures", c.id),
              (Fields{"status", "claimed_label", "claimed_by_id", "claimed_at", "assignee_id"}));
}

TEST_F(WritesTest, LifecycleOfMissingOrDeletedCapturesGivesAbsent) {
    Capture gone = makeCapture();
    gone.deletedAt = 5.0;
    test::seedCaptureRow(db(), gone);
    for (const std::string& id : {std::string("no-such-id"), gone.id}) {
        EXPECT_FALSE(store.setStatus(id, CaptureStatus::resolved, "you"));
        EXPECT_FALSE(store.claim(id, "claude"));
        EXPECT_FALSE(store.assign(id, "bob", "you"));
        EXPECT_FALSE(store.resolve(id, "ref", "you"));
    }
    EXPECT_EQ(test::countRows(db(), "SELECT COUNT(*) AS n FROM activity;"), 0);
    EXPECT_EQ(test::readColumn(db(), "captures", gone.id, "status"), SQLValue("open"));
}

// ---- softDelete ----

void writeFile(const std::filesystem::path& file) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "x";
}

TEST_F(WritesTest, SoftDeleteRemovesFilesAndKeepsRows) {
    Capture c = seedShared();
    CaptureImage image = test::makeImage(c.id);
    image.annotatedPath = "2024/05/marked.png";
    test::seedImageRow(db(), image);
    test::seedComment(db(), test::makeComment(c.id, "hi"));
    writeFile(image.originalURL());
    writeFile(image.displayURL());
    writeFile(*image.thumbURL());
    writeFile(c.imageURL());
    writeFile(*c.thumbURL());

    store.softDelete(c.id);

    EXPECT_FALSE(std::filesystem::exists(image.originalURL()));
    EXPECT_FALSE(std::filesystem::exists(image.displayURL()));
    EXPECT_FALSE(std::filesystem::exists(*image.thumbURL()));
    EXPECT_FALSE(std::filesystem::exists(c.imageURL()));
    EXPECT_FALSE(store.capture(c.id));
    const auto raw = store.rawCapture(c.id);
    ASSERT_TRUE(raw);
    EXPECT_EQ(raw->deletedAt, kNow);
    EXPECT_EQ(raw->updatedAt, kNow);
    EXPECT_TRUE(raw->dirty);
    EXPECT_EQ(test::pendingKeys(db(), "captures", c.id), Fields{"delete"});
    EXPECT_TRUE(test::rowExists(db(), "capture_images", image.id));
    EXPECT_EQ(store.comments(c.id).size(), 1u);
}

TEST_F(WritesTest, SoftDeleteOfATextCaptureOrUnknownIdRemovesNoFolder) {
    Capture text = makeCapture("text", test::kSeedDate, false);
    test::seedCaptureRow(db(), text);
    std::filesystem::create_directories(MirelPaths::capturesRoot());
    EXPECT_NO_THROW(store.softDelete(text.id));
    EXPECT_NO_THROW(store.softDelete("no-such-id"));
    EXPECT_TRUE(std::filesystem::exists(MirelPaths::capturesRoot()));
    EXPECT_TRUE(store.rawCapture(text.id)->deletedAt);
}

}  // namespace
}  // namespace mirel

// ---- the change signal, on a private session bus ----

namespace mirel {
namespace {

class WriteSignalTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bus = new test::DBusSession(); }
    static void TearDownTestSuite() {
        delete bus;
        bus = nullptr;
    }
    void SetUp() override {
        capture = test::makeCapture();
        capture.workspaceID = "ws-1";
        test::seedCaptureRow(CaptureStoreTestAccess::database(store), capture);
        image = test::makeImage(capture.id);
        test::seedImageRow(CaptureStoreTestAccess::database(store), image);
        group = test::makeGroup("Group");
        test::seedGroupRow(CaptureStoreTestAccess::database(store), group);
        listener = std::make_unique<test::ChangeSignalListener>();
    }

    static test::DBusSession* bus;
    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
    Capture capture;
    CaptureImage image;
    CaptureGroup group;
    std::unique_ptr<test::ChangeSignalListener> listener;
};

test::DBusSession* WriteSignalTest::bus = nullptr;

struct SignalCase {
    const char* name;
    std::function<void(CaptureStore&, const Capture&, const CaptureImage&, const CaptureGroup&)> write;
    int posts;
};

class WriteSignalCountTest : public WriteSignalTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(WriteSignalCountTest, PostsAsOftenAsTheWriteSays) {
    const auto& write = GetParam().write;
    const int posts = listener->postsDuring(
        [&] {
            try {
                write(store, capture, image, group);
            } catch (const DatabaseError&) {
                // Failed writes are among the cases; they must post nothing.
            }
        },
        GetParam().posts);
    EXPECT_EQ(posts, GetParam().posts);
}

using S = CaptureStore;
using C = const Capture;
using I = const CaptureImage;
using G = const CaptureGroup;

INSTANTIATE_TEST_SUITE_P(
    Signal, WriteSignalCountTest,
    ::testing::Values(
        SignalCase{"Insert", [](S& s, C&, I&, G&) { s.insert(test::makeCapture()); }, 1},
        SignalCase{"InsertDuplicate", [](S& s, C& c, I&, G&) { s.insert(c); }, 0},
        SignalCase{"Update", [](S& s, C& c, I&, G&) { s.update(c); }, 1},
        SignalCase{"SetStatus", [](S& s, C& c, I&, G&) { s.setStatus(c.id, CaptureStatus::archived, "you"); }, 2},
        SignalCase{"SetStatusUnknown",
                   [](S& s, C&, I&, G&) { s.setStatus("no-such-id", CaptureStatus::archived, "you"); }, 0},
        SignalCase{"Claim", [](S& s, C& c, I&, G&) { s.claim(c.id, "claude"); }, 2},
        SignalCase{"Resolve", [](S& s, C& c, I&, G&) { s.resolve(c.id, "ref", "you"); }, 2},
        SignalCase{"Assign", [](S& s, C& c, I&, G&) { s.assign(c.id, "bob", "you"); }, 1},
        SignalCase{"SoftDelete", [](S& s, C& c, I&, G&) { s.softDelete(c.id); }, 1},
        SignalCase{"AddImage", [](S& s, C& c, I&, G&) { s.addImage(test::makeImage(c.id, -1)); }, 1},
        SignalCase{"AddImageUnknownCapture", [](S& s, C&, I&, G&) { s.addImage(test::makeImage("nope", -1)); }, 0},
        SignalCase{"UpdateImage", [](S& s, C&, I& i, G&) { s.updateImage(i); }, 1},
        SignalCase{"DeleteImage", [](S& s, C&, I& i, G&) { s.deleteImage(i.id); }, 1},
        SignalCase{"DeleteImageUnknown", [](S& s, C&, I&, G&) { s.deleteImage("no-such-image"); }, 0},
        SignalCase{"SetCaptureMode", [](S& s, C& c, I&, G&) { s.setCaptureMode(CaptureMode::window, c.id); }, 1},
        SignalCase{"UpsertGroup", [](S& s, C&, I&, G& g) { s.upsertGroup(g); }, 1},
        SignalCase{"UpsertGroupNamesake", [](S& s, C&, I&, G&) { s.upsertGroup(test::makeGroup("GROUP")); }, 0},
        SignalCase{"DeleteGroup", [](S& s, C&, I&, G& g) { s.deleteGroup(g.id); }, 1},
        SignalCase{"SetTags", [](S& s, C& c, I&, G&) { s.setTags({"bug"}, c.id); }, 1},
        SignalCase{"ReplaceTags", [](S& s, C& c, I&, G&) { s.replaceTags({"bug"}, c.id); }, 0},
        SignalCase{"AddComment", [](S& s, C& c, I&, G&) { s.addComment(test::makeComment(c.id, "hi")); }, 1},
        SignalCase{"AddCommentUnknown", [](S& s, C&, I&, G&) { s.addComment(test::makeComment("nope", "hi")); },
                   0},
        SignalCase{"RecordActivity",
                   [](S& s, C& c, I&, G&) {
                       s.recordActivity(c.id, "updated", "", "you", newID(), 1.0, std::nullopt, false);
                   },
                   0},
        SignalCase{"MarkPending", [](S& s, C& c, I&, G&) { s.markPending("captures", c.id, {"note"}); }, 0},
        SignalCase{"SetSyncMeta", [](S& s, C&, I&, G&) { s.setSyncMeta("user_id", "me"); }, 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace mirel
