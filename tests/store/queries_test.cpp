#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>

namespace mirel {
namespace {

using test::makeCapture;
using test::makeComment;
using test::makeGroup;
using test::seedCaptureRow;

class CaptureQueriesTest : public ::testing::Test {
protected:
    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
    Database& db() { return CaptureStoreTestAccess::database(store); }

    Capture seed(const std::string& note, Date createdAt = test::kSeedDate,
                 std::optional<std::string> id = {}) {
        Capture c = makeCapture(note, createdAt);
        if (id) c.id = *id;
        seedCaptureRow(db(), c);
        return c;
    }

    // The notes of a query's result, in order.
    std::vector<std::string> notes(const CaptureQuery& query) {
        std::vector<std::string> out;
        for (const auto& c : store.captures(query)) out.push_back(c.note);
        return out;
    }
};

using Notes = std::vector<std::string>;

TEST_F(CaptureQueriesTest, SyncMetaSetsReadsAndDeletes) {
    EXPECT_EQ(store.currentUserID(), std::nullopt);
    store.setSyncMeta("user_id", "u-1");
    store.setSyncMeta("user_name", "Ada");
    store.setSyncMeta("default_workspace_id", "ws-1");
    EXPECT_EQ(store.currentUserID(), "u-1");
    EXPECT_EQ(store.currentUserName(), "Ada");
    EXPECT_EQ(store.defaultWorkspaceID(), "ws-1");
    store.setSyncMeta("user_id", "u-2");
    EXPECT_EQ(store.syncMeta("user_id"), "u-2");
    store.setSyncMeta("user_id", std::nullopt);
    EXPECT_EQ(store.currentUserID(), std::nullopt);
    // A value that is no text reads as absent (TEXT affinity keeps a blob a blob).
    db().execute("INSERT INTO sync_meta (key, value) VALUES ('n', x'05');");
    EXPECT_EQ(store.syncMeta("n"), std::nullopt);
}

TEST_F(CaptureQueriesTest, PropertiesSwallowErrors) {
    db().executeRaw("DROP TABLE sync_meta;");
    EXPECT_EQ(store.currentUserID(), std::nullopt);
    EXPECT_EQ(store.defaultWorkspaceID(), std::nullopt);
    EXPECT_THROW(store.syncMeta("user_id"), DatabaseError);
}

TEST_F(CaptureQueriesTest, CaptureSeesLiveRowsAndRawCaptureSeesAll) {
    Capture gone = makeCapture("Gone");
    gone.deletedAt = test::kSeedDate + 10;
    seedCaptureRow(db(), gone);
    const Capture live = seed("Live");

    EXPECT_EQ(store.capture(live.id), live);  // every column survives the trip
    EXPECT_EQ(store.capture(gone.id), std::nullopt);
    EXPECT_EQ(store.rawCapture(gone.id), gone);
    std::string upper = live.id;
    for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    EXPECT_EQ(store.capture(upper), std::nullopt);  // exact comparison here
}

TEST_F(CaptureQueriesTest, ResolveCaptureID) {
    seed("a", test::kSeedDate, "aaaa1111-0000-4000-8000-000000000001");
    seed("b", test::kSeedDate, "aaaa2222-0000-4000-8000-000000000002");
    seed("c", test::kSeedDate, "bbbb3333-0000-4000-8000-000000000003");
    Capture gone = makeCapture("gone");
    gone.id = "bbbb4444-0000-4000-8000-000000000004";
    gone.deletedAt = test::kSeedDate;
    seedCaptureRow(db(), gone);

    const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
        {"", std::nullopt},
        {" \t\n", std::nullopt},
        {"aaaa1111-0000-4000-8000-000000000001\n", "aaaa1111-0000-4000-8000-000000000001"},
        {"  aaaa1", "aaaa1111-0000-4000-8000-000000000001"},
        {"AAAA2222-0000-4000-8000-000000000002", "aaaa2222-0000-4000-8000-000000000002"},
        {"aaaa", std::nullopt},                                   // two live captures
        {"bbbb", "bbbb3333-0000-4000-8000-000000000003"},         // the other one is deleted
        {"bbbb4444-0000-4000-8000-000000000004", std::nullopt},   // deleted, even whole
        {"a%1", "aaaa1111-0000-4000-8000-000000000001"},          // LIKE wildcards act
        {"____3", "bbbb3333-0000-4000-8000-000000000003"},
        {"%", std::nullopt},
        {"000000000003", std::nullopt},                           // prefixes only
        {"c", std::nullopt},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(store.resolveCaptureID(text), expected) << "text: '" << text << "'";
}

TEST_F(CaptureQueriesTest, HighPriorityFirstThenByCreationTime) {
    Capture oldHigh = makeCapture("old high", 100);
    oldHigh.priority = CapturePriority::high;
    seedCaptureRow(db(), oldHigh);
    seed("new normal", 300);
    seed("mid normal", 200);
    Capture low = makeCapture("newest low", 400);
    low.priority = CapturePriority::low;
    seedCaptureRow(db(), low);
    Capture gone = makeCapture("deleted high", 500);
    gone.priority = CapturePriority::high;
    gone.deletedAt = 600;
    seedCaptureRow(db(), gone);

    CaptureQuery q;
    EXPECT_EQ(notes(q), (Notes{"old high", "new normal", "mid normal", "newest low"}));
    q.newestFirst = false;
    EXPECT_EQ(notes(q), (Notes{"old high", "mid normal", "new normal", "newest low"}));
    q.newestFirst = true;
    q.limit = 2;
    q.offset = 1;
    EXPECT_EQ(notes(q), (Notes{"new normal", "mid normal"}));
    q.offset = 10;
    EXPECT_EQ(notes(q), Notes{});
}

TEST_F(CaptureQueriesTest, EachFilterNarrowsTheList) {
    const auto group = makeGroup("Checkout");
    test::seedGroupRow(db(), group);
    auto deletedGroup = makeGroup("Checkout", "ws-other");
    deletedGroup.deletedAt = 1;
    test::seedGroupRow(db(), deletedGroup);

    Capture a = makeCapture("Crash on pay", 100);
    a.groupID = group.id;
    a.status = CaptureStatus::inProgress;
    a.priority = CapturePriority::high;
    a.workspaceID = "ws-1";
    a.assigneeID = "u-1";
    a.authorID = "u-1";
    a.appName = "Safari";
    seedCaptureRow(db(), a);
    test::seedTag(db(), a.id, "UI");

    Capture b = makeCapture("Typo in footer", 200);
    b.status = CaptureStatus::resolved;
    b.groupID = deletedGroup.id;
    b.authorID = "u-2";
    b.windowTitle = "Home 50% off";
    seedCaptureRow(db(), b);
    test::seedTag(db(), b.id, "copy");

    Capture c = makeCapture("No author", 300);
    c.url = "https://example.com/a_b";
    seedCaptureRow(db(), c);

    const auto filtered = [&](auto&& set) {
        CaptureQuery q;
        set(q);
        return notes(q);
    };
    EXPECT_EQ(filtered([](auto& q) { q.tag = "ui"; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.tag = ""; }).size(), 3u);
    EXPECT_EQ(filtered([](auto& q) { q.statuses = CaptureStatuses::active; }),
              (Notes{"Crash on pay", "No author"}));
    EXPECT_EQ(filtered([](auto& q) { q.statuses = std::vector<CaptureStatus>{}; }).size(), 3u);
    EXPECT_EQ(filtered([&](auto& q) { q.groupID = group.id; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.groupName = "CHECKOUT"; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.groupName = ""; }).size(), 3u);
    EXPECT_EQ(filtered([](auto& q) { q.priority = CapturePriority::normal; }),
              (Notes{"No author", "Typo in footer"}));
    EXPECT_EQ(filtered([](auto& q) { q.workspaceID = "ws-1"; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.assigneeID = "u-1"; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.authorID = "u-2"; }), (Notes{"No author", "Typo in footer"}));
    EXPECT_EQ(filtered([](auto& q) { q.search = "safari"; }), Notes{"Crash on pay"});
    EXPECT_EQ(filtered([](auto& q) { q.search = "50%"; }), Notes{"Typo in footer"});
    EXPECT_EQ(filtered([](auto& q) { q.search = "A_B"; }), Notes{"No author"});
    EXPECT_EQ(filtered([](auto& q) { q.search = "Typo_in"; }), Notes{"Typo in footer"});
    EXPECT_EQ(filtered([](auto& q) { q.search = " \t "; }).size(), 3u);
    // Blanks at the ends are searched for as typed.
    EXPECT_EQ(filtered([](auto& q) { q.search = " footer"; }), Notes{"Typo in footer"});
    EXPECT_EQ(filtered([](auto& q) { q.search = " Typo"; }), Notes{});
    // Filters combine.
    EXPECT_EQ(filtered([](auto& q) {
                  q.tag = "copy";
                  q.statuses = CaptureStatuses::active;
              }),
              Notes{});
}

TEST_F(CaptureQueriesTest, CountsAndChangeStamp) {
    EXPECT_TRUE(store.countsByStatus().empty());
    EXPECT_EQ(store.changeStamp(), "0-0.0-0-0.0");

    Capture a = makeCapture("a", 1716.5);
    seedCaptureRow(db(), a);
    Capture b = makeCapture("b", 1000);
    b.status = CaptureStatus::resolved;
    seedCaptureRow(db(), b);
    Capture gone = makeCapture("gone", 10);
    gone.deletedAt = 20;
    seedCaptureRow(db(), gone);
    Capture odd = makeCapture("odd", 10);
    seedCaptureRow(db(), odd);
    test::setColumn(db(), "captures", odd.id, "status", "someday");

    EXPECT_EQ(store.countsByStatus(),
              (std::map<CaptureStatus, std::int64_t>{{CaptureStatus::open, 1},
                                                     {CaptureStatus::resolved, 1}}));
    EXPECT_EQ(store.changeStamp(), "4-1716.5-0-0.0");

    test::seedImageRow(db(), test::makeImage(a.id, 0));
    auto deletedImage = test::makeImage(a.id, 1);
    deletedImage.deletedAt = 5;
    test::seedImageRow(db(), deletedImage);
    test::seedImageRow(db(), test::makeImage(gone.id, 0));
    EXPECT_EQ(store.imageCounts(),
              (std::map<std::string, std::int64_t>{{a.id, 2}, {gone.id, 1}}));

    test::seedComment(db(), makeComment(b.id, "first", "Ada", false, 1800));
    EXPECT_EQ(store.commentCounts(), (std::map<std::string, std::int64_t>{{b.id, 1}}));
    // Counting for a page of ids gives the same figures, for those ids only.
    EXPECT_EQ(store.imageCounts({a.id, b.id}), (std::map<std::string, std::int64_t>{{a.id, 2}}));
    EXPECT_EQ(store.commentCounts({a.id, b.id}), (std::map<std::string, std::int64_t>{{b.id, 1}}));
    EXPECT_TRUE(store.imageCounts(std::vector<std::string>{}).empty());
    EXPECT_EQ(store.changeStamp(), "4-1716.5-1-1800.0");

    test::setColumn(db(), "captures", b.id, "updated_at", SQLValue(2000.125));
    EXPECT_EQ(store.changeStamp(), "4-2000.125-1-1800.0");
    test::seedTag(db(), b.id, "later");  // tags leave the stamp alone
    EXPECT_EQ(store.changeStamp(), "4-2000.125-1-1800.0");
    test::seedTag(db(), b.id, "Earlier");
    test::seedTag(db(), a.id, "mine");
    const auto byCapture = store.tagsByCapture({b.id, gone.id});
    EXPECT_EQ(byCapture, (std::map<std::string, std::vector<std::string>>{{b.id, store.tags(b.id)}}));
    EXPECT_EQ(byCapture.at(b.id), (std::vector<std::string>{"Earlier", "later"}));
    test::setColumn(db(), "captures", b.id, "updated_at", SQLValue(100.0));
    test::setColumn(db(), "captures", a.id, "updated_at", SQLValue(1716.0));
    EXPECT_EQ(store.changeStamp(), "4-1716.0-1-1800.0");
}

TEST(CaptureStoreOpeningTest, OpensANewFileInAMissingFolderAndRefusesGarbage) {
    test::TempLibrary library;
    const auto nested = library.home() / "elsewhere" / "deeper" / "lib.sqlite";
    {
        CaptureStore store(nested);
        EXPECT_TRUE(store.captures({}).empty());
        // A store on another file leaves the default library's file alone.
        EXPECT_FALSE(std::filesystem::exists(library.home() / "mirel.sqlite"));
    }
    const auto garbage = library.home() / "garbage.sqlite";
    std::ofstream(garbage) << std::string(4096, 'x');
    EXPECT_THROW(CaptureStore{garbage}, DatabaseError);
}

}  // namespace
}  // namespace mirel
