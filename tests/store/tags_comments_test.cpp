// Tags, comments and history lines on a capture.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::makeCapture;
using test::makeComment;
using Names = std::vector<std::string>;

constexpr Date kNow = 1717000001.0;

class TagsCommentsTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(kNow); }
    void TearDown() override { Clock::pin(std::nullopt); }
    Database& db() { return CaptureStoreTestAccess::database(store); }

    Capture seed(std::optional<std::string> workspace = {}, bool localOnly = false) {
        Capture c = makeCapture();
        c.workspaceID = std::move(workspace);
        c.localOnly = localOnly;
        test::seedCaptureRow(db(), c);
        return c;
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
};

TEST_F(TagsCommentsTest, TagsAreTrimmedLoweredAndCollapsed) {
    const Capture c = seed();
    store.setTags({"Bug", " bug\t", "", "  ", "UI"}, c.id);
    EXPECT_EQ(store.tags(c.id), (Names{"bug", "ui"}));
    EXPECT_EQ(test::countRows(db(), "SELECT COUNT(*) AS n FROM tags;"), 2);
}

TEST_F(TagsCommentsTest, ReplacingKeepsUnusedTagRowsAndReusesThem) {
    const Capture c = seed();
    store.replaceTags({"bug"}, c.id);
    const auto idBefore = db().query("SELECT id FROM tags WHERE name = 'bug';").front().string("id");
    store.replaceTags({}, c.id);
    EXPECT_TRUE(store.tags(c.id).empty());
    EXPECT_TRUE(store.allTags().empty());
    store.replaceTags({"BUG"}, c.id);
    EXPECT_EQ(db().query("SELECT id FROM tags WHERE name = 'bug';").front().string("id"), idBefore);
    EXPECT_EQ(test::countRows(db(), "SELECT COUNT(*) AS n FROM tags;"), 1);
}

TEST_F(TagsCommentsTest, ReplaceTagsIsSilentSetTagsIsALocalEdit) {
    const Capture c = seed(std::string("ws-1"));
    store.replaceTags({"bug"}, c.id);
    EXPECT_EQ(test::syncStateOf(db(), "captures", c.id), "local");
    EXPECT_EQ(store.capture(c.id)->updatedAt, c.updatedAt);

    store.setTags({"ui"}, c.id);
    EXPECT_EQ(test::pendingKeys(db(), "captures", c.id), std::set<std::string>{"tags"});
    EXPECT_EQ(store.capture(c.id)->updatedAt, c.updatedAt);  // tags leave the capture's time alone
}

TEST_F(TagsCommentsTest, AllTagsShowsOnlyTagsOfLiveCaptures) {
    const Capture live = seed();
    const Capture gone = seed();
    store.replaceTags({"shared", "zeta"}, live.id);
    store.replaceTags({"shared", "hidden"}, gone.id);
    test::setColumn(db(), "captures", gone.id, "deleted_at", SQLValue(1.0));
    EXPECT_EQ(store.allTags(), (Names{"shared", "zeta"}));
}

TEST_F(TagsCommentsTest, ReplaceTagsOnAnUnknownCaptureRollsBack) {
    const Capture c = seed();
    store.replaceTags({"keep"}, c.id);
    EXPECT_THROW(store.replaceTags({"new"}, "no-such-capture"), DatabaseError);
    EXPECT_EQ(test::countRows(db(), "SELECT COUNT(*) AS n FROM tags WHERE name = 'new';"), 0);
    EXPECT_EQ(store.tags(c.id), Names{"keep"});
}

struct LabelCase {
    const char* name;
    bool isAgent;
    std::optional<std::string> userName;
    std::optional<std::string> givenLabel;
    std::optional<std::string> expected;
};

class CommentLabelTest : public TagsCommentsTest, public ::testing::WithParamInterface<LabelCase> {};

TEST_P(CommentLabelTest, AgentsSpeakForTheSignedInPerson) {
    const LabelCase& param = GetParam();
    if (param.userName) store.setSyncMeta("user_name", param.userName);
    const Capture c = seed();
    Comment comment = makeComment(c.id, "On it", "claude", param.isAgent);
    comment.actorLabel = param.givenLabel;
    store.addComment(comment);
    EXPECT_EQ(store.comments(c.id).at(0).actorLabel, param.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Label, CommentLabelTest,
    ::testing::Values(
        LabelCase{"AgentWithUser", true, std::string("Ada"), std::nullopt, std::string("claude \u00B7 Ada")},
        LabelCase{"AgentAlone", true, std::nullopt, std::nullopt, std::string("claude")},
        LabelCase{"AgentWithOwnLabel", true, std::string("Ada"), std::string("bot"), std::string("bot")},
        LabelCase{"Person", false, std::string("Ada"), std::nullopt, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

struct CommentStateCase {
    const char* name;
    std::optional<std::string> workspace;
    bool localOnly;
    SyncState given;
    const char* stored;
};

class CommentStateTest : public TagsCommentsTest, public ::testing::WithParamInterface<CommentStateCase> {};

TEST_P(CommentStateTest, CommentsOnSharedCapturesWaitToBePushed) {
    const CommentStateCase& param = GetParam();
    const Capture c = seed(param.workspace, param.localOnly);
    Comment comment = makeComment(c.id, "hi");
    comment.syncState = param.given;
    store.addComment(comment);
    EXPECT_EQ(test::syncStateOf(db(), "comments", comment.id), param.stored);
}

INSTANTIATE_TEST_SUITE_P(
    State, CommentStateTest,
    ::testing::Values(CommentStateCase{"Shared", std::string("ws-1"), false, SyncState::local, "pendingPush"},
                      CommentStateCase{"Local", std::nullopt, false, SyncState::local, "local"},
                      CommentStateCase{"LocalOnly", std::string("ws-1"), true, SyncState::local, "local"},
                      CommentStateCase{"ArrivedSynced", std::string("ws-1"), false, SyncState::synced, "synced"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TagsCommentsTest, AddCommentStoresTheAuthorAndMovesTheCaptureTime) {
    store.setSyncMeta("user_id", "me");
    const Capture c = seed();
    Comment comment = makeComment(c.id, "Looks fixed");
    comment.kind = "conflict";
    store.addComment(comment);

    Comment expected = comment;
    expected.authorID = "me";
    EXPECT_EQ(store.comments(c.id), std::vector<Comment>{expected});
    const Capture after = *store.capture(c.id);
    EXPECT_EQ(after.updatedAt, kNow);
    EXPECT_FALSE(after.dirty);
}

TEST_F(TagsCommentsTest, RepeatedCommentIdChangesNothingButTheTime) {
    const Capture c = seed();
    Comment comment = makeComment(c.id, "first");
    store.addComment(comment);
    Clock::pin(kNow + 10);
    comment.body = "second";
    store.addComment(comment);
    ASSERT_EQ(store.comments(c.id).size(), 1u);
    EXPECT_EQ(store.comments(c.id)[0].body, "first");
    EXPECT_EQ(store.capture(c.id)->updatedAt, kNow + 10);
}

TEST_F(TagsCommentsTest, CommentOnAnUnknownCaptureFailsAtTheForeignKey) {
    try {
        store.addComment(makeComment("no-such-capture", "hi"));
        FAIL() << "expected a DatabaseError";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.errorCase(), DatabaseError::Case::stepFailed);
    }
}

TEST_F(TagsCommentsTest, ActivityMixesLocalAndRemoteLinesInTimeOrder) {
    store.setSyncMeta("user_id", "me");
    const Capture c = seed();
    store.recordActivity(c.id, "updated", "note", "you", "b", 20.0, std::nullopt, false);
    store.recordActivity(c.id, "commented", "", "Bob", "a", 10.0, std::nullopt, true);
    store.recordActivity(c.id, "claimed", "", "Cy", "c", 30.0, std::string("cy-id"), false);
    store.recordActivity(c.id, "claimed", "", "Cy", "c", 40.0, std::nullopt, false);  // same id: ignored

    const auto history = store.activity(c.id);
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0], (ActivityEvent{"a", c.id, "commented", "", "Bob", 10.0, std::nullopt, true}));
    EXPECT_EQ(history[1], (ActivityEvent{"b", c.id, "updated", "note", "you", 20.0, std::string("me"), false}));
    EXPECT_EQ(history[2].actorID, "cy-id");
}

TEST_F(TagsCommentsTest, ActivityWithoutCaptureIsAllowedWithAnUnknownOneIsNot) {
    EXPECT_NO_THROW(store.recordActivity(std::nullopt, "note", "", "you", newID(), kNow, std::nullopt, false));
    EXPECT_THROW(store.recordActivity(std::string("no-such-capture"), "note", "", "you", newID(), kNow,
                                      std::nullopt, false),
                 DatabaseError);
}

}  // namespace
}  // namespace mirel
