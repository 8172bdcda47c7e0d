#pragma once
// A private D-Bus session bus for one test, and a listener that counts the
// library's change signals on it.
#include "tests/support/mcp_process.h"
#include "tests/support/scoped_env.h"

#include <systemd/sd-bus.h>

#include <memory>

namespace mirel::test {

// Starts dbus-daemon and points DBUS_SESSION_BUS_ADDRESS at it while it lives.
class DBusSession {
public:
    DBusSession();
    ~DBusSession() { daemon_.terminate(); }

private:
    McpProcess daemon_;
    ScopedEnv env_;
};

class ChangeSignalListener {
public:
    // Subscribed to dev.mirel.store.didChange before the constructor returns.
    ChangeSignalListener();
    // Reads until `expected` signals came (or 5 s passed), then 150 ms more so
    // that extra ones show; gives the count since the last call.
    int settle(int expected);

private:
    std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus_{nullptr, sd_bus_flush_close_unref};
    std::unique_ptr<sd_bus_slot, sd_bus_slot* (*)(sd_bus_slot*)> slot_{nullptr, sd_bus_slot_unref};
    int count_ = 0;
};

}  // namespace mirel::test
