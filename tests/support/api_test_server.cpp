#include "tests/support/api_test_server.h"

#include <algorithm>
#include <stdexcept>

namespace mirel::test {

std::string ApiTestServer::Seen::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "(none)" : found->second;
}

ApiTestServer::ApiTestServer() {
    auto route = [this](const httplib::Request& request, httplib::Response& response) { answer(request, response); };
    server_.Get(".*", route);
    server_.Post(".*", route);
    server_.Put(".*", route);
    server_.Delete(".*", route);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a test server to 127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // Stopping a server that hasn't begun to listen would leave it listening.
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ApiTestServer::~ApiTestServer() {
    stopping_ = true;
    server_.stop();
    thread_.join();
}

std::string ApiTestServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void ApiTestServer::on(const std::string& route, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_[route] = std::move(handler);
}

std::vector<ApiTestServer::Seen> ApiTestServer::seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
}

void ApiTestServer::answer(const httplib::Request& request, httplib::Response& response) {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        std::string target = request.target.empty() ? request.path : request.target;
        Seen seen{request.method, target, {}, request.body};
        for (const auto& [name, value] : request.headers) {
            // The library files the peer's address among the headers; no client sent those.
            if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
            seen.headers.emplace(name, value);
        }
        seen_.push_back(std::move(seen));
        const auto found = routes_.find(request.method + " " + request.path);
        if (found != routes_.end()) handler = found->second;
    }
    if (handler) handler(request, response);
    else response.status = 404;
}

ApiTestServer::Handler ApiTestServer::json(int status, std::string body) {
    return [status, body = std::move(body)](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        if (!body.empty()) response.set_content(body, "application/json");
    };
}

ApiTestServer::Handler ApiTestServer::endless(char fill, std::size_t total) {
    return [this, fill, total](const httplib::Request&, httplib::Response& response) {
        const std::string chunk(64 * 1024, fill);
        if (total == 0) {
            response.set_chunked_content_provider("application/json", [this, chunk](std::size_t, httplib::DataSink& sink) {
                return !stopping_ && sink.write(chunk.data(), chunk.size());
            });
            return;
        }
        response.set_content_provider(
            total, "application/json", [this, chunk](std::size_t, std::size_t length, httplib::DataSink& sink) {
                return !stopping_ && sink.write(chunk.data(), std::min(length, chunk.size()));
            });
    };
}

}  // namespace mirel::test
