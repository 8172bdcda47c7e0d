#include "tests/sync/sync_fixture.h"

namespace mirel::test {

namespace {

class RemotePeople : public SyncStoreTest {
protected:
    Capture owner = seedShared();

    void SetUp() override {
        store.setSyncMeta("user_id", "me");
        store.setSyncMeta("user_name", "Ada");
        db().executeRaw("INSERT INTO people (id, name, email, kind, updated_at) VALUES "
                        "('me', 'Ada', 'ada@example.com', 'person', 1), ('p2', 'Grace', NULL, 'person', 1);");
    }
    Json on(const std::string& id, const std::string& rest) {
        Json remote = object("{" + rest + "}");
        remote["id"] = id, remote["capture_id"] = owner.id;
        return remote;
    }
};

}  // namespace

TEST_F(RemotePeople, CommentsAndHistoryLinesAreAttributed) {
    const std::pair<const char*, const char*> comments[] = {
        // the object's author fields; author and is_agent stored
        {R"("author_id":"me")", "you|0"}, {R"("author_id":"me","actor_label":"Ada")", "you|0"},
        {R"("author_id":"me","actor_label":"Claude · Ada")", "Claude · Ada|1"}, {R"("author_id":"p2")", "Grace|0"},
        {R"("author_id":"p9")", "someone|0"}, {"", "someone|0"},
        {R"("author_id":"p2","actor_label":"Merge","kind":"conflict")", "Merge|0"},  // never an agent's
    };
    int n = 0;
    for (const auto& [fields, expected] : comments) {
        const std::string id = std::to_string(++n) + "c";
        store.applyRemoteComment(on(id, fields));
        EXPECT_EQ(cells("comments", id, "author, is_agent"), expected) << fields;
    }

    // An echo of a comment pushed from here updates text and state, never its date.
    Comment mine = makeComment(owner.id, "Draft");
    mine.syncState = SyncState::pendingPush;
    seedComment(db(), mine);
    store.applyRemoteComment(on(mine.id, R"("body":"Final","created_at":1717200000)"));
    EXPECT_EQ(cells("comments", mine.id, "body, sync_state, created_at"), "Final|synced|1714521600");
    store.applyRemoteComment(on(mine.id, R"("deleted_at":1717200000)"));
    EXPECT_FALSE(rowExists("comments", mine.id));

    // History lines: a local line of the kind less than 90 s away is the same event.
    store.recordActivity(owner.id, "status_changed", "", "you", "local", kSeedDate, "me", false);
    const std::pair<const char*, const char*> lines[] = {
        // the object; actor and detail stored, "" for none
        {R"("kind":"status_changed","created_at":1714521689)", ""},
        {R"("kind":"status_changed","created_at":1714521690,"actor_id":"me","detail":{"from":"open","to":"in_progress"})",
         "you|open → in progress"},
        {R"("kind":"assigned","created_at":1714521600,"actor_id":"p2","detail":{"assignee_id":"me"})", "Grace|Ada"},
        {R"("kind":"claimed","actor_id":"me","actor_label":"Claude · Ada")", "Claude · Ada|"},
        {R"("kind":"created","detail":{"mode":"window"})", "someone|Window"},
    };
    n = 0;
    for (const auto& [fields, expected] : lines) {
        const std::string id = std::to_string(++n) + "a";
        store.applyRemoteActivity(on(id, fields));
        EXPECT_EQ(cells("activity", id, "actor, detail"), expected) << fields;
    }
    // The same id twice leaves one row, unchanged.
    store.applyRemoteActivity(on("2a", R"("kind":"moved","created_at":1)"));
    EXPECT_EQ(text("activity", "2a", "kind"), "status_changed");
}

TEST_F(RemotePeople, PeopleAndWorkspaces) {
    store.applyRemotePerson(object(R"({"id":"me","name":"Ada L.","image":"","image_url":"https://img/a.png"})"));
    EXPECT_EQ(cells("people", "me", "email, image_url"), "ada@example.com|https://img/a.png");  // absent email: kept
    store.applyRemotePerson(object(R"({"id":"me","image":"file:///etc/passwd"})"));
    EXPECT_EQ(cells("people", "me", "name, image_url"), "Someone|NULL");  // only web pictures
    store.applyRemotePerson(object(R"({"id":"b1","name":"alpha bot","kind":"bot"})"));
    store.applyRemotePerson(object(R"({"id":"p3","name":"zed"})"));
    std::vector<std::string> order;
    for (const Person& p : store.assignableCandidates()) order.push_back(p.name);
    EXPECT_EQ(order, (std::vector<std::string>{"Grace", "Someone", "zed", "alpha bot"}));

    store.replaceWorkspaces({Workspace{"w2", "beta", "b", "owner", std::nullopt},
                             Workspace{"w1", "Alpha", "a", "member", "{}"}});
    EXPECT_EQ(store.workspaces().front().id, "w1");
    store.replaceWorkspaces({});
    EXPECT_TRUE(store.workspaces().empty());
}

}  // namespace mirel::test
