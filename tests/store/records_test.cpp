#include "core/store/capture_store.h"
#include "core/store/records.h"

#include <gtest/gtest.h>

#include "tests/support/temp_library.h"

namespace mirel {
namespace {

Capture captureWithNote(const std::string& note, bool withImage, std::optional<std::string> app = {}) {
    Capture c;
    c.id = "0f8fad5b-d9cb-469f-a165-70867728950e";
    c.note = note;
    if (withImage) c.imagePath = "2024/05/x.png";
    c.appName = std::move(app);
    return c;
}

TEST(EnumerationsTest, RawWordsRoundTripAndUnknownWordsAreAbsent) {
    for (const auto status : CaptureStatuses::allCases)
        EXPECT_EQ(captureStatusFrom(rawValue(status)), status);
    EXPECT_EQ(rawValue(CaptureStatus::inProgress), "in_progress");
    EXPECT_EQ(displayName(CaptureStatus::inProgress), "In Progress");
    EXPECT_EQ(rawValue(SyncState::pendingPush), "pendingPush");
    EXPECT_EQ(syncStateFrom("pendingPush"), SyncState::pendingPush);
    EXPECT_EQ(displayName(CaptureMode::fullscreen), "Full Screen");
    EXPECT_EQ(displayName(CaptureMode::text), "Text only");
    EXPECT_EQ(rawValue(GroupVisibility::private_), "private");

    EXPECT_EQ(captureStatusFrom("Open"), std::nullopt);  // words are exact
    EXPECT_EQ(captureStatusFrom("inProgress"), std::nullopt);
    EXPECT_EQ(capturePriorityFrom(""), std::nullopt);
    EXPECT_EQ(syncStateFrom("pending_push"), std::nullopt);
    EXPECT_EQ(groupVisibilityFrom("private_"), std::nullopt);

    EXPECT_LT(sortWeight(CapturePriority::high), sortWeight(CapturePriority::normal));
    EXPECT_LT(sortWeight(CapturePriority::normal), sortWeight(CapturePriority::low));
}

TEST(CaptureTitleTest, FirstLineOrFallback) {
    struct Case {
        std::string note;
        bool withImage;
        std::optional<std::string> app;
        std::string title;
        std::string body;
    };
    const std::vector<Case> cases = {
        {"Button clipped\n  on the settings page \n", true, {}, "Button clipped", "on the settings page"},
        {"\t Only line \u00A0", true, {}, "Only line", ""},
        {"", true, {}, "Untitled capture", ""},
        {"", false, {}, "Untitled issue", ""},
        {"  \t ", true, "Safari", "Untitled capture in Safari", ""},
        {"   \nSecond line holds the text", false, "Xcode", "Untitled issue in Xcode",
         "Second line holds the text"},
        {"\nLater", true, {}, "Untitled capture", "Later"},
        // CR LF is one character and ends no line here.
        {"First\r\nSecond", true, {}, "First\r\nSecond", ""},
        {"First\r\nSecond\nThird\r\n", true, {}, "First\r\nSecond", "Third"},
        {"Title\n\n\n", true, {}, "Title", ""},
    };
    for (const auto& c : cases) {
        const Capture capture = captureWithNote(c.note, c.withImage, c.app);
        EXPECT_EQ(capture.title(), c.title) << "note: " << c.note;
        EXPECT_EQ(capture.noteBody(), c.body) << "note: " << c.note;
    }
}

TEST(CaptureTest, Sharing) {
    Capture c;
    c.workspaceID = "ws";
    EXPECT_TRUE(c.isShared());
    c.localOnly = true;
    EXPECT_FALSE(c.isShared());
}

TEST(CaptureTest, URLsHangOffTheLibraryFolders) {
    test::TempLibrary library;
    const auto home = library.home();
    Capture c;
    c.imagePath = "2024/05/a.png";
    EXPECT_EQ(c.imageURL(), home / "captures/2024/05/a.png");
    EXPECT_EQ(c.thumbURL(), std::nullopt);
    c.thumbPath = "2024/05/a.png";
    EXPECT_EQ(c.thumbURL(), home / "thumbs/2024/05/a.png");

    CaptureImage image;
    image.imagePath = "2024/05/i.png";
    EXPECT_EQ(image.displayURL(), image.originalURL());
    image.annotatedPath = "2024/05/i-marked.png";
    EXPECT_EQ(image.displayURL(),
              home / "captures/2024/05/i-marked.png");
}

TEST(PersonTest, Initials) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ada lovelace byron", "AL"}, {"Grace", "G"},  {"", "?"},          {"   ", "?"},
        {"  jo   anne ", "JA"},       {"élodie ünal", "ÉÜ"}, {"\tx", "\t"},
    };
    for (const auto& [name, initials] : cases) {
        Person p;
        p.name = name;
        EXPECT_EQ(p.initials(), initials) << "name: " << name;
    }
}

TEST(CaptureImageTest, HasAnnotationsOnlyForShapesThatDecode) {
    CaptureImage image;
    EXPECT_FALSE(image.hasAnnotations());
    image.annotationJSON = R"({"shapes":[]})";
    EXPECT_FALSE(image.hasAnnotations());
    image.annotationJSON = "not json at all";
    EXPECT_FALSE(image.hasAnnotations());
    EXPECT_TRUE(image.annotation().isEmpty());
    image.annotationJSON =
        R"({"shapes":[{"id":"a1","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,"points":[{"x":0.1,"y":0.2},{"x":0.4,"y":0.2}]}]})";
    EXPECT_TRUE(image.hasAnnotations());
    EXPECT_EQ(image.annotation().shapes.size(), 1u);

    image.imagePath = "2024/05/i.png";
    image.originalSHA256 = "abc";
    EXPECT_FALSE(image.isAwaitingDownload());
    image.imagePath = "";
    EXPECT_TRUE(image.isAwaitingDownload());
}

// ---- Row decoding ----

Row rowOf(std::initializer_list<std::pair<const std::string, SQLValue>> values) {
    return Row{std::map<std::string, SQLValue>(values)};
}

TEST(RowDecodingTest, EmptyRowTakesEveryFallback) {
    Clock::pin(1234.5);
    const Row empty;
    const Capture c = CaptureStore::decodeCapture(empty);
    EXPECT_EQ(c.id.size(), 36u);
    EXPECT_EQ(c.createdAt, 1234.5);
    EXPECT_EQ(c.updatedAt, 1234.5);
    EXPECT_EQ(c.status, CaptureStatus::open);
    EXPECT_EQ(c.priority, CapturePriority::normal);
    EXPECT_EQ(c.captureMode, CaptureMode::region);
    EXPECT_EQ(c.syncState, SyncState::local);
    EXPECT_EQ(c.note, "");
    EXPECT_FALSE(c.dirty);
    EXPECT_FALSE(c.deletedAt);
    // A fresh id at each reading.
    EXPECT_NE(CaptureStore::decodeCapture(empty).id, c.id);

    const CaptureGroup g = CaptureStore::decodeGroup(empty);
    EXPECT_EQ(g.name, "Untitled");
    EXPECT_EQ(g.colorHex, "#6E7BF2");
    EXPECT_EQ(g.visibility, GroupVisibility::private_);
    EXPECT_EQ(g.createdAt, 1234.5);

    const Comment k = CaptureStore::decodeComment(empty);
    EXPECT_EQ(k.author, "unknown");
    EXPECT_EQ(k.kind, "comment");
    EXPECT_EQ(k.captureID, "");

    const ActivityEvent e = CaptureStore::decodeActivity(empty);
    EXPECT_EQ(e.actor, "you");
    EXPECT_EQ(e.captureID, std::nullopt);

    const Person p = CaptureStore::decodePerson(empty);
    EXPECT_EQ(p.id, "");  // people keep an empty id, no fresh one
    EXPECT_EQ(p.name, "Someone");
    EXPECT_EQ(p.kind, "person");

    const Workspace w = CaptureStore::decodeWorkspace(empty);
    EXPECT_EQ(w.role, "member");

    const CaptureImage i = CaptureStore::decodeImage(empty);
    EXPECT_EQ(i.id.size(), 36u);
    EXPECT_EQ(i.position, 0);
    EXPECT_EQ(i.annotationJSON, std::nullopt);
    Clock::pin(std::nullopt);
}

TEST(RowDecodingTest, BadDataFallsBackFieldByField) {
    const Row row = rowOf({
        {"id", "c1"},
        {"status", "done"},                // unknown word
        {"priority", SQLValue(3)},         // a number where a word belongs
        {"capture_mode", SQLValue()},      // NULL
        {"sync_state", "pending_push"},
        {"app_name", SQLValue(42)},        // stray number in a text column
        {"note", SQLValue::blob({1, 2})},  // blob in a text column
        {"created_at", SQLValue(1700000000)},  // integer date: seconds
        {"updated_at", "yesterday"},
        {"claimed_at", SQLValue(12.25)},
        {"image_width", SQLValue(640.9)},  // floats truncate
        {"display_scale", SQLValue(2)},
        {"dirty", SQLValue(1)},
        {"local_only", "yes"},             // text is no boolean
    });
    Clock::pin(99.0);
    const Capture c = CaptureStore::decodeCapture(row);
    Clock::pin(std::nullopt);
    EXPECT_EQ(c.id, "c1");
    EXPECT_EQ(c.status, CaptureStatus::open);
    EXPECT_EQ(c.priority, CapturePriority::normal);
    EXPECT_EQ(c.captureMode, CaptureMode::region);
    EXPECT_EQ(c.syncState, SyncState::local);
    EXPECT_EQ(c.appName, std::nullopt);
    EXPECT_EQ(c.note, "");
    EXPECT_EQ(c.createdAt, 1700000000.0);
    EXPECT_EQ(c.updatedAt, 99.0);
    EXPECT_EQ(c.claimedAt, 12.25);
    EXPECT_EQ(c.imageWidth, 640);
    EXPECT_EQ(c.displayScale, 2.0);
    EXPECT_TRUE(c.dirty);
    EXPECT_FALSE(c.localOnly);

    const CaptureGroup g = CaptureStore::decodeGroup(rowOf({{"visibility", "public"}}));
    EXPECT_EQ(g.visibility, GroupVisibility::private_);
    EXPECT_EQ(CaptureStore::decodeGroup(rowOf({{"visibility", "workspace"}})).visibility,
              GroupVisibility::workspace);
}

}  // namespace
}  // namespace mirel
