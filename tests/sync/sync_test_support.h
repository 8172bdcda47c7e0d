#pragma once
// Verbs shared by the client's tests.
#include "core/sync/sync_client.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace mirel::test {

// Limits short enough that a silent or endless reply fails within seconds.
inline constexpr TransferLimits quickLimits{std::chrono::seconds(1), std::chrono::milliseconds(2500)};

// How a call ended, as one comparable line: "ok", "offline: Can't reach …", "server: Server error 500: …".
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

// Waits up to `limit` in small steps, returning early once `done` is true.
inline void waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace mirel::test
