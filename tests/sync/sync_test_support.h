#pragma once
// Verbs shared by the client's tests.
#include "core/sync/sync_client.h"
#include "tests/support/api_test_server.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace mirel::test {

// How a call ended, as one comparable line: "ok", "offline: Can't reach …", "transfer: …".
inline std::string outcome(const std::function<void()>& call) {
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
inline std::string headerText(const ApiTestServer::Seen& request) {
    std::string text;
    for (const auto& [name, value] : request.headers) {
        if (name != "Host" && name != "Content-Length") text += "; " + name + ": " + value;
    }
    return text;
}

inline void waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// A handler that holds its reply back until the test ends: only a limit or a cancellation ends the call.
inline ApiTestServer::Handler silent(const ApiTestServer& server) {
    return [&server](const httplib::Request&, httplib::Response& response) {
        waitUntil([&] { return server.stopping(); }, std::chrono::seconds(20));
        response.set_content("{}", "application/json");
    };
}

// The address of a server that has gone: connections are refused.
inline std::string closedURL() {
    return ApiTestServer().url();
}

}  // namespace mirel::test
