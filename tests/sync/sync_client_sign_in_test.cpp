#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::ApiTestServer;
using test::outcome;

TEST(DeviceSignIn, DeviceCodeFillsGapsAndRaisesTheMinimums) {
    ApiTestServer server;
    const SyncClient client(server.url(), "old-token");
    Clock::pin(1'000'000.0);
    server.on(
        "POST /api/auth/device/code",
        ApiTestServer::json(200, R"({"device_code":"dc","user_code":"WX","verification_uri":"https://x/d",)"
                                 R"("verification_uri_complete":"https://x/d?c=1","interval":1,"expires_in":30})"));
    EXPECT_EQ(client.requestDeviceCode(), (DeviceCode{"dc", "WX", "https://x/d", "https://x/d?c=1", 2.0, 1'000'060.0}));
    server.on("POST /api/auth/device/code",
              ApiTestServer::json(200, R"({"device_code":"dc","user_code":"A B","interval":"5","expires_in":900})"));
    EXPECT_EQ(client.requestDeviceCode(),
              (DeviceCode{"dc", "A B", server.url(), server.url() + "?user_code=A B", 5.0, 1'000'900.0}));
    Clock::pin(std::nullopt);
    server.on("POST /api/auth/device/code", ApiTestServer::json(200, R"({"device_code":"dc","user_code":7})"));
    EXPECT_EQ(outcome([&] { client.requestDeviceCode(); }), "decode: Unexpected reply from the server.");

    EXPECT_EQ(server.seen().at(0).header("Authorization") + " " + server.seen().at(0).body,
              R"((none) {"client_id":"mirel-desktop","scope":"openid profile email"})");
}

TEST(DeviceSignIn, PollMapsEveryAnswer) {
    struct Case {
        int status;
        std::string body;
        std::string expected;
    };
    const Case cases[] = {
        {200, R"({"access_token":"abc","refresh_token":"r"})", "token abc"},
        {201, R"({"access_token":"abc"})", "server: Server error 201: device token"},
        {400, R"({"error":"authorization_pending"})", "pending"},
        {400, "<html>", "pending"},
        {400, R"({"code":"slow_down"})", "slowDown"},
        {401, R"({"error":7,"code":"slow_down"})", "slowDown"},
        {400, R"({"error":"access_denied"})", "denied"},
        {403, R"({"error":"expired_token","code":"slow_down"})", "expired"},
        {500, "<html>", "server: Server error 500: device token"},
        {502, R"({"error":"upstream","message":"gateway down"})", "server: Server error 502: gateway down"},
    };
    const char* const words[] = {"token", "pending", "slowDown", "denied", "expired"};
    ApiTestServer server;
    const SyncClient client(server.url());
    for (const Case& c : cases) {
        server.on("POST /api/auth/device/token", ApiTestServer::json(c.status, c.body));
        std::string result;
        const std::string failure = outcome([&] {
            const DevicePoll poll = client.pollDeviceToken({"secret-code", "U", "", "", 2.0, 0});
            result = words[static_cast<int>(poll.kind)] + (poll.token.empty() ? "" : " " + poll.token);
        });
        EXPECT_EQ(failure == "ok" ? result : failure, c.expected) << c.status << " " << c.body;
    }
    EXPECT_EQ(server.seen().at(0).body, R"({"client_id":"mirel-desktop","device_code":"secret-code",)"
                                        R"("grant_type":"urn:ietf:params:oauth:grant-type:device_code"})");
}

TEST(DeviceSignIn, SignOutSendsTheTokenAndNeverFails) {
    ApiTestServer server;
    server.on("POST /api/auth/sign-out", ApiTestServer::json(500, "nonsense"));
    SyncClient(server.url(), "tok").signOut();
    EXPECT_EQ(server.seen().at(0).header("Authorization") + " " + server.seen().at(0).body, "Bearer tok {}");
    SyncClient(test::closedURL(), "tok").signOut();
}

}  // namespace
}  // namespace mirel
