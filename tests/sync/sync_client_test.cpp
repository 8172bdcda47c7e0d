// The client against scripted servers on 127.0.0.1: statuses and error
// bodies, headers, bad replies, redirects, blobs, account calls, the event
// stream and the device sign-in; and the content hash that names blobs.
#include "core/sync/content_hash.h"
#include "core/sync/sync_client.h"
#include "tests/support/api_test_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace mirel {
namespace {

using test::ApiTestServer;

// How a call ended, as one comparable line: "ok", "offline: Can't reach …", "transfer: …".
std::string outcome(const std::function<void()>& call) {
    static const char* const kinds[] = {"offline", "server", "unauthorized", "decode", "uploadsDisabled"};
    try {
        call();
        return "ok";
    } catch (const SyncError& error) {
        return std::string(kinds[static_cast<int>(error.kind())]) + ": " + error.what();
    } catch (const TransferError& error) {
        return std::string("transfer: ") + error.what();
    }
}

// A request's headers but "Host" and "Content-Length", each as "; name: value".
std::string headerText(const ApiTestServer::Seen& request) {
    std::string text;
    for (const auto& [name, value] : request.headers) {
        if (name != "Host" && name != "Content-Length") text += "; " + name + ": " + value;
    }
    return text;
}

void waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// The address of a server that has gone: connections are refused.
std::string closedURL() { return ApiTestServer().url(); }

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
    for (const auto& request : server.seen()) sent.push_back(headerText(request) + " " + request.body);
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
    server.on("GET /silent", [&](const httplib::Request&, httplib::Response&) {
        waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
    });
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
    EXPECT_TRUE(outcome([] { SyncClient(closedURL()).me(); }).starts_with("offline: Can't reach Mirel — "));
    EXPECT_EQ(outcome([] { SyncClient("file:///etc").request("GET", "/passwd", std::nullopt, true, false); }),
              "offline: Can't reach Mirel — the server address is not an http or https URL");
}

TEST(SyncClientRequest, CallsShareOneConnectionAndACancelledCallSpoilsNone) {
    ApiTestServer api;
    api.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    api.on("GET /v1/slow", [&](const httplib::Request&, httplib::Response& response) {
        for (int i = 0; i < 200 && !api.stopping(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        response.set_content("{}", "application/json");
    });
    const SyncClient client(api.url(), "secret-token");
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
    ASSERT_EQ(seen.size(), 3u);
    // A cancelled call closes its own connection, and the next call starts afresh.
    EXPECT_EQ(seen[1].remotePort, seen[0].remotePort);
    EXPECT_NE(seen[2].remotePort, seen[0].remotePort);
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

const std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G'};
const std::string pngSHA = ContentHash::sha256(png);

std::string requestLine(const ApiTestServer::Seen& request) {
    return request.method + " " + request.target + headerText(request);
}

TEST(ContentHash, KnownDigestsAndTheHexShapeCheck) {
    EXPECT_EQ(ContentHash::sha256(std::string_view("")),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(ContentHash::sha256(std::string_view("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // Upper case is refused where a download is asked for.
    EXPECT_TRUE(ContentHash::isHexDigest(ContentHash::sha256(std::string_view("x"))));
    EXPECT_FALSE(ContentHash::isHexDigest("../etc"));
    EXPECT_FALSE(ContentHash::isHexDigest(ContentHash::sha256(std::string_view("x")) + "0"));
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

    api.on("POST /v1/uploads", ApiTestServer::json(200, R"({"url":")" + closedURL() + R"(/put"})"));
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

TEST(AccountCalls, DeviceAndReconcileSendTheirBodies) {
    ApiTestServer server;
    const SyncClient client(server.url(), "tok");
    server.on("POST /v1/devices", ApiTestServer::json(201, ""));
    server.on("POST /v1/sync/reconcile", ApiTestServer::json(200, R"({"drop":["c1",2,""],"missing":"x"})"));

    client.registerDevice("d1", "Box", SyncClient::devicePlatform, std::nullopt);
    EXPECT_EQ(client.reconcile({}), (ReconcileResult{{"c1", ""}, {}}));
    const auto seen = server.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].body, R"({"app_version":null,"id":"d1","name":"Box","platform":"linux"})");
    EXPECT_EQ(seen[1].body, R"({"capture_ids":[]})");

    server.on("POST /v1/sync", ApiTestServer::json(200, "[]"));
    EXPECT_EQ(outcome([&] { client.sync(Json::object()); }), "decode: Unexpected reply from the server.");
}

TEST(EventStream, RequestCarriesTheTokenOfTheMomentAndLinesArriveAsTheyCome) {
    ApiTestServer server;
    SyncClient client(server.url() + "/");
    const HttpRequest anonymous = client.events("w/../1?#");
    EXPECT_EQ(anonymous.url, server.url() + "/v1/events?workspace=w%2F%2E%2E%2F1%3F%23");
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
            waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
            return false;
        });
    });
    // Another thread's cancellation ends the silent wait at once.
    std::vector<std::string> lines;
    std::atomic<std::size_t> count = 0;
    const Cancellation cancel;
    std::thread canceller([&] {
        waitUntil([&] { return count == 5; }, std::chrono::seconds(5));
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
}

TEST(DeviceSignIn, SignOutSendsTheTokenAndNeverFails) {
    ApiTestServer server;
    server.on("POST /api/auth/sign-out", ApiTestServer::json(500, "nonsense"));
    SyncClient(server.url(), "tok").signOut();
    EXPECT_EQ(server.seen().at(0).header("Authorization") + " " + server.seen().at(0).body, "Bearer tok {}");
    SyncClient(closedURL(), "tok").signOut();
}

}  // namespace
}  // namespace mirel
