#include "core/sync/content_hash.h"
#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::ApiTestServer;
using test::outcome;

const std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G'};
const std::string pngSHA = ContentHash::sha256(png);

std::string requestLine(const ApiTestServer::Seen& request) {
    return request.method + " " + request.target + test::headerText(request);
}

TEST(BlobUpload, FollowsTheServersAnswer) {
    ApiTestServer api;
    ApiTestServer storage;
    storage.on("PUT /put", ApiTestServer::json(200, ""));
    storage.on("POST /post", ApiTestServer::json(204, ""));
    storage.on("PUT /refuse", ApiTestServer::json(500, ""));
    api.on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
    const SyncClient client(api.url(), "tok");
    const std::string to = storage.url();
    struct Case {
        std::string reply;
        std::string expected;
        std::string transfer;  // what storage saw; "" for nothing
    };
    const Case cases[] = {
        {R"({"status":"exists","url":")" + to + R"(/put"})", "ok", ""},
        {R"({"url":")" + to + R"(/put"})", "ok", "PUT /put"},
        {R"({"url":")" + to + R"(/post","method":"POST","headers":{"Content-Type":"image/png","x-meta":"1"}})", "ok",
         "POST /post; Content-Type: image/png; x-meta: 1"},
        {R"({"url":")" + to + R"(/put","headers":{"Content-Type":"image/png","x-n":1}})", "ok", "PUT /put"},
        {R"({"url":")" + to + R"(/refuse"})", "server: Server error 500: storage refused the upload", "PUT /refuse"},
        {R"({"url":"not a url"})", "decode: Unexpected reply from the server.", ""},
        {R"({"url":"file:///tmp/upload"})", "decode: Unexpected reply from the server.", ""},
        {R"({"url":")" + to + R"(/put","method":"PUT /x HTTP/1.1\r\n"})", "decode: Unexpected reply from the server.",
         ""},
        {R"({"error":{"code":"uploads_disabled"}})",
         "uploadsDisabled: Screenshot uploads are switched off on this server.", ""},
    };
    for (const Case& c : cases) {
        api.on("POST /v1/uploads", ApiTestServer::json(200, c.reply));
        const std::size_t before = storage.seen().size();
        EXPECT_EQ(outcome([&] { client.ensureUploaded("w1", png, pngSHA, "image/png"); }), c.expected) << c.reply;
        const auto seen = storage.seen();
        EXPECT_EQ(seen.size() == before ? "" : requestLine(seen.back()) + " " + seen.back().body,
                  c.transfer.empty() ? "" : c.transfer + " " + std::string(png.begin(), png.end()))
            << c.reply;
    }
    // Announced with the token; completed with the same body after each stored blob only.
    const auto seen = api.seen();
    const std::string announcement =
        R"({"bytes":4,"content_type":"image\/png","sha256":")" + pngSHA + R"(","workspace_id":"w1"})";
    EXPECT_EQ(seen.at(0).header("Authorization") + " " + seen.at(0).body, "Bearer tok " + announcement);
    EXPECT_EQ(
        std::count_if(seen.begin(), seen.end(),
                      [&](const auto& r) { return r.target == "/v1/uploads/complete" && r.body == announcement; }),
        3);

    api.on("POST /v1/uploads", ApiTestServer::json(200, R"({"url":")" + test::closedURL() + R"(/put"})"));
    EXPECT_TRUE(outcome([&] { client.ensureUploaded("w1", {}, pngSHA, "image/png"); }).starts_with("transfer: "));
    EXPECT_NE(api.seen().back().body.find(R"("bytes":0)"), std::string::npos);
}

TEST(BlobDownload, VerifiesTheBytesAndKeepsThePathWhole) {
    ApiTestServer api;
    ApiTestServer storage;
    storage.on("GET /blob", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(png.begin(), png.end()), "application/octet-stream");
    });
    const SyncClient client(api.url(), "tok");
    auto download = [&](const std::string& sha, const std::string& reply) {
        api.on("GET /v1/blobs/w1/" + sha, ApiTestServer::json(200, reply));
        return outcome([&] { EXPECT_EQ(client.downloadBlob("w1", sha), png); });
    };
    const std::string blob = R"({"url":")" + storage.url() + R"(/blob"})";
    EXPECT_EQ(download(pngSHA, blob), "ok");
    EXPECT_EQ(requestLine(storage.seen().at(0)), "GET /blob");
    const std::string mismatch = "server: Server error 0: downloaded bytes don't match their hash";
    EXPECT_EQ(download(ContentHash::sha256(std::string_view("other")), blob), mismatch);
    EXPECT_EQ(download(pngSHA, R"({"url":")" + storage.url() + R"(/gone"})"),
              "server: Server error 404: storage refused the download");
    EXPECT_EQ(download(pngSHA, R"({"url":"ftp://x/blob"})"), "decode: Unexpected reply from the server.");
    const std::size_t calls = api.seen().size();
    std::string upper = pngSHA;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(outcome([&] { client.downloadBlob("w1", upper); }), mismatch);
    EXPECT_EQ(api.seen().size(), calls);

    // The server decodes the id back into one segment; on the wire it went escaped whole.
    api.on("GET /v1/blobs/../w?x#y/" + pngSHA, ApiTestServer::json(200, blob));
    EXPECT_EQ(outcome([&] { client.downloadBlob("../w?x#y", pngSHA); }), "ok");
    std::string sent = api.seen().back().target;
    for (char& c : sent) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(sent, "/v1/blobs/%2e%2e%2fw%3fx%23y/" + pngSHA);
}

}  // namespace
}  // namespace mirel
