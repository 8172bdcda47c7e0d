// Reads of a library: finding captures by id or prefix, the list query with
// its filters and order, the counts, the change stamp and sync_meta.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

TEST_F(StoreTest, ResolvesFullIdsAndUniquePrefixes) {
    Capture a = makeCapture(), b = makeCapture(), gone = makeCapture();
    a.id = "0000000a-aaaa", b.id = "0000000b-bbbb", gone.id = "0000000c-cccc";
    for (const auto& c : {a, b, gone}) store.insert(c);
    store.softDelete(gone.id);
    const std::pair<const char*, std::optional<std::string>> rows[] = {
        {"0000000a-aaaa", a.id}, {" \n0000000B\t", b.id}, {"0000000a-", a.id}, {"0000000", std::nullopt},
        {"0000000c", std::nullopt}, {"%", std::nullopt}, {"0000000_-b", b.id}, {" ", std::nullopt}, {"aaaa", std::nullopt},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(store.resolveCaptureID(text), expected) << '"' << text << '"';
}

TEST_F(StoreTest, ListsHighPriorityFirstThenByTimeThroughEveryFilter) {
    const auto add = [&](const char* note, Date at, CapturePriority priority, const std::function<void(Capture&)>& more = {}) {
        Capture c = makeCapture(note, at);
        c.priority = priority;
        if (more) more(c);
        store.insert(c);
        return c;
    };
    add("old high", 100, CapturePriority::high, [](Capture& c) { c.workspaceID = "ws-1", c.assigneeID = "u-1", c.authorID = "u-1"; });
    add("new normal", 300, CapturePriority::normal, [](Capture& c) { c.authorID = "u-2", c.windowTitle = "Home 50% off"; });
    add("mid normal", 200, CapturePriority::normal, [](Capture& c) { c.status = CaptureStatus::resolved, c.url = "https://x.test/a_b"; });
    add("newest low", 400, CapturePriority::low);
    store.softDelete(add("deleted high", 500, CapturePriority::high).id);

    const auto notes = [&](const std::function<void(CaptureQuery&)>& set) {
        CaptureQuery query;
        set(query);
        std::string out;
        for (const auto& c : store.captures(query)) out += (out.empty() ? "" : ", ") + c.note;
        return out;
    };
    const std::pair<std::function<void(CaptureQuery&)>, const char*> rows[] = {
        {[](CaptureQuery&) {}, "old high, new normal, mid normal, newest low"},
        {[](CaptureQuery& q) { q.newestFirst = false; }, "old high, mid normal, new normal, newest low"},
        {[](CaptureQuery& q) { q.limit = 2, q.offset = 1; }, "new normal, mid normal"},
        {[](CaptureQuery& q) { q.statuses = CaptureStatuses::active; }, "old high, new normal, newest low"},
        {[](CaptureQuery& q) { q.statuses = std::vector<CaptureStatus>{}; }, "old high, new normal, mid normal, newest low"},
        {[](CaptureQuery& q) { q.priority = CapturePriority::normal; }, "new normal, mid normal"},
        {[](CaptureQuery& q) { q.workspaceID = "ws-1"; }, "old high"},
        {[](CaptureQuery& q) { q.assigneeID = "u-1"; }, "old high"},
        {[](CaptureQuery& q) { q.authorID = "u-2"; }, "new normal, mid normal, newest low"},
        {[](CaptureQuery& q) { q.search = "50%"; }, "new normal"},
        {[](CaptureQuery& q) { q.search = "A_B"; }, "mid normal"},
        {[](CaptureQuery& q) { q.search = " normal"; }, "new normal, mid normal"},
        {[](CaptureQuery& q) { q.search = " new"; }, ""},
        {[](CaptureQuery& q) { q.search = " \t "; }, "old high, new normal, mid normal, newest low"},
        {[](CaptureQuery& q) { q.search = "normal", q.statuses = CaptureStatuses::active; }, "new normal"},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(notes(rows[i].first), rows[i].second) << "row " << i;
}

TEST_F(StoreTest, CountsAndTheChangeStamp) {
    EXPECT_EQ(store.changeStamp(), "0-0.0-0-0.0");
    Clock::pin(kNow + 0.5);
    const Capture a = filed("a"), b = filed("b"), odd = filed("odd");
    store.setStatus(b.id, CaptureStatus::resolved, "you");
    raw.execute("UPDATE captures SET status = 'someday', updated_at = 1716.5 WHERE id = ?;", {odd.id});
    store.softDelete(filed("gone").id);
    store.addImage(makeImage(a.id));
    store.addImage(makeImage(a.id));
    store.addComment(makeComment(b.id, "hi", "Ada", false, 5.5));
    EXPECT_EQ(store.countsByStatus(), (std::map<CaptureStatus, std::int64_t>{{CaptureStatus::open, 1}, {CaptureStatus::resolved, 1}}));
    EXPECT_EQ(store.imageCounts(), (std::map<std::string, std::int64_t>{{a.id, 2}}));
    EXPECT_EQ(store.imageCounts({b.id}), (std::map<std::string, std::int64_t>{}));
    EXPECT_EQ(store.commentCounts({a.id, b.id}), (std::map<std::string, std::int64_t>{{b.id, 1}}));
    EXPECT_EQ(store.commentCounts(), store.commentCounts({b.id}));
    EXPECT_EQ(store.changeStamp(), "4-1717000000.5-1-5.5");
}

TEST_F(StoreTest, SyncMetaReadersNeverThrow) {
    store.setSyncMeta("user_name", "Ada");
    raw.executeRaw("DROP TABLE sync_meta;");
    EXPECT_EQ(store.currentUserName(), std::nullopt);
    EXPECT_THROW(store.syncMeta("user_name"), DatabaseError);
}

}  // namespace
}  // namespace mirel::test
