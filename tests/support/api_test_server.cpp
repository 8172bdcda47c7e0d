#include "tests/support/api_test_server.h"

#include <stdexcept>

namespace mirel::test {

std::string ApiTestServer::Seen::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "(none)" : found->second;
}

ApiTestServer::ApiTestServer() {
    auto answer = [this](const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            Seen seen{request.method, request.target, {}, request.body, request.remote_port};
            for (const auto& [name, value] : request.headers) {
                // The library files the peer's address among the headers; no client sent those.
                if (name.find("_ADDR") == std::string::npos && name.find("_PORT") == std::string::npos) {
                    seen.headers.emplace(name, value);
                }
            }
            seen_.push_back(std::move(seen));
            if (const auto found = routes_.find(request.method + " " + request.path); found != routes_.end()) {
                handler = found->second;
            }
        }
        if (handler)
            handler(request, response);
        else
            response.status = 404;
    };
    server_.Get(".*", answer);
    server_.Post(".*", answer);
    server_.Put(".*", answer);
    // An idle kept-alive connection holds the server's stop back for this long.
    server_.set_keep_alive_timeout(1);
    // Headers and body go out in two writes; on a kept connection Nagle would
    // hold the body back for the client's delayed acknowledgement.
    server_.set_tcp_nodelay(true);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a test server to 127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // Stopping a server that hasn't begun to listen would leave it listening.
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ApiTestServer::~ApiTestServer() {
    server_.stop();
    thread_.join();
}

void ApiTestServer::on(const std::string& route, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_[route] = std::move(handler);
}

std::vector<ApiTestServer::Seen> ApiTestServer::seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
}

ApiTestServer::Handler ApiTestServer::json(int status, std::string body) {
    return [status, body = std::move(body)](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        if (!body.empty()) response.set_content(body, "application/json");
    };
}

}  // namespace mirel::test
