// Two users in different workspaces see and reach only their own, and a
// device learns when the user gains or loses a workspace.
#include "tests/server/two_teams.h"

#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

using WorkspaceAccessTest = TwoTeamsTest;

std::vector<std::string> ids(const Json& reply, const char* table) {
    std::vector<std::string> found;
    for (const auto& change : reply["changes"]) {
        if (change["table"] == table) found.push_back(change["row"]["id"]);
    }
    return found;
}

TEST_F(WorkspaceAccessTest, AUserReachesOnlyTheirOwnWorkspaces) {
    const Json pushed = server.sync(ann, 0, Json::array({{{"table", "captures"}, {"id", "c1"}, {"base_version", 0},
                                                   {"patch", {{"workspace_id", acme}, {"note", "Ann's"}}}}}));
    ASSERT_EQ(pushed["results"][0]["status"], "applied");

    const Json bobsView = server.sync(bob, 0);
    EXPECT_TRUE(ids(bobsView, "captures").empty());
    EXPECT_EQ(bobsView["people"].size(), 1u) << "only the people Bob shares a workspace with";
    const std::string sha = ContentHash::sha256(std::string_view("x"));
    EXPECT_EQ(server.call("POST", "/v1/uploads", Json{{"workspace_id", acme}, {"sha256", sha}, {"bytes", 1}}, bob).status, 404);
    EXPECT_EQ(server.call("GET", "/v1/blobs/" + acme + "/" + sha, std::nullopt, bob).status, 404);
    EXPECT_EQ(server.call("GET", "/v1/events?workspace=" + acme, std::nullopt, bob).status, 404);
    const Json edit = server.sync(bob, 0, Json::array({{{"table", "captures"}, {"id", "c1"}, {"base_version", 1},
                                                 {"patch", {{"note", "Bob's now"}}}}}));
    EXPECT_EQ(std::pair(edit["results"][0]["status"], edit["results"][0]["retry"]), std::pair(Json("rejected"), Json(false)));
    EXPECT_EQ(server.call("GET", "/v1/me", std::nullopt, "not-a-token").status, 401);
    EXPECT_EQ(server.call("POST", "/v1/sync", Json::object()).status, 401);
    // A good token under another scheme is no bearer token.
    httplib::Client client("127.0.0.1", server.port());
    EXPECT_EQ(client.Get("/v1/me", {{"Authorization", "Token: " + ann}})->status, 401);
}

TEST_F(WorkspaceAccessTest, JoiningAskForAFreshStartAndLeavingDropsTheWorkspace) {
    server.sync(ann, 0, Json::array({{{"table", "captures"}, {"id", "c1"}, {"base_version", 0},
                               {"patch", {{"workspace_id", acme}, {"note", "older than Bob's cursor"}}}}}));
    const std::int64_t cursor = server.sync(bob, 0)["cursor"];
    ASSERT_EQ(server.admin({"workspace", "add-member", "acme", "bob@example.com"}).status, 0);

    const Json resync{{{"id", "workspace:" + acme}}};
    EXPECT_EQ(server.sync(bob, cursor)["resync_groups"], resync);
    EXPECT_EQ(server.sync(bob, cursor)["resync_groups"], resync) << "asked again until the device starts over";
    const Json fresh = server.sync(bob, 0);
    EXPECT_EQ(ids(fresh, "captures"), std::vector<std::string>{"c1"});
    EXPECT_EQ(server.sync(bob, fresh["cursor"])["resync_groups"], Json::array());
    // A member, Bob may still not rewrite what Ann wrote.
    server.sync(ann, 0, Json::array({{{"table", "comments"}, {"id", "m1"},
                                      {"patch", {{"capture_id", "c1"}, {"body", "Ann's"}, {"kind", "comment"}}}}}));
    const Json rewrite = server.sync(bob, 0, Json::array({{{"table", "comments"}, {"id", "m1"}, {"base_version", 1},
                                                           {"patch", {{"body", "Bob's now"}}}}}));
    EXPECT_EQ(rewrite["results"][0].value("reason", ""), "only its author can change a comment");

    ASSERT_EQ(server.admin({"workspace", "remove-member", "acme", "bob@example.com"}).status, 0);
    const Json after = server.sync(bob, fresh["cursor"]);
    EXPECT_EQ(after["dropped_workspaces"], Json::array({acme}));
    EXPECT_EQ(server.sync(bob, after["cursor"])["dropped_workspaces"], Json::array());

    // The daily check drops what Bob may no longer hold, and names what Ann lacks.
    const Json check = server.call("POST", "/v1/sync/reconcile", Json{{"capture_ids", {"c1", "never-seen"}}}, bob).body;
    EXPECT_EQ(check, Json({{"drop", {"c1"}}, {"missing", Json::array()}}));
    EXPECT_EQ(server.call("POST", "/v1/sync/reconcile", Json{{"capture_ids", Json::array()}}, ann).body,
              Json({{"drop", Json::array()}, {"missing", {"c1"}}}));
}

TEST_F(WorkspaceAccessTest, TheAdminRefusesAWorkspaceItCannotKeepAndAddsNothing) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"workspace", "add", "new", "--name", std::string(201, 'n')}, "the name must be 1 to 200 characters"},
        {{"workspace", "add", "Not A Slug", "--name", "N"}, "a slug is 1 to 40 of a-z, 0-9 and -"},
        {{"workspace", "add", "acme", "--name", "Again"}, "the workspace acme exists already"},
    };
    for (const auto& [words, error] : rows) {
        const auto refused = server.admin(words);
        EXPECT_EQ(std::pair(refused.status, refused.text), std::pair(1, "mirel-server: " + error + "\n"));
    }
    const auto bare = server.admin({"workspace"});
    EXPECT_TRUE(bare.status == 2 && bare.text.starts_with("mirel-server: workspace add SLUG --name NAME")) << bare.text;
    EXPECT_TRUE(server.admin({"--help"}).text.starts_with("usage: mirel-server --data DIR")) << "and nothing else starts";
    EXPECT_TRUE(server.admin({"--listen"}).text.starts_with("mirel-server: --listen needs a value\n"));
    const std::string listed = server.admin({"workspace", "list"}).text;
    EXPECT_NE(listed.find("acme\tAcme\t"), std::string::npos) << listed;
    EXPECT_EQ(listed.find("new\t"), std::string::npos) << listed;
}

}  // namespace
}  // namespace mirel::test
