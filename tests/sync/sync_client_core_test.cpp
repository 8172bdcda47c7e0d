#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace mirel {
namespace {

using test::ApiTestServer;
using test::outcome;

TEST(SyncClientRequest, MapsEveryStatusAndErrorBody) {
    struct Case {
        int status;
        std::string body;
        bool tolerate;
        std::string expected;
    };
    const Case cases[] = {
        {200, "not JSON at all", false, "ok"},
        {204, "", false, "ok"},
        {401, R"({"message":"who?"})", false, "unauthorized: Your session has expired. Sign in again to keep syncing."},
        {401, "", true, "ok"},
        {500, "", false, "server: Server error 500: Internal Server Error"},
        {403, R"({"error":{"code":"uploads_disabled","message":"x"}})", false,
         "uploadsDisabled: Screenshot uploads are switched off on this server."},
        {400, R"({"error":"bad_thing","message":"top message"})", false, "server: Server error 400: top message"},
        {409, R"({"error":{"code":"c","message":"inner"},"message":"top"})", false, "server: Server error 409: inner"},
        {404, R"({"error":{"message":5},"message":"top"})", false, "server: Server error 404: top"},
        {422, "[1,2]", false, "server: Server error 422: Unprocessable Content"},
        {599, "<html>", false, "server: Server error 599: Server Error"},
    };
    ApiTestServer server;
    const SyncClient client(server.url(), "token");
    for (const Case& c : cases) {
        server.on("POST /v1/sync", ApiTestServer::json(c.status, c.body));
        EXPECT_EQ(outcome([&] { client.request("POST", "/v1/sync", Json::object(), true, c.tolerate); }), c.expected)
            << c.status << " " << c.body;
    }
}

TEST(SyncClientRequest, SendsExactHeadersAndSortedBodiesUnderTheBasePath) {
    ApiTestServer server;
    server.on("POST /api/v1/sync", ApiTestServer::json(200, "{}"));
    server.on("GET /api/v1/me", ApiTestServer::json(200, "{}"));
    SyncClient client(server.url() + "/api/", "t0k");
    client.setClientLabel("mirel-cli 1.0");
    client.request("POST", "/v1/sync", parseJSON(R"({"b":1,"a":{"d":"x/y","c":2}})"), true, false);
    client.request("POST", "/v1/sync", parseJSON(R"({"a":{"c":2,"d":"x/y"},"b":1})"), false, false);
    client.setToken(std::nullopt);
    client.request("GET", "/v1/me", std::nullopt, true, false);

    std::vector<std::string> sent;
    for (const auto& request : server.seen()) sent.push_back(test::headerText(request) + " " + request.body);
    const std::string label = "; X-Mirel-Client: mirel-cli 1.0 ";
    const std::string body = R"({"a":{"c":2,"d":"x\/y"},"b":1})";
    EXPECT_EQ(sent, (std::vector<std::string>{
                        "; Accept: application/json; Authorization: Bearer t0k; Content-Type: application/json" +
                            label + body,
                        "; Accept: application/json; Content-Type: application/json" + label + body,
                        "; Accept: application/json" + label}));
}

// Replies of any shape end in one of the errors, within the limits and the reply cap.
TEST(SyncClientRequest, BadRepliesEndInDecodeOrOffline) {
    ApiTestServer server;
    auto repeat = [&](std::string piece, int pauseMilliseconds) {
        return [&server, piece, pauseMilliseconds](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider(
                "application/json", [=, &server](std::size_t, httplib::DataSink& sink) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMilliseconds));
                    return !server.stopping() && sink.write(piece.data(), piece.size());
                });
        };
    };
    server.on("GET /endless", repeat(std::string(1 << 20, '['), 0));
    server.on("GET /drip", repeat(" ", 300));
    server.on("GET /silent", test::silent(server));
    server.on("GET /cut", [](const httplib::Request&, httplib::Response& response) {
        response.set_content_provider(1000, "application/json", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write("{\"user\":", 8);
            return false;
        });
    });
    const SyncClient client(server.url(), "token", {std::chrono::seconds(1), std::chrono::milliseconds(1800)});
    auto call = [&](const std::string& path) {
        const std::string result = outcome([&] { client.request("GET", path, std::nullopt, true, false); });
        return result.substr(0, result.find(" — "));
    };
    EXPECT_EQ(call("/endless"), "decode: Unexpected reply from the server.");
    EXPECT_EQ(call("/drip"), "offline: Can't reach Mirel");
    EXPECT_EQ(call("/silent"), "offline: Can't reach Mirel");
    EXPECT_EQ(call("/cut"), "offline: Can't reach Mirel");
    EXPECT_TRUE(outcome([] { SyncClient(test::closedURL()).me(); }).starts_with("offline: Can't reach Mirel — "));
    EXPECT_EQ(outcome([] { SyncClient("file:///etc").request("GET", "/passwd", std::nullopt, true, false); }),
              "offline: Can't reach Mirel — the server address is not an http or https URL");
}

TEST(SyncClientRequest, CallsFromOneThreadShareOneConnectionAndACancelledCallSpoilsNone) {
    ApiTestServer api;
    api.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    api.on("GET /v1/missing", ApiTestServer::json(500, "{}"));
    api.on("GET /v1/slow", [&](const httplib::Request&, httplib::Response& response) {
        for (int i = 0; i < 200 && !api.stopping(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        response.set_content("{}", "application/json");
    });
    const SyncClient client(api.url(), "secret-token");
    client.me();
    EXPECT_TRUE(outcome([&] { client.request("GET", "/v1/missing", std::nullopt, true, false); }).starts_with("server"));
    client.me();
    Cancellation cancel;
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        cancel.cancel();
    });
    EXPECT_TRUE(outcome([&] { client.request("GET", "/v1/slow", std::nullopt, true, false, cancel); })
                    .starts_with("offline"));
    canceller.join();
    client.me();
    const auto seen = api.seen();
    ASSERT_EQ(seen.size(), 5u);
    // An error status keeps the connection; a cancelled call closes its own.
    for (std::size_t i : {1u, 2u, 3u}) EXPECT_EQ(seen[i].remotePort, seen[0].remotePort) << seen[i].target;
    EXPECT_NE(seen[4].remotePort, seen[0].remotePort);
    for (const auto& request : seen) EXPECT_EQ(request.header("Authorization"), "Bearer secret-token");
}

TEST(SyncClientRequest, RedirectsKeepTheTokenAtHomeAndStayOnHttp) {
    ApiTestServer api;
    ApiTestServer elsewhere;
    elsewhere.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    api.on("GET /v1/me", [&](const httplib::Request&, httplib::Response& response) {
        response.set_redirect(elsewhere.url() + "/v1/me");
    });
    api.on("GET /v1/sync",
           [](const httplib::Request&, httplib::Response& response) { response.set_redirect("file:///etc/passwd"); });
    const SyncClient client(api.url(), "secret-token");
    EXPECT_EQ(client.me().user.id, "u1");
    EXPECT_EQ(api.seen().at(0).header("Authorization"), "Bearer secret-token");
    EXPECT_EQ(elsewhere.seen().at(0).header("Authorization"), "(none)");
    const std::string refused = outcome([&] { client.request("GET", "/v1/sync", std::nullopt, true, false); });
    EXPECT_TRUE(refused.starts_with("offline: Can't reach Mirel — ")) << refused;
    EXPECT_EQ(refused.find("secret-token"), std::string::npos);
}

}  // namespace
}  // namespace mirel
