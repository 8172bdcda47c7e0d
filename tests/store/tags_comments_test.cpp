// Tags, comments and history lines hung on a capture.
#include "core/platform/text.h"
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

TEST_F(StoreTest, TagsAreTrimmedFoldedAndShared) {
    const Capture a = filed("a", true), b = filed("b");
    store.setTags({" Écran ", "écran", "ŁÓDŹ", "ĀŒ", "UI", "\t", "ui"}, a.id);
    EXPECT_EQ(join(store.tags(a.id), ","), "ui,écran,āœ,łódź");
    EXPECT_EQ(pending("captures", a.id), "pendingPush {tags}");
    store.replaceTags({"UI", "new"}, b.id);  // the same tag row, no ledger entry
    EXPECT_EQ(store.tagsByCapture({a.id, b.id, "none"}),
              (std::map<std::string, std::vector<std::string>>{{a.id, store.tags(a.id)}, {b.id, {"new", "ui"}}}));
    EXPECT_EQ(raw.query("SELECT COUNT(*) AS n FROM tags WHERE name = 'ui';").at(0).intValue("n"), 1);
    store.softDelete(a.id);
    EXPECT_EQ(join(store.allTags(), ","), "new,ui");
    EXPECT_THROW(store.replaceTags({"x"}, "no-such-capture"), DatabaseError);
    EXPECT_EQ(raw.query("SELECT COUNT(*) AS n FROM tags WHERE name = 'x';").at(0).intValue("n"), 0);
}

TEST_F(StoreTest, CommentsSpeakForTheSignedInPersonAndWaitWhenShared) {
    const Capture shared = filed("shared", true), local = filed("local");
    store.setSyncMeta("user_id", "me");
    store.setSyncMeta("user_name", "Ada");
    store.addComment(makeComment(shared.id, "agent", "claude", true, 2));
    store.addComment(makeComment(local.id, "person", "Bob", false, 1));
    Comment labelled = makeComment(local.id, "labelled", "claude", true, 3);
    labelled.actorLabel = "bot";
    store.addComment(labelled);
    std::string seen;
    for (const auto& id : {shared.id, local.id})
        for (const auto& c : store.comments(id))
            seen += c.body + ":" + c.actorLabel.value_or("-") + ":" + c.authorID.value_or("-") + ":" +
                    std::string(rawValue(c.syncState)) + (c.isConflict() ? " (a conflict)" : "") + " ";
    EXPECT_EQ(seen, "agent:claude · Ada:me:pendingPush person:-:me:local labelled:bot:me:local ");
    EXPECT_EQ(store.pendingComments(10).size(), 1u);
    EXPECT_EQ(cell("captures", local.id, "updated_at"), "1717000000");
}

TEST_F(StoreTest, HistoryLinesAreInTimeOrderAndNameTheirActor) {
    const Capture c = filed();
    store.setSyncMeta("user_id", "me");
    store.recordActivity(c.id, "claimed", "", "claude", "l-1", 50, std::nullopt, false);
    store.recordActivity(c.id, "commented", "", "Bob", "r-1", 5, std::nullopt, true);
    store.recordActivity(std::nullopt, "imported", "", "you", "n-1", 6, "them", false);
    std::string lines;
    for (const auto& e : store.activity(c.id)) lines += e.kind + ":" + e.actorID.value_or("-") + " ";
    EXPECT_EQ(lines, "commented:- claimed:me created:- ");
    EXPECT_EQ(cell("activity", "n-1", "actor_id"), "them");
}

}  // namespace
}  // namespace mirel::test
