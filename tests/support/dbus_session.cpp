#include "tests/support/dbus_session.h"

#include "core/platform/change_signal.h"

#include <stdexcept>

namespace mirel::test {

DBusSession::DBusSession()
    : daemon_(std::filesystem::temp_directory_path(), {},
              {"/usr/bin/dbus-daemon", "--session", "--print-address", "--nofork"}) {
    const auto address = daemon_.readLine(10s, false);
    if (!address || address->empty()) throw std::runtime_error("dbus-daemon printed no address");
    env_.set("DBUS_SESSION_BUS_ADDRESS", *address);
}

ChangeSignalListener::ChangeSignalListener() {
    sd_bus* bus = nullptr;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_open_user(&bus) < 0) throw std::runtime_error("no session bus");
    bus_.reset(bus);
    const std::string rule = std::string("type='signal',interface='") + ChangeSignal::interface + "',member='" +
                             ChangeSignal::member + "',path='" + ChangeSignal::objectPath + "'";
    const auto counted = [](sd_bus_message*, void* self, sd_bus_error*) {
        return ++static_cast<ChangeSignalListener*>(self)->count_, 0;
    };
    // The synchronous form waits for the bus to confirm the match.
    if (sd_bus_add_match(bus, &slot, rule.c_str(), counted, this) < 0) throw std::runtime_error("no match");
    slot_.reset(slot);
}

int ChangeSignalListener::settle(int expected) {
    auto until = std::chrono::steady_clock::now() + 5s;
    for (bool quiet = false;;) {
        if (!quiet && count_ >= expected) until = std::min(until, std::chrono::steady_clock::now() + 150ms), quiet = true;
        if (sd_bus_process(bus_.get(), nullptr) > 0) continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(until - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left.count()));
    }
    return std::exchange(count_, 0);
}

}  // namespace mirel::test
