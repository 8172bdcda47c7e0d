// Blob transfer through signed URLs: what a client can't see is that the
// links are bound to one file, one size and one time, and that bytes which
// don't match their hash are never kept.
#include "tests/support/server_process.h"

#include "core/sync/content_hash.h"

#include <gtest/gtest.h>

#include <thread>

namespace mirel::test {
namespace {

const std::string kBytes = "\x89PNG\r\n\x1a\n pretend pixels";

class BlobsTest : public ::testing::Test {
protected:
    void start(std::vector<std::string> options = {}) {
        server = std::make_unique<ServerProcess>(std::move(options));
        server->addUser("ann@example.com", "Ann");
        server->addWorkspace("acme", "Acme", {"ann@example.com"});
        token = server->signIn("ann@example.com");
        ws = server->workspaceID(token, "acme");
    }

    Json announce(const std::string& sha, std::size_t bytes, const char* path = "/v1/uploads") {
        auto reply = server->call("POST", path,
                                  Json{{"workspace_id", ws}, {"sha256", sha}, {"bytes", bytes}, {"content_type", "image/png"}},
                                  token);
        last = reply.status;
        return reply.body;
    }

    // A transfer to a URL the server handed out, without the bearer token, on a connection meant to be kept.
    httplib::Result transfer(const std::string& method, const std::string& url, const std::string& body = "") {
        httplib::Client storage("127.0.0.1", server->port());
        storage.set_keep_alive(true);
        const std::string path = url.substr(server->url().size());
        return method == "PUT" ? storage.Put(path, body, "image/png") : storage.Get(path);
    }

    std::unique_ptr<ServerProcess> server;
    std::string token;
    std::string ws;
    int last = 0;
};

TEST_F(BlobsTest, BytesAreKeptOnlyWhenHashAndSizeMatchAndLinksAreBoundToTheirFile) {
    start();
    const std::string sha = ContentHash::sha256(kBytes);
    const Json offer = announce(sha, kBytes.size());
    ASSERT_TRUE(offer["url"].is_string()) << offer;
    EXPECT_EQ(offer["method"], "PUT");
    EXPECT_EQ(offer["headers"], Json({{"Content-Type", "image/png"}}));
    const std::string url = offer["url"];

    std::string forged = kBytes;
    forged[10] = 'X';
    auto refused = transfer("PUT", url, forged);
    ASSERT_TRUE(refused);
    // A refusal ends the kept connection: what is left of its body must not be read as a request.
    EXPECT_EQ(std::to_string(refused->status) + " " + refused->get_header_value("Connection"), "422 close");
    EXPECT_NE(refused->body.find("hash_mismatch"), std::string::npos);
    EXPECT_EQ(transfer("PUT", url, kBytes + "more")->status, 400) << "a longer body than announced";
    announce(sha, kBytes.size(), "/v1/uploads/complete");
    EXPECT_EQ(last, 409) << "nothing was kept";

    EXPECT_EQ(transfer("PUT", url, kBytes)->status, 200);
    EXPECT_EQ(announce(sha, kBytes.size(), "/v1/uploads/complete")["status"], "stored");
    EXPECT_EQ(announce(sha, kBytes.size()), Json({{"status", "exists"}}));

    const auto link = server->call("GET", "/v1/blobs/" + ws + "/" + sha, std::nullopt, token);
    ASSERT_EQ(link.status, 200) << link.text;
    auto download = transfer("GET", link.body["url"]);
    ASSERT_TRUE(download);
    EXPECT_EQ(std::to_string(download->status) + " " + download->get_header_value("Content-Type") + " " +
                  download->get_header_value("X-Content-Type-Options") + " " +
                  download->get_header_value("Cache-Control") + " " + download->body,
              "200 image/png nosniff private, max-age=3600 " + kBytes);

    // A signature names its method, file and size: it opens nothing else.
    const std::string other = ContentHash::sha256(std::string_view("other"));
    std::string tampered = link.body["url"];
    tampered.back() = tampered.back() == '0' ? '1' : '0';
    EXPECT_EQ(transfer("GET", tampered)->status, 403);
    std::string elsewhere = url;
    elsewhere.replace(elsewhere.find(sha), sha.size(), other);
    EXPECT_EQ(transfer("PUT", elsewhere, "other")->status, 403);
    EXPECT_EQ(transfer("GET", url)->status, 403) << "an upload link is no download link";

    announce(sha, (64u << 20) + 1);
    EXPECT_EQ(last, 413);
    EXPECT_EQ(server->call("GET", "/v1/blobs/" + ws + "/" + other, std::nullopt, token).status, 404);
}

TEST_F(BlobsTest, ExpiredLinksAreRefused) {
    start({"--url-lifetime", "1"});
    const std::string sha = ContentHash::sha256(kBytes);
    const std::string url = announce(sha, kBytes.size())["url"];
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    auto late = transfer("PUT", url, kBytes);
    ASSERT_TRUE(late);
    EXPECT_EQ(late->status, 403);
    EXPECT_NE(late->body.find("url_expired"), std::string::npos);
}

TEST_F(BlobsTest, AServerWithoutUploadsSaysSo) {
    start({"--no-uploads"});
    const Json reply = announce(ContentHash::sha256(kBytes), kBytes.size());
    EXPECT_EQ(last, 403);
    EXPECT_EQ(reply["error"]["code"], "uploads_disabled");
    EXPECT_EQ(server->call("GET", "/v1/me", std::nullopt, token).body["features"]["uploads"], false);
}

}  // namespace
}  // namespace mirel::test
