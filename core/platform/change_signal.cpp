#include "core/platform/change_signal.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

namespace mirel::ChangeSignal {

namespace {

// libsystemd is loaded on the first post rather than linked: it brings seven
// shared libraries with it, and most runs of the server never write, so
// start-up does not pay for them.
struct SdBus {
    decltype(&::sd_bus_open_user) openUser = nullptr;
    decltype(&::sd_bus_close_unref) closeUnref = nullptr;
    decltype(&::sd_bus_emit_signal) emitSignal = nullptr;
    decltype(&::sd_bus_process) process = nullptr;
    decltype(&::sd_bus_get_n_queued_write) queuedWrites = nullptr;
    decltype(&::sd_bus_wait) wait = nullptr;
};

// Null when the library or one of its symbols is missing: then there is no
// bus to tell.
const SdBus* sdBus() {
    static std::once_flag once;
    static SdBus api;
    static bool available = false;
    std::call_once(once, [] {
        void* library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
        if (!library) return;  // kept open for the life of the process
        const auto bind = [library](auto& function, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
            return function != nullptr;
        };
        available = bind(api.openUser, "sd_bus_open_user") && bind(api.closeUnref, "sd_bus_close_unref") &&
                    bind(api.emitSignal, "sd_bus_emit_signal") && bind(api.process, "sd_bus_process") &&
                    bind(api.queuedWrites, "sd_bus_get_n_queued_write") && bind(api.wait, "sd_bus_wait");
    });
    return available ? &api : nullptr;
}

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
    const SdBus* sd = sdBus();
    if (!sd) return;
    sd_bus* raw = nullptr;
    // Reads DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus) at each call;
    // no session bus means nobody to tell.
    if (sd->openUser(&raw) < 0 || !raw) return;
    const auto closer = [sd](sd_bus* bus) { sd->closeUnref(bus); };
    std::unique_ptr<sd_bus, decltype(closer)> bus(raw, closer);

    if (sd->emitSignal(bus.get(), objectPath, interface, member, nullptr) < 0) return;

    // Drive the connection until the signal has left, within the budget. This
    // is sd_bus_flush without its unbounded waits; no reply is awaited.
    const auto deadline = std::chrono::steady_clock::now() + sendBudget;
    for (;;) {
        const int processed = sd->process(bus.get(), nullptr);
        if (processed < 0) return;
        std::uint64_t queued = 0;
        if (sd->queuedWrites(bus.get(), &queued) < 0) return;
        if (queued == 0) return;  // written to the socket; the bus delivers it
        if (processed > 0) continue;
        const std::uint64_t left = microsecondsLeft(deadline);
        if (left == 0) return;
        if (sd->wait(bus.get(), left) < 0) return;
    }
}

}  // namespace mirel::ChangeSignal
