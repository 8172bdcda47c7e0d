// The account's life on this device: signing in with a code entered in a
// browser elsewhere, taking the account into the library, signing out,
// moving local captures into a workspace, and the daily check that this
// device and the server agree on which captures exist.
#include "core/sync/sync_engine.h"

#include "core/platform/change_signal.h"
#include "core/sync/keychain.h"
#include "core/sync/wire.h"

#include <asio/error.hpp>

#include <cmath>
#include <system_error>

namespace mirel {

namespace {

constexpr double reconcileInterval = 86400;  // a day
constexpr double slowDownStep = 5;            // seconds added to the poll interval

[[noreturn]] void throwCancelled() { throw std::system_error(asio::error::operation_aborted); }

}  // namespace

asio::awaitable<DeviceCode> SyncEngine::beginSignIn() {
    co_return co_await call([this](const Cancellation& cancel) { return client_.requestDeviceCode(cancel); });
}

asio::awaitable<AccountInfo> SyncEngine::completeSignIn(DeviceCode code) {
    double interval = code.interval;
    std::optional<std::string> token;
    while (!token && Clock::now() < code.expiresAt) {
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (wasCancelled(state)) throwCancelled();
        // The first sleep comes before the first poll.
        const auto pause = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            scheduler_->intervals().pollSecond * std::min(interval, 86400.0));
        const bool slept = co_await sleepFor(pause);
        if (!slept) throwCancelled();
        const DevicePoll poll =
            co_await call([this, &code](const Cancellation& cancel) { return client_.pollDeviceToken(code, cancel); });
        switch (poll.kind) {
            case DevicePoll::Kind::pending: break;
            case DevicePoll::Kind::slowDown: interval += slowDownStep; break;  // for the rest of this sign-in
            case DevicePoll::Kind::denied: throw SignInError(SignInError::Kind::denied);
            case DevicePoll::Kind::expired: throw SignInError(SignInError::Kind::expired);
            case DevicePoll::Kind::token: token = poll.token; break;
        }
    }
    if (!token) throw SignInError(SignInError::Kind::expired);
    client_.setToken(token);
    Keychain::write(*token, "session");
    // A failure from here on keeps the token: the engine counts as signed in.
    const AccountInfo info = co_await call([this](const Cancellation& cancel) { return client_.me(cancel); });
    activate(info);
    start();
    co_return info;
}

void SyncEngine::activate(const AccountInfo& info) {
    store_.setSyncMeta("user_id", info.user.id);
    store_.setSyncMeta("user_name", info.user.name);
    store_.setSyncMeta("user_email", info.user.email);
    // Kept across sign-ins, until a sign-out purges it.
    const std::string deviceID = store_.syncMeta("device_id").value_or(newID());
    store_.setSyncMeta("device_id", deviceID);
    store_.upsertPerson(info.user);
    store_.replaceWorkspaces(info.workspaces);
    if (!store_.syncMeta("default_workspace_id") && !info.workspaces.empty()) {
        store_.setSyncMeta("default_workspace_id", info.workspaces.front().id);
    }
    lastAccountRefresh_ = Clock::now();
    setStatus(SyncStatus::idle(lastSync_));
    // Not waited for; a device that isn't registered still syncs.
    spawnTask(executor_, registerDevice(shared_from_this(), deviceID));
}

asio::awaitable<void> SyncEngine::registerDevice(std::shared_ptr<SyncEngine> self, std::string deviceID) {
    try {
        co_await self->call([&self, &deviceID](const Cancellation& cancel) {
            self->client_.registerDevice(deviceID, self->deviceName_, SyncClient::devicePlatform, self->appVersion_,
                                         cancel);
        });
    } catch (...) {
    }
}

asio::awaitable<void> SyncEngine::signOut() {
    stop();
    try {
        co_await call([this](const Cancellation& cancel) { client_.signOut(cancel); });
    } catch (...) {
        // the server's side of the sign-out is a courtesy
    }
    client_.setToken(std::nullopt);
    Keychain::remove("session");
    try {
        store_.purgeAccountData();
    } catch (...) {
    }
    lastSync_.reset();
    setStatus(SyncStatus::signedOut());
}

void SyncEngine::setDefaultWorkspace(const std::optional<std::string>& id) {
    try {
        store_.setSyncMeta("default_workspace_id", id);
    } catch (...) {
    }
}

asio::awaitable<void> SyncEngine::adoptLocalCaptures(const std::string& into,
                                                     const std::optional<std::vector<std::string>>& ids) {
    std::vector<std::string> chosen;
    if (ids) {
        chosen = *ids;
    } else {
        try {
            for (const Capture& capture : store_.localCaptures()) chosen.push_back(capture.id);
        } catch (...) {
        }
    }
    for (const std::string& id : chosen) {
        try {
            store_.adopt(id, into);
        } catch (...) {
            // the others still move
        }
    }
    co_await syncNow();
}

asio::awaitable<void> SyncEngine::reconcileIfDue() {
    std::optional<Date> last;
    try {
        if (const auto text = store_.syncMeta("last_reconcile")) last = Wire::date(Json(*text));
    } catch (...) {
    }
    if (last && Clock::now() - *last < reconcileInterval) co_return;
    const std::vector<std::string> ids = store_.syncedCaptureIDs();
    const ReconcileResult result =
        co_await call([this, &ids](const Cancellation& cancel) { return client_.reconcile(ids, cancel); });
    for (const std::string& id : result.drop) store_.dropCapture(id);
    if (!result.missing.empty()) {
        store_.log("info", std::to_string(result.missing.size()) + " captures missing locally; pulling everything again");
        store_.setSyncMeta("cursor", "0");
        scheduler_->requestAnotherRun();
    }
    store_.setSyncMeta("last_reconcile", Wire::stamp(Clock::now()).get<std::string>());
    if (!result.drop.empty()) ChangeSignal::post();
}

}  // namespace mirel
