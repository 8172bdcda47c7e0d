#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

#include <atomic>

namespace mirel {
namespace {

using test::ApiTestServer;
using test::outcome;

TEST(AccountCalls, MeReadsTolerantlyAndNeedsOnlyTheIdentity) {
    ApiTestServer server;
    const SyncClient client(server.url(), "tok");
    server.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    EXPECT_EQ(client.me(), (AccountInfo{Person{"u1", "You", std::nullopt, std::nullopt, "person"}, {}, {}}));

    server.on("GET /v1/me", ApiTestServer::json(200, R"({
        "user": {"id": "u2", "name": "Ada", "email": "ada@x", "image": "https://x/a.png", "kind": "bot"},
        "workspaces": [
            {"id": "w1", "name": "One", "slug": "one", "role": "owner", "settings": {"b": 1, "a": 2}},
            {"id": "w2", "name": "No slug"},
            {"id": "w3", "name": "Three", "slug": "three", "role": 5, "settings": "raw"}],
        "features": {"uploads": true, "beta": "yes", "old": false}})"));
    EXPECT_EQ(
        client.me(),
        (AccountInfo{Person{"u2", "Ada", "ada@x", "https://x/a.png", "bot"},
                     {{"w1", "One", "one", "owner", R"({"a":2,"b":1})"}, {"w3", "Three", "three", "member", "raw"}},
                     {{"old", false}, {"uploads", true}}}));

    server.on("GET /v1/me",
              ApiTestServer::json(200, R"({"user":{"id":"u"},"workspaces":[{"id":"w","name":"n","slug":"s"},3]})"));
    EXPECT_TRUE(client.me().workspaces.empty());
    server.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"name":"x"}})"));
    EXPECT_EQ(outcome([&] { client.me(); }), "decode: Unexpected reply from the server.");
}

TEST(AccountCalls, DeviceSyncAndReconcileSendTheirBodies) {
    ApiTestServer server;
    const SyncClient client(server.url(), "tok");
    server.on("POST /v1/devices", ApiTestServer::json(201, ""));
    server.on("POST /v1/sync", ApiTestServer::json(200, "{}"));
    server.on("POST /v1/sync/reconcile", ApiTestServer::json(200, R"({"drop":["c1",2,""],"missing":"x"})"));

    client.registerDevice("d1", "Box", SyncClient::devicePlatform, std::nullopt);
    EXPECT_EQ(client.sync({{"cursor", 0}, {"changes", Json::array()}}), Json::object());
    EXPECT_EQ(client.reconcile({}), (ReconcileResult{{"c1", ""}, {}}));
    const auto seen = server.seen();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].body, R"({"app_version":null,"id":"d1","name":"Box","platform":"linux"})");
    EXPECT_EQ(seen[1].body, R"({"changes":[],"cursor":0})");
    EXPECT_EQ(seen[2].body, R"({"capture_ids":[]})");

    server.on("POST /v1/sync", ApiTestServer::json(200, "[]"));
    EXPECT_EQ(outcome([&] { client.sync(Json::object()); }), "decode: Unexpected reply from the server.");
}

TEST(EventStream, RequestCarriesTheTokenOfTheMomentAndLinesArriveAsTheyCome) {
    ApiTestServer server;
    SyncClient client(server.url() + "/");
    const HttpRequest anonymous = client.events("w/../1?#");
    EXPECT_EQ(anonymous.url, server.url() + "/v1/events?workspace=w%2F%2E%2E%2F1%3F%23");
    EXPECT_EQ(anonymous.headers, (decltype(anonymous.headers){{"Accept", "text/event-stream"}}));
    EXPECT_EQ(anonymous.limits.silence, std::chrono::seconds(3600));
    client.setToken("tok");
    client.setClientLabel("cli");
    const HttpRequest request = client.events();
    EXPECT_EQ(request.headers,
              (decltype(request.headers){
                  {"Accept", "text/event-stream"}, {"X-Mirel-Client", "cli"}, {"Authorization", "Bearer tok"}}));

    // Pieces cut across line endings; after them the stream stays open and silent.
    server.on("GET /v1/events", [&](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("text/event-stream", [&](std::size_t offset, httplib::DataSink& sink) {
            if (offset == 0) return sink.write("event: change\r", 14);
            if (offset == 14) return sink.write("\ndata: {}\n\nevent: o", 19);
            if (offset == 33) return sink.write("ther\r\r", 6);
            test::waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
            return false;
        });
    });
    // Another thread's cancellation ends the silent wait at once.
    std::vector<std::string> lines;
    std::atomic<std::size_t> count = 0;
    const Cancellation cancel;
    std::thread canceller([&] {
        test::waitUntil([&] { return count == 5; }, std::chrono::seconds(5));
        cancel.cancel();
    });
    const std::string ended = outcome([&] {
        Http::streamLines(
            request,
            [&](std::string_view line) {
                lines.emplace_back(line);
                ++count;
            },
            cancel);
    });
    canceller.join();
    EXPECT_EQ(ended, "transfer: The request was cancelled.");
    EXPECT_EQ(lines, (std::vector<std::string>{"event: change", "data: {}", "", "event: other", ""}));

    server.on("GET /v1/events", ApiTestServer::json(401, R"({"message":"no"})"));
    EXPECT_EQ(Http::streamLines(request, [&](std::string_view) { ADD_FAILURE() << "read a refused stream"; }, {}), 401);
}

}  // namespace
}  // namespace mirel
