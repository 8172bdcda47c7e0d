// The client against scripted servers on 127.0.0.1: statuses and error
// bodies, headers, bad replies, redirects, blobs, account calls, the event
// stream and the device sign-in.
#include "core/sync/content_hash.h"
#include "core/sync/sync_client.h"
#include "tests/support/api_test_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

namespace mirel {
namespace {

using test::ApiTestServer;
using namespace std::chrono_literals;

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
const std::string kDecode = "decode: Unexpected reply from the server.";
const std::string kOffline = "offline: Can't reach Mirel — ";
const std::string kDisabled = "uploadsDisabled: Screenshot uploads are switched off on this server.";

// "METHOD target" and the headers but "Host" and "Content-Length", each as "; name: value".
std::string requestLine(const ApiTestServer::Seen& request) {
    std::string text = request.method + " " + request.target;
    for (const auto& [name, value] : request.headers) {
        if (name != "Host" && name != "Content-Length") text += "; " + name + ": " + value;
    }
    return text;
}

// The address of a server that has gone: connections are refused.
std::string closedURL() { return ApiTestServer().url(); }

const std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G'};
const std::string pngSHA = ContentHash::sha256(png);

// Two servers for every test: each stop waits out an idle kept-alive connection.
class Client : public ::testing::Test {
protected:
    static ApiTestServer& api() {
        static ApiTestServer server;
        return server;
    }
    static ApiTestServer& storage() {
        static ApiTestServer server;
        return server;
    }
    // What `server` saw during this test.
    std::vector<ApiTestServer::Seen> seen(ApiTestServer& server) const {
        auto all = server.seen();
        all.erase(all.begin(), all.begin() + static_cast<long>(&server == &api() ? apiBefore : storageBefore));
        return all;
    }
    const std::size_t apiBefore = api().seen().size(), storageBefore = storage().seen().size();
    SyncClient client{api().url(), "secret-token"};
};

TEST_F(Client, MapsEveryStatusAndErrorBody) {
    const std::tuple<int, std::string, bool, std::string> cases[] = {
        {200, "not JSON at all", false, "ok"},
        {401, R"({"message":"who?"})", false, "unauthorized: Your session has expired. Sign in again to keep syncing."},
        {401, "", true, "ok"},
        {403, R"({"error":{"code":"uploads_disabled","message":"x"}})", false, kDisabled},
        {400, R"({"error":"bad_thing","message":"top message"})", false, "server: Server error 400: top message"},
        {409, R"({"error":{"code":"c","message":"inner"},"message":"top"})", false, "server: Server error 409: inner"},
        {404, R"({"error":{"message":5},"message":"top"})", false, "server: Server error 404: top"},
        {599, "<html>", false, "server: Server error 599: Server Error"},
    };
    for (const auto& [status, body, tolerate, expected] : cases) {
        api().on("POST /v1/sync", ApiTestServer::json(status, body));
        EXPECT_EQ(outcome([&] { client.request("POST", "/v1/sync", Json::object(), true, tolerate); }), expected)
            << status << " " << body;
    }
}

TEST_F(Client, SendsExactHeadersAndSortedBodiesUnderTheBasePath) {
    api().on("POST /api/v1/sync", ApiTestServer::json(200, "{}"));
    api().on("GET /api/v1/me", ApiTestServer::json(200, "{}"));
    SyncClient based(api().url() + "/api/", "t0k");
    based.setClientLabel("mirel-cli 1.0");
    based.request("POST", "/v1/sync", parseJSON(R"({"b":1,"a":{"d":"x/y","c":2}})"), true, false);
    based.request("POST", "/v1/sync", parseJSON(R"({"a":{"c":2,"d":"x/y"},"b":1})"), false, false);
    based.setToken(std::nullopt);
    based.request("GET", "/v1/me", std::nullopt, true, false);

    std::vector<std::string> sent;
    for (const auto& request : seen(api())) sent.push_back(requestLine(request) + " " + request.body);
    const std::string post = "POST /api/v1/sync; Accept: application/json; ";
    const std::string label = "; X-Mirel-Client: mirel-cli 1.0 ", body = R"({"a":{"c":2,"d":"x\/y"},"b":1})";
    EXPECT_EQ(sent, (std::vector<std::string>{
                        post + "Authorization: Bearer t0k; Content-Type: application/json" + label + body,
                        post + "Content-Type: application/json" + label + body,
                        "GET /api/v1/me; Accept: application/json" + label}));
}

TEST_F(Client, BadRepliesEndInDecodeOrOffline) {
    const auto stream = [](std::string piece, std::chrono::milliseconds pause) {
        return [piece, pause](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("application/json", [=](std::size_t, httplib::DataSink& sink) {
                std::this_thread::sleep_for(pause);
                return sink.write(piece.data(), piece.size());
            });
        };
    };
    api().on("GET /endless", stream(std::string(1 << 20, '['), 0ms));  // past the cap on replies
    api().on("GET /drip", stream(" ", 30ms));                           // never silent, never done
    const SyncClient hasty(api().url(), "tok", {1s, 300ms});
    auto call = [](const SyncClient& on, const std::string& path) {
        return outcome([&] { on.request("GET", path, std::nullopt, true, false); });
    };
    EXPECT_EQ(call(client, "/endless"), kDecode);
    EXPECT_TRUE(call(hasty, "/drip").starts_with(kOffline));
    EXPECT_TRUE(outcome([] { SyncClient(closedURL()).me(); }).starts_with(kOffline));
    EXPECT_EQ(call(SyncClient("file:///etc"), "/passwd"), kOffline + "the server address is not an http or https URL");
}

TEST_F(Client, CallsShareOneConnectionAndACancelledCallSpoilsNone) {
    api().on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    std::atomic<bool> released{false};
    api().on("GET /v1/slow", [&](const httplib::Request&, httplib::Response& response) {
        for (int i = 0; i < 500 && !released; ++i) std::this_thread::sleep_for(10ms);
        response.set_content("{}", "application/json");
    });
    client.me();
    Cancellation cancel;
    std::thread canceller([&] {
        std::this_thread::sleep_for(100ms);
        cancel.cancel();
    });
    EXPECT_TRUE(outcome([&] { client.request("GET", "/v1/slow", std::nullopt, true, false, cancel); })
                    .starts_with("offline"));
    canceller.join();
    released = true;
    client.me();
    const auto requests = seen(api());
    ASSERT_EQ(requests.size(), 3u);
    // A cancelled call closes its own connection, and the next call starts afresh.
    EXPECT_EQ(requests[1].remotePort, requests[0].remotePort);
    EXPECT_NE(requests[2].remotePort, requests[0].remotePort);
}

TEST_F(Client, RedirectsKeepTheTokenAtHomeAndStayOnHttp) {
    storage().on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
    api().on("GET /v1/me", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect(storage().url() + "/v1/me");
    });
    api().on("GET /v1/sync", [](const auto&, httplib::Response& r) { r.set_redirect("file:///etc/passwd"); });
    EXPECT_EQ(client.me().user.id, "u1");
    EXPECT_EQ(seen(api()).at(0).header("Authorization"), "Bearer secret-token");
    EXPECT_EQ(seen(storage()).at(0).header("Authorization"), "(none)");
    const std::string refused = outcome([&] { client.request("GET", "/v1/sync", std::nullopt, true, false); });
    EXPECT_TRUE(refused.starts_with(kOffline)) << refused;
    EXPECT_EQ(refused.find("secret-token"), std::string::npos);
}

TEST_F(Client, BlobUploadFollowsTheServersAnswer) {
    EXPECT_EQ(ContentHash::sha256(std::string_view("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    storage().on("PUT /put", ApiTestServer::json(200, ""));
    storage().on("POST /post", ApiTestServer::json(299, ""));  // the last status that is a success
    storage().on("PUT /refuse", ApiTestServer::json(500, ""));
    api().on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
    const std::string to = R"({"url":")" + storage().url();
    const std::pair<std::string, std::string> cases[] = {  // the reply, and the outcome with what storage saw
        {R"({"status":"exists","url":")" + storage().url() + R"(/put"})", "ok"},
        {to + R"(/put"})", "ok PUT /put"},
        {to + R"(/post","method":"POST","headers":{"Content-Type":"image/png","x-meta":"1"}})",
         "ok POST /post; Content-Type: image/png; x-meta: 1"},
        {to + R"(/put","headers":{"Content-Type":"image/png","x-n":1}})", "ok PUT /put"},
        {to + R"(/refuse"})", "server: Server error 500: storage refused the upload PUT /refuse"},
        {R"({"url":"not a url"})", kDecode},
        {R"({"url":"file:///tmp/upload"})", kDecode},
        {to + R"(/put","method":"PUT /x HTTP/1.1\r\n"})", kDecode},
        {R"({"error":{"code":"uploads_disabled"}})", kDisabled},
    };
    for (const auto& [reply, expected] : cases) {
        api().on("POST /v1/uploads", ApiTestServer::json(200, reply));
        const std::size_t before = storage().seen().size();
        std::string result = outcome([&] { client.ensureUploaded("w1", png, pngSHA, "image/png"); });
        if (const auto all = storage().seen(); all.size() > before) {
            EXPECT_EQ(all.back().body, std::string(png.begin(), png.end()));
            result.append(" ").append(requestLine(all.back()));
        }
        EXPECT_EQ(result, expected) << reply;
    }
    // Announced with the token; completed with the same body after each stored blob only.
    const auto requests = seen(api());
    const std::string announcement =
        R"({"bytes":4,"content_type":"image\/png","sha256":")" + pngSHA + R"(","workspace_id":"w1"})";
    EXPECT_EQ(requests.at(0).header("Authorization") + " " + requests[0].body, "Bearer secret-token " + announcement);
    EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                            [&](auto& r) { return r.target == "/v1/uploads/complete" && r.body == announcement; }),
              3);

    api().on("POST /v1/uploads", ApiTestServer::json(200, R"({"url":")" + closedURL() + R"(/put"})"));
    EXPECT_TRUE(outcome([&] { client.ensureUploaded("w1", {}, pngSHA, "image/png"); }).starts_with("transfer: "));
    EXPECT_NE(api().seen().back().body.find(R"("bytes":0)"), std::string::npos);
}

TEST_F(Client, BlobDownloadVerifiesTheBytesAndKeepsThePathWhole) {
    storage().on("GET /blob", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(png.begin(), png.end()), "application/octet-stream");
    });
    auto download = [&](const std::string& sha, const std::string& reply) {
        api().on("GET /v1/blobs/w1/" + sha, ApiTestServer::json(200, reply));
        return outcome([&] { EXPECT_EQ(client.downloadBlob("w1", sha), png); });
    };
    const std::string blob = R"({"url":")" + storage().url() + R"(/blob"})";
    EXPECT_EQ(download(pngSHA, blob), "ok");
    EXPECT_EQ(requestLine(seen(storage()).at(0)), "GET /blob");
    const std::string mismatch = "server: Server error 0: downloaded bytes don't match their hash";
    EXPECT_EQ(download(ContentHash::sha256(std::string_view("other")), blob), mismatch);
    EXPECT_EQ(download(pngSHA, R"({"url":")" + storage().url() + R"(/gone"})"),
              "server: Server error 404: storage refused the download");
    EXPECT_EQ(download(pngSHA, R"({"url":"ftp://x/blob"})"), kDecode);
    // A name that is no lower-case digest is never asked for.
    const std::size_t calls = api().seen().size();
    for (const std::string& bad : {std::string(64, 'A'), pngSHA + "0", std::string("../etc")}) {
        EXPECT_EQ(outcome([&] { client.downloadBlob("w1", bad); }), mismatch) << bad;
    }
    EXPECT_EQ(api().seen().size(), calls);

    // The server decodes the id back into one segment; on the wire it went escaped whole.
    api().on("GET /v1/blobs/../w?x#y/" + pngSHA, ApiTestServer::json(200, blob));
    EXPECT_EQ(outcome([&] { client.downloadBlob("../w?x#y", pngSHA); }), "ok");
    EXPECT_STRCASEEQ(api().seen().back().target.c_str(), ("/v1/blobs/%2e%2e%2fw%3fx%23y/" + pngSHA).c_str());
}

TEST_F(Client, AccountCallsReadTolerantlyAndSendTheirBodies) {
    const auto me = [&](const std::string& reply) {
        api().on("GET /v1/me", ApiTestServer::json(200, reply));
        return client.me();
    };
    EXPECT_EQ(me(R"({"user":{"id":"u1"}})"), (AccountInfo{Person{"u1", "You", {}, {}, "person"}, {}, {}}));
    EXPECT_EQ(me(R"({"user":{"id":"u2","name":"Ada","email":"ada@x","image":"https://x/a.png","kind":"bot"},)"
                 R"("workspaces":[{"id":"w1","name":"One","slug":"one","role":"owner","settings":{"b":1,"a":2}},)"
                 R"({"id":"w2","name":"No slug"},{"id":"w3","name":"3","slug":"three","role":5,"settings":"raw"}],)"
                 R"("features":{"uploads":true,"beta":"yes","old":false}})"),
              (AccountInfo{Person{"u2", "Ada", "ada@x", "https://x/a.png", "bot"},
                           {{"w1", "One", "one", "owner", R"({"a":2,"b":1})"}, {"w3", "3", "three", "member", "raw"}},
                           {{"old", false}, {"uploads", true}}}));
    EXPECT_TRUE(me(R"({"user":{"id":"u"},"workspaces":[{"id":"w","name":"n","slug":"s"},3]})").workspaces.empty());
    EXPECT_EQ(outcome([&] { me(R"({"user":{"name":"x"}})"); }), kDecode);

    api().on("POST /v1/devices", ApiTestServer::json(201, ""));
    api().on("POST /v1/sync/reconcile", ApiTestServer::json(200, R"({"drop":["c1",2,""],"missing":"x"})"));
    client.registerDevice("d1", "Box", SyncClient::devicePlatform, std::nullopt);
    EXPECT_EQ(api().seen().back().body, R"({"app_version":null,"id":"d1","name":"Box","platform":"linux"})");
    EXPECT_EQ(client.reconcile({}), (ReconcileResult{{"c1", ""}, {}}));
    EXPECT_EQ(api().seen().back().body, R"({"capture_ids":[]})");
    api().on("POST /v1/sync", ApiTestServer::json(200, "[]"));
    EXPECT_EQ(outcome([&] { client.sync(Json::object()); }), kDecode);
}

TEST_F(Client, EventStreamCarriesTheTokenOfTheMomentAndLinesEndEveryWay) {
    EXPECT_EQ(client.events("w/../1?#").url, api().url() + "/v1/events?workspace=w%2F%2E%2E%2F1%3F%23");
    client.setToken("x");
    client.setClientLabel("cli");
    const HttpRequest request = client.events();
    using Headers = decltype(request.headers);
    EXPECT_EQ(request.headers, (Headers{{"Accept", "text/event-stream"}, {"X-Mirel-Client", "cli"},
                                        {"Authorization", "Bearer x"}}));
    // Pieces cut across line endings, and a last line without one.
    api().on("GET /v1/events", [](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("text/event-stream", [n = 0](std::size_t, auto& sink) mutable {
            static const std::string pieces[] = {"event: change\r", "\ndata: {}\n\nevent: o", "ther\r\rlast"};
            if (n == 3) return sink.done(), true;
            const std::string& piece = pieces[n++];
            return sink.write(piece.data(), piece.size());
        });
    });
    std::vector<std::string> lines;
    EXPECT_EQ(Http::streamLines(request, [&](std::string_view line) { lines.emplace_back(line); }, {}), 200);
    EXPECT_EQ(lines, (std::vector<std::string>{"event: change", "data: {}", "", "event: other", "", "last"}));
    api().on("GET /v1/events", ApiTestServer::json(401, R"({"message":"no"})"));
    EXPECT_EQ(Http::streamLines(request, [&](std::string_view) { ADD_FAILURE() << "read a refused stream"; }, {}), 401);
}

TEST_F(Client, DeviceCodeFillsGapsAndRaisesTheMinimums) {
    const auto code = [&](const std::string& reply) {
        api().on("POST /api/auth/device/code", ApiTestServer::json(200, reply));
        return client.requestDeviceCode();
    };
    Clock::pin(1'000'000.0);
    EXPECT_EQ(code(R"({"device_code":"dc","user_code":"WX","verification_uri":"https://x/d",)"
                   R"("verification_uri_complete":"https://x/d?c=1","interval":1,"expires_in":30})"),
              (DeviceCode{"dc", "WX", "https://x/d", "https://x/d?c=1", 2.0, 1'000'060.0}));
    EXPECT_EQ(code(R"({"device_code":"dc","user_code":"A B","interval":"5","expires_in":900})"),
              (DeviceCode{"dc", "A B", api().url(), api().url() + "?user_code=A B", 5.0, 1'000'900.0}));
    Clock::pin(std::nullopt);
    EXPECT_EQ(outcome([&] { code(R"({"device_code":"dc","user_code":7})"); }), kDecode);
}

TEST_F(Client, DevicePollMapsEveryAnswer) {
    const std::tuple<int, std::string, std::string> cases[] = {
        {200, R"({"access_token":"abc","refresh_token":"r"})", "token abc"},
        {201, R"({"access_token":"abc"})", "server: Server error 201: device token"},
        {400, R"({"error":"authorization_pending"})", "pending"},
        {400, "<html>", "pending"},
        {401, R"({"error":7,"code":"slow_down"})", "slowDown"},
        {400, R"({"error":"access_denied"})", "denied"},
        {403, R"({"error":"expired_token","code":"slow_down"})", "expired"},
        {500, "<html>", "server: Server error 500: device token"},
        {502, R"({"error":"upstream","message":"gateway down"})", "server: Server error 502: gateway down"},
    };
    const char* const words[] = {"token", "pending", "slowDown", "denied", "expired"};
    for (const auto& [status, body, expected] : cases) {
        api().on("POST /api/auth/device/token", ApiTestServer::json(status, body));
        std::string result;
        const std::string failure = outcome([&] {
            const DevicePoll poll = client.pollDeviceToken({"secret-code", "U", "", "", 2.0, 0});
            result = words[static_cast<int>(poll.kind)] + (poll.token.empty() ? "" : " " + poll.token);
        });
        EXPECT_EQ(failure == "ok" ? result : failure, expected) << status << " " << body;
    }
    // Sign-out sends the token and never fails.
    api().on("POST /api/auth/sign-out", ApiTestServer::json(500, "nonsense"));
    client.signOut();
    EXPECT_EQ(api().seen().back().header("Authorization") + " " + api().seen().back().body, "Bearer secret-token {}");
    SyncClient(closedURL(), "tok").signOut();
}

}  // namespace
}  // namespace mirel
