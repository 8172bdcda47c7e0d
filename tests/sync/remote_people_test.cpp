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

    Json on(const std::string& delta) {
        Json remote = object(delta);
        remote["capture_id"] = owner.id;
        return remote;
    }
};

}  // namespace

TEST_F(RemotePeople, CommentAttribution) {
    struct Case {
        const char* name;
        const char* object;
        const char* author;
        bool isAgent;
    };
    const Case cases[] = {
        {"own comment without a label", R"({"author_id":"me"})", "you", false},
        {"own comment labelled with the own name", R"({"author_id":"me","actor_label":"Ada"})", "you", false},
        {"an agent under the user's account", R"({"author_id":"me","actor_label":"Claude · Ada"})", "Claude · Ada",
         true},
        {"another person", R"({"author_id":"p2"})", "Grace", false},
        {"an unknown person", R"({"author_id":"p9"})", "someone", false},
        {"nobody at all", R"({})", "someone", false},
        {"a conflict note is never an agent's", R"({"author_id":"p2","actor_label":"Merge","kind":"conflict"})",
         "Merge", false},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string id = std::to_string(++n) + "c";
        Json remote = on(c.object);
        remote["id"] = id;
        store.applyRemoteComment(remote);
        EXPECT_EQ(text("comments", id, "author"), c.author);
        EXPECT_EQ(integer("comments", id, "is_agent"), c.isAgent ? 1 : 0);
    }

    // An echo of a comment pushed from here updates text and state, never its date.
    Comment mine = makeComment(owner.id, "Draft");
    mine.syncState = SyncState::pendingPush;
    seedComment(db(), mine);
    store.applyRemoteComment(on(R"({"id":")" + mine.id + R"(","body":"Final","created_at":1717200000})"));
    EXPECT_EQ(text("comments", mine.id, "body"), "Final");
    EXPECT_EQ(syncStateOf("comments", mine.id), "synced");
    EXPECT_EQ(readColumn("comments", mine.id, "created_at"), SQLValue(kSeedDate));
    store.applyRemoteComment(on(R"({"id":")" + mine.id + R"(","deleted_at":1717200000})"));
    EXPECT_FALSE(rowExists("comments", mine.id));
}

TEST_F(RemotePeople, ActivityEchoesAndActors) {
    seedActivity(db(), ActivityEvent{"local", owner.id, "status_changed", "", "you", kSeedDate, "me", false});
    struct Case {
        const char* name;
        std::string object;
        std::optional<std::string> actor;  // absent: not stored
        std::string detail;
    };
    const Case cases[] = {
        {"89 s from a local line of the kind: the same event",
         R"({"kind":"status_changed","created_at":1714521689})", std::nullopt, ""},
        {"90 s away: another event", R"({"kind":"status_changed","created_at":1714521690,"actor_id":"me",
             "detail":{"from":"open","to":"in_progress"}})", "you", "open → in progress"},
        {"another kind", R"({"kind":"assigned","created_at":1714521600,"actor_id":"p2",
             "detail":{"assignee_id":"me"}})", "Grace", "Ada"},
        {"the user's id with a label that is not the user's name",
         R"({"kind":"claimed","actor_id":"me","actor_label":"Claude · Ada"})", "Claude · Ada", ""},
        {"no actor at all", R"({"kind":"created","detail":{"mode":"window"}})", "someone", "Window"},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string id = std::to_string(++n) + "a";
        Json remote = on(c.object);
        remote["id"] = id;
        store.applyRemoteActivity(remote);
        EXPECT_EQ(text("activity", id, "actor"), c.actor);
        if (c.actor) {
            EXPECT_EQ(text("activity", id, "detail"), c.detail);
        }
    }
    // The same id twice leaves one row, unchanged.
    store.applyRemoteActivity(on(R"({"id":"2a","kind":"moved","created_at":1})"));
    EXPECT_EQ(text("activity", "2a", "kind"), "status_changed");
}

TEST_F(RemotePeople, PeopleAndWorkspaces) {
    store.applyRemotePerson(object(R"({"id":"me","name":"Ada L.","image":"","image_url":"https://img/a.png"})"));
    EXPECT_EQ(store.person("me")->email, "ada@example.com");  // absent email keeps the stored one
    EXPECT_EQ(store.person("me")->imageURL, "https://img/a.png");
    store.applyRemotePerson(object(R"({"id":"me","image":"file:///etc/passwd"})"));
    EXPECT_EQ(store.person("me")->imageURL, std::nullopt);  // only web pictures
    EXPECT_EQ(store.person("me")->name, "Someone");
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
