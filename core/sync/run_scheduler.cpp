#include "core/sync/run_scheduler.h"

#include <utility>

namespace mirel {

RunScheduler::RunScheduler(SerialExecutor executor, SyncIntervals intervals, Run runOnce, Predicate canRun,
                           std::weak_ptr<void> owner)
    : executor_(std::move(executor)),
      intervals_(intervals),
      runOnce_(std::move(runOnce)),
      canRun_(std::move(canRun)),
      owner_(std::move(owner)) {}

void RunScheduler::start() {
    if (!canRun_() || loopTask_) return;
    loopTask_ = spawnTask(executor_, periodic(owner_, this));
}

void RunScheduler::stop() {
    loopTask_.cancel();
    debounceTask_.cancel();
    debounceRun_.cancel();
}

void RunScheduler::noteLocalChange() {
    if (!canRun_()) return;
    debounceTask_.cancel();
    debounceTask_ = spawnTask(executor_, debounced(owner_, this));
}

asio::awaitable<void> RunScheduler::syncNow() {
    if (!canRun_()) co_return;
    if (syncing_) {
        wantsAnother_ = true;
        co_return;
    }
    syncing_ = true;
    for (;;) {
        // A driver that was cancelled stops driving; its next wait would
        // fail at once anyway.
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (wasCancelled(state)) break;
        wantsAnother_ = false;
        co_await runOnce_();
        if (!wantsAnother_) break;
    }
    syncing_ = false;
}

// `self` is used only while `owner` is held.
asio::awaitable<void> RunScheduler::periodic(std::weak_ptr<void> owner, RunScheduler* self) {
    for (;;) {
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (wasCancelled(state)) co_return;
        std::chrono::milliseconds pause;
        {
            const auto held = owner.lock();
            if (!held) co_return;
            co_await self->syncNow();
            pause = self->intervals_.pause;
        }
        if (wasCancelled(state)) co_return;
        co_await sleepFor(pause);
    }
}

asio::awaitable<void> RunScheduler::debounced(std::weak_ptr<void> owner, RunScheduler* self) {
    std::chrono::milliseconds delay;
    {
        const auto held = owner.lock();
        if (!held) co_return;
        delay = self->intervals_.debounce;
    }
    co_await sleepFor(delay);
    // A replacement cancels this task even when the timer had already fired.
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    if (wasCancelled(state)) co_return;
    const auto held = owner.lock();
    if (!held) co_return;
    // The driver of a run keeps a handle for stop; one that only asks for
    // another run (a driver is inside) has nothing to cancel.
    TaskHandle mine = std::exchange(self->debounceTask_, {});
    if (!self->syncing_) self->debounceRun_ = std::move(mine);
    co_await self->syncNow();
}

}  // namespace mirel
