#pragma once
// What the sync commands of `mirel` share: the library, a SyncEngine on an
// event loop, and running one piece of work on the engine's executor until
// nothing is left to do.
#include "core/store/capture_store.h"
#include "core/sync/sync_engine.h"

#include <asio/io_context.hpp>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace mirel::host {

class SyncHost {
public:
    // Opens the library and makes the engine. Throws std::invalid_argument
    // when MIREL_API_URL is not an http(s) URL.
    explicit SyncHost(SyncIntervals intervals = {});
    ~SyncHost();
    SyncHost(const SyncHost&) = delete;
    SyncHost& operator=(const SyncHost&) = delete;

    CaptureStore& store() { return *store_; }
    SyncEngine& engine() { return *engine_; }
    asio::io_context& loop() { return loop_; }

    // Runs `work` on the engine's executor, and the loop until it has nothing
    // left to do (the tasks that `work` started included). Rethrows what
    // `work` threw.
    void run(std::function<asio::awaitable<void>()> work);

private:
    asio::io_context loop_;
    std::unique_ptr<CaptureStore> store_;
    std::shared_ptr<SyncEngine> engine_;
};

// Makes the host and runs `body` with it. A bad MIREL_API_URL is reported as
// "mirel {command}: …" and gives exitUsage.
int withSyncHost(std::string_view command, const std::function<int(SyncHost&)>& body, SyncIntervals intervals = {});

// The default workspace's name, or nothing.
std::optional<Workspace> defaultWorkspace(CaptureStore& store);

// "2 captures, 1 image" and so on: what waits to be sent; empty when nothing does.
std::string waitingToBeSent(CaptureStore& store);

}  // namespace mirel::host
