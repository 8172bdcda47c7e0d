#pragma once
// A flag that another thread raises to end the network calls given it.
//
//     Cancellation cancel;                       // one per task, or per engine start
//     pool.post([&] { client.sync(body, cancel); });
//     cancel.cancel();                           // from any thread: the call ends at once
//
// Copies share one flag. Once raised it stays raised: make a new one for new work.
// A call that is cancelled fails as a broken transfer (SyncError::offline, or
// TransferError of kind `cancelled` for the direct transfers to storage).
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace mirel {

class Cancellation {
public:
    Cancellation();

    // Raises the flag and wakes every call waiting on it. Thread-safe.
    void cancel() const;
    bool isCancelled() const;

    // While the returned object lives, cancel() also calls `wake` (on the
    // cancelling thread). Used by a transfer to leave its wait at once.
    class Registration;
    Registration onCancel(std::function<void()> wake) const;

private:
    struct State {
        std::mutex mutex;
        bool cancelled = false;                   // guarded by mutex
        std::list<std::function<void()>> wakers;  // guarded by mutex
    };
    std::shared_ptr<State> state_;
};

class Cancellation::Registration {
public:
    Registration(std::shared_ptr<State> state, std::list<std::function<void()>>::iterator entry)
        : state_(std::move(state)), entry_(entry) {}
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

private:
    std::shared_ptr<State> state_;
    std::list<std::function<void()>>::iterator entry_;
};

}  // namespace mirel
