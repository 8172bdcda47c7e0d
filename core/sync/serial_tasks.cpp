#include "core/sync/serial_tasks.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>

namespace mirel {

void TaskHandle::cancel() {
    if (!signal_) return;
    signal_->emit(asio::cancellation_type::terminal);
    signal_.reset();
}

TaskHandle spawnTask(const SerialExecutor& executor, asio::awaitable<void> task) {
    TaskHandle handle;
    handle.signal_ = std::make_shared<asio::cancellation_signal>();
    // The completion handler keeps the signal alive for as long as the task
    // may look at its slot.
    asio::co_spawn(executor, std::move(task),
                   asio::bind_cancellation_slot(handle.signal_->slot(),
                                                [signal = handle.signal_](std::exception_ptr) {}));
    return handle;
}

asio::awaitable<bool> sleepFor(std::chrono::steady_clock::duration duration) {
    asio::steady_timer timer(co_await asio::this_coro::executor, duration);
    std::error_code error;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, error));
    co_return !error;
}

}  // namespace mirel
