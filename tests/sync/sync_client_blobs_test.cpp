#include "core/sync/content_hash.h"
#include "core/sync/sync_client.h"
#include "tests/support/api_test_server.h"
#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::ApiTestServer;
using test::outcome;

const std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G'};
const std::string pngSHA = ContentHash::sha256(png);

// The headers a request carried beyond the two every request has.
std::string extraHeaders(const ApiTestServer::Seen& request) {
    std::string lines;
    for (const auto& [name, value] : request.headers) {
        if (name != "Host" && name != "Content-Length") lines += name + ": " + value + "; ";
    }
    return lines;
}

TEST(BlobUpload, FollowsTheServersAnswer) {
    ApiTestServer api;
    ApiTestServer storage;
    storage.on("PUT /put", ApiTestServer::json(200, ""));
    storage.on("POST /post", ApiTestServer::json(204, ""));
    storage.on("PUT /refuse", ApiTestServer::json(500, ""));
    api.on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
    const SyncClient client(api.url(), "tok");
    struct Case {
        std::string reply;
        std::string expected;
        std::string storageSaw;  // method, path and extra headers of the transfer; "" when none
        bool completed;
    };
    const std::string to = storage.url();
    const Case cases[] = {
        {R"({"status":"exists","url":")" + to + R"(/put"})", "ok", "", false},
        {R"({"url":")" + to + R"(/put"})", "ok", "PUT /put ", true},
        {R"({"url":")" + to + R"(/post","method":"POST","headers":{"Content-Type":"image/png","x-meta":"1"}})", "ok",
         "POST /post Content-Type: image/png; x-meta: 1; ", true},
        {R"({"url":")" + to + R"(/put","headers":{"Content-Type":"image/png","x-n":1}})", "ok", "PUT /put ", true},
        {R"({"url":")" + to + R"(/refuse"})", "server: Server error 500: storage refused the upload", "PUT /refuse ", false},
        {R"({"url":"not a url"})", "decode: Unexpected reply from the server.", "", false},
        {R"({"url":"file:///tmp/upload"})", "decode: Unexpected reply from the server.", "", false},
        {R"({"url":")" + to + R"(/put","method":"PUT /x HTTP/1.1\r\n"})", "decode: Unexpected reply from the server.", "", false},
        {R"({"error":{"code":"uploads_disabled"}})", "uploadsDisabled: Screenshot uploads are switched off on this server.", "", false},
    };
    std::size_t storageCalls = 0;
    std::size_t apiCalls = 0;
    for (const Case& c : cases) {
        api.on("POST /v1/uploads", ApiTestServer::json(200, c.reply));
        EXPECT_EQ(outcome([&] { client.ensureUploaded("w1", png, pngSHA, "image/png"); }), c.expected) << c.reply;
        const auto storageSeen = storage.seen();
        const auto apiSeen = api.seen();
        if (c.storageSaw.empty()) {
            EXPECT_EQ(storageSeen.size(), storageCalls) << c.reply;
        } else {
            ASSERT_EQ(storageSeen.size(), storageCalls + 1) << c.reply;
            const auto& transfer = storageSeen.back();
            EXPECT_EQ(transfer.method + " " + transfer.path + " " + extraHeaders(transfer), c.storageSaw);
            EXPECT_EQ(transfer.body, std::string(png.begin(), png.end()));
        }
        ASSERT_EQ(apiSeen.size(), apiCalls + (c.completed ? 2 : 1)) << c.reply;
        const std::string announcement =
            R"({"bytes":4,"content_type":"image\/png","sha256":")" + pngSHA + R"(","workspace_id":"w1"})";
        EXPECT_EQ(apiSeen[apiCalls].body, announcement);
        if (c.completed) {
            EXPECT_EQ(apiSeen.back().path + " " + apiSeen.back().body, "/v1/uploads/complete " + announcement);
        }
        storageCalls = storageSeen.size();
        apiCalls = apiSeen.size();
    }

    api.on("POST /v1/uploads", ApiTestServer::json(403, R"({"error":{"code":"uploads_disabled","message":"off"}})"));
    EXPECT_EQ(outcome([&] { client.ensureUploaded("w1", {}, ContentHash::sha256(std::string_view()), "image/png"); }),
              "uploadsDisabled: Screenshot uploads are switched off on this server.");
    EXPECT_NE(api.seen().back().body.find(R"("bytes":0)"), std::string::npos);

    std::string closedPort;
    {
        ApiTestServer gone;
        closedPort = gone.url();
    }
    api.on("POST /v1/uploads", ApiTestServer::json(200, R"({"url":")" + closedPort + R"(/put"})"));
    EXPECT_EQ(outcome([&] { client.ensureUploaded("w1", png, pngSHA, "image/png"); }).rfind("transfer: ", 0), 0u);
}

TEST(BlobDownload, VerifiesTheBytesAndKeepsThePathWhole) {
    ApiTestServer api;
    ApiTestServer storage;
    storage.on("GET /blob", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(png.begin(), png.end()), "application/octet-stream");
    });
    storage.on("GET /gone", ApiTestServer::json(404, ""));
    const SyncClient client(api.url(), "tok");
    auto download = [&](const std::string& workspace, const std::string& sha, const std::string& reply) {
        api.on("GET /v1/blobs/" + workspace + "/" + sha, ApiTestServer::json(200, reply));
        return outcome([&] { EXPECT_EQ(client.downloadBlob("w1", sha), png); });
    };
    const std::string blob = R"({"url":")" + storage.url() + R"(/blob"})";
    EXPECT_EQ(download("w1", pngSHA, blob), "ok");
    EXPECT_EQ(extraHeaders(storage.seen().at(0)), "");
    const std::string otherSHA = ContentHash::sha256(std::string_view("other"));
    EXPECT_EQ(download("w1", otherSHA, blob), "server: Server error 0: downloaded bytes don't match their hash");
    EXPECT_EQ(download("w1", pngSHA, R"({"url":")" + storage.url() + R"(/gone"})"),
              "server: Server error 404: storage refused the download");
    EXPECT_EQ(download("w1", pngSHA, R"({"url":"ftp://x/blob"})"), "decode: Unexpected reply from the server.");
    EXPECT_EQ(download("w1", pngSHA, R"({"link":"x"})"), "decode: Unexpected reply from the server.");
    const std::size_t apiCalls = api.seen().size();
    std::string upper = pngSHA;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(outcome([&] { client.downloadBlob("w1", upper); }),
              "server: Server error 0: downloaded bytes don't match their hash");
    EXPECT_EQ(api.seen().size(), apiCalls);

    // The server decodes the id back into one segment; on the wire it was escaped whole.
    api.on("GET /v1/blobs/../w?x#y/" + pngSHA, ApiTestServer::json(200, blob));
    EXPECT_EQ(outcome([&] { client.downloadBlob("../w?x#y", pngSHA); }), "ok");
    std::string sent = api.seen().back().path;
    for (char& c : sent) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(sent, "/v1/blobs/%2e%2e%2fw%3fx%23y/" + pngSHA);
}

}  // namespace
}  // namespace mirel
