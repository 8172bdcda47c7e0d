#include "host/sync_host.h"

#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "host/arguments.h"

#include <asio/co_spawn.hpp>
#include <unistd.h>

#include <iostream>
#include <limits>
#include <stdexcept>

namespace mirel::host {

namespace {

// What other devices of the account see this one as.
std::string deviceName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) == 0 && name[0] != '\0') return name;
    return "Linux";
}

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

SyncHost::SyncHost(SyncIntervals intervals) {
    const std::string baseURL = SyncEngine::defaultBaseURL();
    store_ = std::make_unique<CaptureStore>(MirelPaths::databaseURL());
    engine_ = SyncEngine::create(loop_.get_executor(), *store_, baseURL, deviceName(), "1.0.0", intervals);
}

// The engine goes first: it joins its pool while the store is still there.
SyncHost::~SyncHost() { engine_.reset(); }

void SyncHost::run(std::function<asio::awaitable<void>()> work) {
    std::exception_ptr failure;
    asio::co_spawn(engine_->executor(), std::move(work), [&failure](std::exception_ptr error) { failure = error; });
    loop_.run();
    loop_.restart();
    if (failure) std::rethrow_exception(failure);
}

int withSyncHost(std::string_view command, const std::function<int(SyncHost&)>& body, SyncIntervals intervals) {
    std::unique_ptr<SyncHost> host;
    try {
        host = std::make_unique<SyncHost>(intervals);
    } catch (const std::invalid_argument& error) {
        std::cerr << "mirel " << command << ": " << error.what() << '\n';
        return exitUsage;
    }
    return body(*host);
}

std::optional<Workspace> defaultWorkspace(CaptureStore& store) {
    const auto id = store.defaultWorkspaceID();
    if (!id) return std::nullopt;
    for (const Workspace& workspace : store.workspaces()) {
        if (workspace.id == *id) return workspace;
    }
    return std::nullopt;
}

std::string waitingToBeSent(CaptureStore& store) {
    constexpr auto all = std::numeric_limits<std::int64_t>::max();
    std::vector<std::string> parts;
    const auto add = [&](std::size_t count, const std::string& one, const std::string& many) {
        if (count > 0) parts.push_back(counted(count, one, many));
    };
    add(store.pending("captures", all).size(), "capture", "captures");
    add(store.pending("capture_images", all).size(), "image", "images");
    add(store.pending("groups", all).size(), "group", "groups");
    add(store.pendingComments(all).size(), "comment", "comments");
    return join(parts, ", ");
}

}  // namespace mirel::host
