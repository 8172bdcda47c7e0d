#pragma once
// How the sync engine runs its work. Its state lives on one serial executor (a
// strand), on which tasks interleave only where they wait: at a sleep or at a
// blocking network call, which runs on a small thread pool and is awaited.
// Every such wait ends at once when its task is cancelled.
#include <asio/any_io_executor.hpp>
#include <asio/associated_cancellation_slot.hpp>
#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/awaitable.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/cancellation_state.hpp>
#include <asio/dispatch.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/this_coro.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_awaitable.hpp>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

namespace mirel {

using SerialExecutor = asio::strand<asio::any_io_executor>;

// A running task that can be cancelled and replaced, never joined. Cancel it
// on the executor it runs on.
class TaskHandle {
public:
    TaskHandle() = default;
    explicit operator bool() const { return signal_ != nullptr; }
    // Ends the task's current wait (sleep or call) and every later one; a
    // no-op on an empty handle. The handle is empty afterwards.
    void cancel();

private:
    friend TaskHandle spawnTask(const SerialExecutor& executor, asio::awaitable<void> task);
    std::shared_ptr<asio::cancellation_signal> signal_;
};

// Starts `task` on `executor`. A failure that escapes the task ends it
// quietly: tasks handle what they can, and a cancelled wait ends them.
TaskHandle spawnTask(const SerialExecutor& executor, asio::awaitable<void> task);

// In a task that has been cancelled, every further co_await throws asio's
// operation_aborted. Check first where a task must end tidily:
//     const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
//     if (wasCancelled(state)) ...
// (g++ 12 miscompiles a co_await inside the condition itself.)
inline bool wasCancelled(const asio::cancellation_state& state) {
    return state.cancelled() != asio::cancellation_type::none;
}

// Sleeps on the calling task's executor; false when the sleep was cancelled.
asio::awaitable<bool> sleepFor(std::chrono::steady_clock::duration duration);

// Runs the blocking `work` on `pool` and gives its result or its exception
// back on the calling task's executor. Cancelling the task calls `interrupt`
// (on that executor), which must make `work` return soon; the task resumes
// only once `work` has returned, so `work` may refer to the task's locals.
template <typename Work>
asio::awaitable<std::invoke_result_t<Work&>> offload(asio::thread_pool& pool, Work work,
                                                     std::function<void()> interrupt = {}) {
    using Result = std::invoke_result_t<Work&>;
    using Box = std::conditional_t<std::is_void_v<Result>, std::monostate, Result>;
    using Signature = void(std::exception_ptr, std::optional<Box>);

    auto initiation = [&pool, &work, &interrupt](auto handler) {
        auto slot = asio::get_associated_cancellation_slot(handler);
        if (slot.is_connected() && interrupt) {
            slot.assign([interrupt](asio::cancellation_type) { interrupt(); });
        }
        // Keeps the caller's executor from running out of work while the
        // call is away on the pool.
        auto guard = asio::make_work_guard(asio::get_associated_executor(handler));
        asio::post(pool, [handler = std::move(handler), guard = std::move(guard), work = std::move(work)]() mutable {
            std::exception_ptr error;
            std::optional<Box> result;
            try {
                if constexpr (std::is_void_v<Result>) {
                    work();
                    result.emplace();
                } else {
                    result.emplace(work());
                }
            } catch (...) {
                error = std::current_exception();
            }
            auto executor = guard.get_executor();
            asio::dispatch(executor, [handler = std::move(handler), guard = std::move(guard), error,
                                      result = std::move(result)]() mutable {
                // Cancellation is emitted on this same executor, so once the
                // slot is cleared here `interrupt` can no longer be called.
                asio::get_associated_cancellation_slot(handler).clear();
                std::move(handler)(error, std::move(result));
            });
        });
    };
    std::optional<Box> result =
        co_await asio::async_initiate<const asio::use_awaitable_t<>&, Signature>(initiation, asio::use_awaitable);
    if constexpr (!std::is_void_v<Result>) co_return std::move(*result);
}

}  // namespace mirel
