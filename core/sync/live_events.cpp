// The live event stream: one long-lived connection on which the server says
// that something changed elsewhere, so that the next run comes at once
// instead of at the next tick of the timer. Events are only signals; nothing
// in them is applied, and a lost one costs only time.
#include "core/sync/sync_engine.h"

#include "core/sync/http_transfer.h"

#include <asio/post.hpp>

namespace mirel {

void SyncEngine::startEvents() {
    eventsTask_.cancel();
    eventsTask_ = spawnTask(executor_, readEvents(shared_from_this()));
}

// Holds the engine until cancelled. The stream is read on the pool; only an
// event hops to the executor, so a run in progress doesn't hold up the reading.
asio::awaitable<void> SyncEngine::readEvents(std::shared_ptr<SyncEngine> self) {
    const std::weak_ptr<SyncEngine> weak = self;
    for (;;) {
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (wasCancelled(state)) co_return;
        // Built anew for each attempt: it carries the token of this moment.
        const HttpRequest request = self->client_.events();
        const auto onLine = [weak, executor = self->executor_](std::string_view line) {
            if (!line.starts_with("event: change")) return;
            asio::post(executor, [weak] {
                const auto engine = weak.lock();
                if (engine && engine->isSignedIn()) engine->noteLocalChange();
            });
        };
        try {
            // A failure to connect, a status other than 200 and an end of the
            // stream all lead to the same pause; the next run settles what a
            // 401 means for the session.
            co_await self->call(
                [&request, &onLine](const Cancellation& cancel) { Http::streamLines(request, onLine, cancel); });
        } catch (...) {
        }
        if (wasCancelled(state)) co_return;
        co_await sleepFor(self->scheduler_->intervals().reconnect);
    }
}

}  // namespace mirel
