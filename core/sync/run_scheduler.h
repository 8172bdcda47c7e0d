#pragma once
// When the sync engine runs: a periodic task (a run, then a pause), a run a
// short while after the last of a burst of local changes, and the rule that
// only one run goes on at a time while any number of requests during it cost
// one further run. Everything here lives on the engine's serial executor.
#include "core/sync/serial_tasks.h"

#include <chrono>
#include <functional>
#include <memory>

namespace mirel {

struct SyncIntervals {
    std::chrono::milliseconds pause{30'000};      // from the end of one periodic run to the next
    std::chrono::milliseconds debounce{2'000};    // after a local change or a live event
    std::chrono::milliseconds reconnect{15'000};  // after any end of the event stream
    std::chrono::milliseconds pollSecond{1'000};  // one second of a sign-in code's poll interval
};

class RunScheduler {
public:
    using Run = std::function<asio::awaitable<void>()>;
    using Predicate = std::function<bool()>;

    // `runOnce` must let no failure out. `canRun` says whether runs may happen
    // at all (the engine: whether it has a session). The tasks hold `owner`
    // weakly: while one runs it holds it, and once it is gone they end.
    RunScheduler(SerialExecutor executor, SyncIntervals intervals, Run runOnce, Predicate canRun,
                 std::weak_ptr<void> owner);
    RunScheduler(const RunScheduler&) = delete;
    RunScheduler& operator=(const RunScheduler&) = delete;

    // Starts the periodic task, unless runs can't happen or it is running.
    void start();
    bool isStarted() const { return static_cast<bool>(loopTask_); }
    // Cancels the periodic task and the debounced run, those that exist. A run
    // in progress ends at its next wait.
    void stop();
    // Puts a run `debounce` ahead, replacing one that was waiting.
    void noteLocalChange();
    // The one way into a run; returns when the runs it drove are over, or at
    // once when another driver is inside (which then runs once more).
    asio::awaitable<void> syncNow();
    // Makes the driver that is inside run again at once.
    void requestAnotherRun() { wantsAnother_ = true; }
    bool isSyncing() const { return syncing_; }
    const SyncIntervals& intervals() const { return intervals_; }

private:
    static asio::awaitable<void> periodic(std::weak_ptr<void> owner, RunScheduler* self);
    static asio::awaitable<void> debounced(std::weak_ptr<void> owner, RunScheduler* self);

    // Constant after construction.
    SerialExecutor executor_;
    SyncIntervals intervals_;
    Run runOnce_;
    Predicate canRun_;
    std::weak_ptr<void> owner_;

    // On the executor only.
    TaskHandle loopTask_;
    TaskHandle debounceTask_;  // still sleeping
    TaskHandle debounceRun_;   // past its sleep, driving a run: a later change must not cut it short
    bool syncing_ = false;
    bool wantsAnother_ = false;
};

}  // namespace mirel
