#include "core/sync/sync_engine.h"

#include "core/platform/change_signal.h"
#include "core/sync/http_transfer.h"
#include "core/sync/keychain.h"
#include "core/sync/wire.h"

#include <asio/error.hpp>

#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace mirel {

namespace {

constexpr double accountRefreshInterval = 21600;  // 6 hours
constexpr int maxCyclesPerRun = 26;

// A sync_meta date in the fractional form; absent when unreadable.
std::optional<Date> storedDate(CaptureStore& store, const std::string& key) {
    try {
        const auto text = store.syncMeta(key);
        if (!text) return std::nullopt;
        return Wire::date(Json(*text));
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace

std::string SyncEngine::defaultBaseURL() {
    const char* configured = std::getenv("MIREL_API_URL");
    if (!configured) return builtInBaseURL;
    if (Http::webURL(configured)) return configured;
    throw std::invalid_argument(std::string("MIREL_API_URL must be an http:// or https:// URL, not \"") +
                                configured + "\"");
}

std::shared_ptr<SyncEngine> SyncEngine::create(const asio::any_io_executor& executor, CaptureStore& store,
                                               const std::string& baseURL, std::string deviceName,
                                               std::optional<std::string> appVersion, SyncIntervals intervals) {
    std::shared_ptr<SyncEngine> engine(
        new SyncEngine(executor, store, baseURL, std::move(deviceName), std::move(appVersion)));
    SyncEngine* raw = engine.get();
    engine->scheduler_.emplace(
        engine->executor_, intervals, [raw] { return raw->runOnce(); }, [raw] { return raw->isSignedIn(); },
        std::weak_ptr<void>(engine));
    return engine;
}

SyncEngine::SyncEngine(const asio::any_io_executor& executor, CaptureStore& store, const std::string& baseURL,
                       std::string deviceName, std::optional<std::string> appVersion)
    : store_(store),
      client_(baseURL, Keychain::read("session")),
      deviceName_(std::move(deviceName)),
      appVersion_(std::move(appVersion)),
      executor_(executor) {
    lastSync_ = storedDate(store_, "last_sync");
    status_ = isSignedIn() ? SyncStatus::idle(lastSync_) : SyncStatus::signedOut();
}

SyncEngine::~SyncEngine() {
    // Whatever still waits on the network ends now, so the pool can be joined.
    closing_.cancel();
    pool_.join();
}

void SyncEngine::setStatus(SyncStatus status) {
    status_ = std::move(status);
    // A copy: the handler may replace itself.
    if (const StatusHandler handler = statusHandler_) handler(status_);
}

void SyncEngine::onStatus(StatusHandler handler) {
    statusHandler_ = std::move(handler);
    if (statusHandler_) statusHandler_(status_);
}

void SyncEngine::start() {
    if (!isSignedIn() || scheduler_->isStarted()) return;
    scheduler_->start();
    startEvents();
}

void SyncEngine::stop() {
    scheduler_->stop();
    eventsTask_.cancel();
}

void SyncEngine::noteLocalChange() { scheduler_->noteLocalChange(); }

asio::awaitable<void> SyncEngine::syncNow() { co_await scheduler_->syncNow(); }

asio::awaitable<void> SyncEngine::runOnce() {
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    setStatus(SyncStatus::syncing());
    std::exception_ptr failure;
    try {
        co_await runSteps();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        settleFailure(failure, wasCancelled(state));
        co_return;
    }
    lastSync_ = Clock::now();
    try {
        store_.setSyncMeta("last_sync", Wire::stamp(lastSync_).get<std::string>());
    } catch (...) {
        // the next launch shows an older time; nothing else depends on it
    }
    setStatus(SyncStatus::idle(lastSync_));
}

asio::awaitable<void> SyncEngine::runSteps() {
    if (!lastAccountRefresh_ || Clock::now() - *lastAccountRefresh_ >= accountRefreshInterval) {
        co_await refreshAccount();
    }
    for (int cycles = 1;; ++cycles) {
        const bool more = co_await cycle();
        if (!more || cycles == maxCyclesPerRun) break;
    }
    co_await downloadPendingImages();
    co_await reconcileIfDue();
}

void SyncEngine::settleFailure(std::exception_ptr failure, bool cancelled) {
    // A run cut short by stop (sign-out, the host leaving) is no failure of
    // the server's; it leaves the status a resting engine would show.
    if (cancelled) {
        setStatus(isSignedIn() ? SyncStatus::idle(lastSync_) : SyncStatus::signedOut());
        return;
    }
    std::string description;
    try {
        std::rethrow_exception(failure);
    } catch (const SyncError& error) {
        if (error.kind() == SyncError::Kind::unauthorized) {
            store_.log("warn", "Session rejected by the server; signed out");
            stop();
            client_.setToken(std::nullopt);
            Keychain::remove("session");
            setStatus(SyncStatus::sessionExpired());
            return;
        }
        if (error.kind() == SyncError::Kind::offline) {
            setStatus(SyncStatus::offline(error.detail()));
            return;
        }
        description = error.what();
    } catch (const std::exception& error) {
        description = error.what();
    } catch (...) {
        description = "unknown failure";
    }
    store_.log("error", description);
    setStatus(SyncStatus::failed(description));
}

asio::awaitable<void> SyncEngine::refreshAccount() {
    const AccountInfo info = co_await call([this](const Cancellation& cancel) { return client_.me(cancel); });
    store_.setSyncMeta("user_id", info.user.id);
    store_.setSyncMeta("user_name", info.user.name);
    store_.upsertPerson(info.user);
    store_.replaceWorkspaces(info.workspaces);
    // A workspace the user has lost stops being the default.
    const auto current = store_.syncMeta("default_workspace_id");
    bool stillThere = false;
    for (const Workspace& workspace : info.workspaces) stillThere = stillThere || workspace.id == current;
    if (!stillThere) {
        store_.setSyncMeta("default_workspace_id", info.workspaces.empty()
                                                       ? std::nullopt
                                                       : std::optional<std::string>(info.workspaces.front().id));
    }
    lastAccountRefresh_ = Clock::now();
}

std::string SyncEngine::id8(const std::string& id) { return id.size() <= 8 ? id : id.substr(id.size() - 8); }

}  // namespace mirel
