#pragma once
// An HTTP server on 127.0.0.1 for one test, answering by "METHOD /path" and
// remembering every request it saw.
//
//     ApiTestServer server;
//     server.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
//     SyncClient(server.url(), "token").me();
//     EXPECT_EQ(server.seen().at(0).header("Authorization"), "Bearer token");
#include <httplib.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace mirel::test {

class ApiTestServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    struct Seen {
        std::string method;
        std::string target;  // the path with its query, as sent
        std::multimap<std::string, std::string, httplib::detail::ci> headers;
        std::string body;
        int remotePort = 0;  // the client's end of the connection it came on
        // The value of a header, or "(none)" when it wasn't sent.
        std::string header(const std::string& name) const;
    };

    ApiTestServer();
    ~ApiTestServer();
    ApiTestServer(const ApiTestServer&) = delete;
    ApiTestServer& operator=(const ApiTestServer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // Answers `route` ("POST /v1/sync", the path decoded) from now on; others get 404.
    void on(const std::string& route, Handler handler);
    std::vector<Seen> seen() const;

    static Handler json(int status, std::string body);

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::map<std::string, Handler> routes_;  // guarded by mutex_
    std::vector<Seen> seen_;                 // guarded by mutex_
};

}  // namespace mirel::test
