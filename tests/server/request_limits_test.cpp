// Requests the server cannot take get their reason in the usual error body:
// a body that grows past --max-json-mb while it is read, a body that is no
// JSON, a path without a route.
#include "tests/support/server_process.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

std::string answer(const httplib::Result& result) {
    return result ? std::to_string(result->status) + " " + result->body : "no answer";
}

TEST(RequestLimits, RefusalsSayWhy) {
    ServerProcess server({"--max-json-mb", "1"});
    server.addUser("ann@example.com", "Ann");
    const httplib::Headers signedIn{{"Authorization", "Bearer " + server.signIn("ann@example.com")}};
    httplib::Client client("127.0.0.1", server.port());
    const std::string overLimit = std::string(1 << 20, ' ') + "{}";  // valid JSON, two bytes over a megabyte, in chunks
    const auto sentInChunks = [&](std::size_t offset, httplib::DataSink& sink) {
        if (offset == 0) sink.write(overLimit.data(), overLimit.size());
        else sink.done();
        return true;
    };

    EXPECT_EQ(answer(client.Post("/v1/sync", signedIn, sentInChunks, "application/json")),
              R"(413 {"error":{"code":"too_large","message":"The request body is too large."}})");
    EXPECT_EQ(answer(client.Post("/v1/sync", signedIn, "{\"cursor\":", "application/json")),
              R"(400 {"error":{"code":"invalid_request","message":"the body is not valid JSON"}})");
    EXPECT_EQ(answer(client.Get("/v2/sync")), R"(404 {"error":{"code":"not_found","message":"No such route."}})");
}

}  // namespace
}  // namespace mirel::test
