#pragma once
// A private D-Bus session bus for one test, and a listener that counts the
// library's change signals on it.
//
//     DBusSession bus;                 // starts dbus-daemon, points the env at it
//     ChangeSignalListener listener;   // subscribed before anything posts
//     store.insert(c);
//     EXPECT_EQ(listener.settle(1), 1);
#include "tests/support/scoped_env.h"

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <string>


namespace mirel::test {

class DBusSession {
public:
    // Starts `dbus-daemon --session --print-address --nofork` and sets
    // DBUS_SESSION_BUS_ADDRESS to it for the life of the object. Throws
    // std::runtime_error when the daemon cannot be started.
    DBusSession();
    ~DBusSession();
    DBusSession(const DBusSession&) = delete;
    DBusSession& operator=(const DBusSession&) = delete;

    const std::string& address() const { return address_; }

private:
    pid_t daemon_ = -1;
    std::string address_;
    ScopedEnv env_;
};

class ChangeSignalListener {
public:
    // Connects to the session bus named by the environment and subscribes to
    // dev.mirel.store.didChange. Throws std::runtime_error on failure.
    ChangeSignalListener();
    ~ChangeSignalListener();
    ChangeSignalListener(const ChangeSignalListener&) = delete;
    ChangeSignalListener& operator=(const ChangeSignalListener&) = delete;

    // Reads signals until `expected` have arrived (or `timeout` passed), then
    // goes on reading for `quiet` so that extra ones show, and returns the
    // count since the last reset. The counter is reset afterwards.
    int settle(int expected, std::chrono::milliseconds timeout = std::chrono::seconds(5),
               std::chrono::milliseconds quiet = std::chrono::milliseconds(150));

    // Counts what `action` posts: runs it, then posts one marker of its own so
    // that even "nothing" has something to wait for.
    int postsDuring(const auto& action, int expected) {
        settle(0, std::chrono::milliseconds(0), std::chrono::milliseconds(0));
        action();
        postMarker();
        return settle(expected + 1) - 1;
    }

    int received() const { return count_; }

private:
    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* error);
    void postMarker();
    void pump(std::chrono::steady_clock::time_point until, int stopAt);

    struct BusDeleter {
        void operator()(sd_bus* bus) const;
    };
    struct SlotDeleter {
        void operator()(sd_bus_slot* slot) const;
    };
    std::unique_ptr<sd_bus, BusDeleter> bus_;
    std::unique_ptr<sd_bus_slot, SlotDeleter> slot_;
    int count_ = 0;
};

}  // namespace mirel::test
