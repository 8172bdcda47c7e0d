// Device sign-in as a client and a browser see it, and what a client can't
// see: the token never rests in the data folder.
#include "tests/support/image_files.h"
#include "tests/support/server_process.h"

#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

const Json kCodeRequest{{"client_id", "mirel-desktop"}, {"scope", "openid profile email"}};

class SignInTest : public ::testing::Test {
protected:
    void SetUp() override { server.addUser("ann@example.com", "Ann"); }

    Json requestCode() { return server.call("POST", "/api/auth/device/code", kCodeRequest).body; }

    // Posts the verification page's form as a browser would.
    httplib::Result submitPage(const std::string& fields) {
        httplib::Client browser("127.0.0.1", server.port());
        return browser.Post("/device", fields, "application/x-www-form-urlencoded");
    }

    ServerProcess server;
};

TEST_F(SignInTest, BrowserApprovalGivesATokenThatOnlyItsHashRemembersAndSignOutEnds) {
    const Json code = requestCode();
    EXPECT_EQ(code["verification_uri"], server.url() + "/device");
    EXPECT_EQ(code["verification_uri_complete"], server.url() + "/device?user_code=" + code["user_code"].get<std::string>());
    EXPECT_EQ(std::pair(code["interval"], code["expires_in"]), std::pair(Json(2), Json(600)));

    auto pending = server.pollToken(code["device_code"]);
    EXPECT_EQ(std::pair(pending.status, pending.body["error"]), std::pair(400, Json("authorization_pending")));
    EXPECT_EQ(server.pollToken(code["device_code"]).body["error"], "slow_down") << "a second poll at once is too fast";

    httplib::Client browser("127.0.0.1", server.port());
    auto page = browser.Get("/device?user_code=" + code["user_code"].get<std::string>());
    ASSERT_TRUE(page);
    EXPECT_NE(page->body.find("value=\"" + code["user_code"].get<std::string>() + "\""), std::string::npos);
    EXPECT_EQ(page->get_header_value("X-Frame-Options"), "DENY");

    // The code is typed loosely; a wrong password is refused and says so.
    std::string typed = code["user_code"].get<std::string>();
    typed.erase(4, 1);
    for (auto& c : typed) c = static_cast<char>(std::tolower(c));
    auto wrong = submitPage("user_code=" + typed + "&email=ann%40example.com&password=nope&decision=approve");
    ASSERT_TRUE(wrong);
    EXPECT_TRUE(wrong->status == 403 && wrong->body.find("E-mail or password is wrong.") != std::string::npos) << wrong->body;
    auto right = submitPage("user_code=" + typed + "&email=ann%40example.com&password=correct+horse+battery&decision=approve");
    ASSERT_TRUE(right);
    EXPECT_EQ(right->status, 200);
    EXPECT_NE(right->body.find("Signed in as ann@example.com"), std::string::npos);

    auto granted = server.pollToken(code["device_code"]);
    ASSERT_EQ(granted.status, 200) << granted.text;
    const std::string token = granted.body["access_token"];
    EXPECT_EQ(token.size(), 64u);
    EXPECT_EQ(server.pollToken(code["device_code"]).body["error"], "expired_token") << "a code gives one token";

    EXPECT_EQ(server.call("GET", "/v1/me", std::nullopt, token).body["user"]["email"], "ann@example.com");

    std::string stored;  // every file of the data folder
    for (const auto& entry : std::filesystem::directory_iterator(server.data()))
        if (entry.is_regular_file()) stored += readBytes(entry.path());
    EXPECT_EQ(stored.find(token), std::string::npos) << "the token itself is in the data folder";
    EXPECT_NE(stored.find(ContentHash::sha256(token)), std::string::npos);

    EXPECT_EQ(server.call("POST", "/api/auth/sign-out", Json::object(), token).status, 200);
    auto after = server.call("GET", "/v1/me", std::nullopt, token);
    EXPECT_EQ(std::pair(after.status, after.body["error"]["code"]), std::pair(401, Json("unauthorized")));
}

TEST_F(SignInTest, DeniedAndUnknownCodesEndThePolling) {
    const Json code = requestCode();
    EXPECT_EQ(submitPage("user_code=" + code["user_code"].get<std::string>() + "&decision=deny")->status, 200);
    EXPECT_EQ(server.pollToken(code["device_code"]).body["error"], "access_denied");
    EXPECT_EQ(server.pollToken("0000").body["error"], "expired_token");

    auto approveTwice = server.admin({"approve", code["user_code"], "--user", "ann@example.com"});
    EXPECT_TRUE(approveTwice.status == 1 && approveTwice.text.find("unknown or has expired") != std::string::npos) << approveTwice.text;
}

TEST_F(SignInTest, ANewPasswordEndsTheSessionsOfTheOldOne) {
    const std::string token = server.signIn("ann@example.com");
    ASSERT_EQ(server.call("GET", "/v1/me", std::nullopt, token).status, 200);
    const auto changed = server.admin({"user", "password", "ann@example.com"}, "a new long password\n");
    EXPECT_EQ(changed.status, 0) << changed.text;
    EXPECT_EQ(server.call("GET", "/v1/me", std::nullopt, token).status, 401);
    EXPECT_EQ(server.admin({"user", "password", "nobody@example.com"}, "a new long password\n").text,
              "mirel-server: no user has the e-mail nobody@example.com\n");
}

}  // namespace
}  // namespace mirel::test
