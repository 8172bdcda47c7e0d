#pragma once
// Hears the library's change signal, which `mirel add` and `mirel-mcp` post on
// the user's session bus, and calls back on an Asio executor for each one.
#include <asio/any_io_executor.hpp>

#include <functional>
#include <memory>

namespace mirel::host {

class ChangeListener {
public:
    // Subscribes on the session bus named by the environment. Nothing (and a
    // null result) when there is no session bus: changes are then noticed by
    // the periodic run only.
    static std::unique_ptr<ChangeListener> open(const asio::any_io_executor& executor,
                                                std::function<void()> onChange);
    ~ChangeListener();
    ChangeListener(const ChangeListener&) = delete;
    ChangeListener& operator=(const ChangeListener&) = delete;

    // Stops listening; the pending wait ends, so the event loop can finish.
    void close();

private:
    struct State;
    explicit ChangeListener(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

}  // namespace mirel::host
