#include "core/sync/sync_client.h"
#include "tests/support/api_test_server.h"
#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

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
        {500, "", true, "ok"},
        {500, "", false, "server: Server error 500: Internal Server Error"},
        {403, R"({"error":{"code":"uploads_disabled","message":"whatever"}})", false,
         "uploadsDisabled: Screenshot uploads are switched off on this server."},
        {400, R"({"error":"bad_thing","message":"top message"})", false, "server: Server error 400: top message"},
        {409, R"({"error":{"code":"conflict","message":"inner message"},"message":"top"})", false,
         "server: Server error 409: inner message"},
        {404, R"({"error":{"message":5},"message":"top"})", false, "server: Server error 404: top"},
        {422, "[1,2]", false, "server: Server error 422: Unprocessable Content"},
        {599, "<html>oops</html>", false, "server: Server error 599: Server Error"},
    };
    ApiTestServer server;
    const SyncClient client(server.url(), "token");
    for (const Case& c : cases) {
        server.on("POST /v1/sync", ApiTestServer::json(c.status, c.body));
        EXPECT_EQ(outcome([&] { client.request("POST", "/v1/sync", Json::object(), true, c.tolerate); }), c.expected)
            << c.status << " " << c.body;
    }
}

TEST(SyncClientRequest, SendsExactHeadersAndSortedBodyUnderTheBasePath) {
    ApiTestServer server;
    server.on("POST /api/v1/sync", ApiTestServer::json(200, "{}"));
    server.on("GET /api/v1/me", ApiTestServer::json(200, "{}"));
    SyncClient client(server.url() + "/api/", "t0k");
    client.setClientLabel("mirel-cli 1.0");
    client.request("POST", "/v1/sync", parseJSON(R"({"b":1,"a":{"d":"x/y","c":2}})"), true, false);
    client.request("POST", "/v1/sync", parseJSON(R"({"a":{"c":2,"d":"x/y"},"b":1})"), false, false);
    client.setToken(std::nullopt);
    client.request("GET", "/v1/me", std::nullopt, true, false);

    const auto seen = server.seen();
    ASSERT_EQ(seen.size(), 3u);
    auto headerLines = [](const ApiTestServer::Seen& request) {
        std::string lines;
        for (const auto& [name, value] : request.headers) {
            if (name != "Host" && name != "Content-Length") lines += name + ": " + value + "\n";
        }
        return lines;
    };
    EXPECT_EQ(headerLines(seen[0]),
              "Accept: application/json\nAuthorization: Bearer t0k\nContent-Type: application/json\n"
              "X-Mirel-Client: mirel-cli 1.0\n");
    EXPECT_EQ(seen[0].body, R"({"a":{"c":2,"d":"x\/y"},"b":1})");
    EXPECT_EQ(seen[1].body, seen[0].body);
    EXPECT_EQ(seen[1].header("Authorization"), "(none)");
    EXPECT_EQ(headerLines(seen[2]), "Accept: application/json\nX-Mirel-Client: mirel-cli 1.0\n");
    EXPECT_EQ(seen[2].body, "");
}

// Replies of any shape end in one of the three errors, within the limits and the reply cap.
TEST(SyncClientRequest, BadRepliesEndInDecodeOrOffline) {
    ApiTestServer server;
    // Holds its answer back until the test ends (or 20 s): only the limits can end the call.
    auto silent = [&](const httplib::Request&, httplib::Response& response) {
        test::waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
        response.set_content("{}", "application/json");
    };
    auto drip = [&](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("application/json", [&](std::size_t, httplib::DataSink& sink) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            return !server.stopping() && sink.write(" ", 1);
        });
    };
    auto cutShort = [](const httplib::Request&, httplib::Response& response) {
        response.set_content_provider(1000, "application/json", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write("{\"user\":", 8);
            return false;
        });
    };
    server.on("GET /big", server.endless(' ', 100u << 20));
    server.on("GET /endless", server.endless('['));
    server.on("GET /silent", silent);
    server.on("GET /drip", drip);
    server.on("GET /cut", cutShort);
    const SyncClient client(server.url(), "token", test::quickLimits);
    auto call = [&](const std::string& path) { return outcome([&] { client.request("GET", path, std::nullopt, true, false); }); };
    EXPECT_EQ(call("/big"), "decode: Unexpected reply from the server.");
    EXPECT_EQ(call("/endless"), "decode: Unexpected reply from the server.");
    EXPECT_EQ(call("/silent").rfind("offline: Can't reach Mirel — ", 0), 0u) << call("/silent");
    EXPECT_EQ(call("/drip").rfind("offline: ", 0), 0u);
    EXPECT_EQ(call("/cut").rfind("offline: ", 0), 0u);

    std::string closedPort;
    {
        ApiTestServer gone;
        closedPort = gone.url();
    }
    EXPECT_EQ(outcome([&] { SyncClient(closedPort).request("GET", "/v1/me", std::nullopt, true, false); }).rfind(
                  "offline: Can't reach Mirel — ", 0),
              0u);
    EXPECT_EQ(outcome([&] { SyncClient("file:///etc").request("GET", "/passwd", std::nullopt, true, false); }),
              "offline: Can't reach Mirel — the server address is not an http or https URL");
}

TEST(SyncClientRequest, CancellingFromAnotherThreadEndsAWaitingCallAtOnce) {
    ApiTestServer server;
    server.on("GET /v1/me", [&](const httplib::Request&, httplib::Response& response) {
        test::waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
        response.set_content("{}", "application/json");
    });
    const SyncClient client(server.url(), "token");
    const Cancellation cancel;
    std::thread canceller([&] {
        test::waitUntil([&] { return !server.seen().empty(); }, std::chrono::seconds(5));
        cancel.cancel();
    });
    EXPECT_EQ(outcome([&] { client.me(cancel); }), "offline: Can't reach Mirel — The request was cancelled.");
    canceller.join();
    // A raised flag ends later calls before they send anything.
    EXPECT_EQ(outcome([&] { client.me(cancel); }), "offline: Can't reach Mirel — The request was cancelled.");
    EXPECT_EQ(server.seen().size(), 1u);
}

TEST(SyncClientRequest, RedirectsKeepTheTokenAtHomeAndStayOnHttp) {
    ApiTestServer api;
    ApiTestServer elsewhere;
    elsewhere.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    api.on("GET /v1/me", [&](const httplib::Request&, httplib::Response& response) {
        response.set_redirect(elsewhere.url() + "/v1/me");
    });
    api.on("GET /v1/sync", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect("file:///etc/passwd");
    });
    const SyncClient client(api.url(), "secret-token");
    EXPECT_EQ(client.me().user.id, "u1");
    EXPECT_EQ(api.seen().at(0).header("Authorization"), "Bearer secret-token");
    EXPECT_EQ(elsewhere.seen().at(0).header("Authorization"), "(none)");

    const std::string refused = outcome([&] { client.request("GET", "/v1/sync", std::nullopt, true, false); });
    EXPECT_EQ(refused.rfind("offline: ", 0), 0u) << refused;
    EXPECT_EQ(refused.find("secret-token"), std::string::npos);
}

}  // namespace
}  // namespace mirel
