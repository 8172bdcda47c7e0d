#include "core/platform/change_signal.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>

namespace mirel::ChangeSignal {

namespace {

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

// How long a post may take at most, hand-shake included. A healthy session bus
// answers within a millisecond; a hung one must not hold up a write.
constexpr std::chrono::milliseconds sendBudget{250};

std::uint64_t microsecondsLeft(std::chrono::steady_clock::time_point deadline) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return 0;
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(left).count());
}

}  // namespace

// One connection per post. Writes are rare (a person or an agent acting), so
// the sub-millisecond connect costs nothing, and it keeps post() correct when
// the session bus changes between calls or the process forks: sd-bus refuses
// a connection inherited from the parent, and a cached one would need a lock.
void post() {
    sd_bus* raw = nullptr;
    // Reads DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus) at each call;
    // no session bus means nobody to tell.
    if (sd_bus_open_user(&raw) < 0 || !raw) return;
    Bus bus(raw);

    if (sd_bus_emit_signal(bus.get(), objectPath, interface, member, nullptr) < 0) return;

    // Drive the connection until the signal has left, within the budget. This
    // is sd_bus_flush without its unbounded waits; no reply is awaited.
    const auto deadline = std::chrono::steady_clock::now() + sendBudget;
    for (;;) {
        const int processed = sd_bus_process(bus.get(), nullptr);
        if (processed < 0) return;
        std::uint64_t queued = 0;
        if (sd_bus_get_n_queued_write(bus.get(), &queued) < 0) return;
        if (queued == 0) return;  // written to the socket; the bus delivers it
        if (processed > 0) continue;
        const std::uint64_t left = microsecondsLeft(deadline);
        if (left == 0) return;
        if (sd_bus_wait(bus.get(), left) < 0) return;
    }
}

}  // namespace mirel::ChangeSignal
