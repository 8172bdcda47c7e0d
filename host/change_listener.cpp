#include "host/change_listener.h"

#include "core/platform/change_signal.h"

#include <asio/posix/stream_descriptor.hpp>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace mirel::host {

struct ChangeListener::State {
    struct BusCloser {
        void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    };
    struct SlotUnref {
        void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
    };

    State(const asio::any_io_executor& executor, std::function<void()> onChange)
        : descriptor(executor), onChange(std::move(onChange)) {}

    static int onSignal(sd_bus_message*, void* self, sd_bus_error*) {
        static_cast<State*>(self)->heard = true;
        return 0;
    }

    // Waits for the bus to become readable, then hands every queued message
    // to sd-bus and reports what it heard.
    static void arm(const std::shared_ptr<State>& state) {
        state->descriptor.async_wait(asio::posix::descriptor_base::wait_read,
                                     [state](const std::error_code& error) {
                                         if (error || !state->bus) return;
                                         while (sd_bus_process(state->bus.get(), nullptr) > 0) {
                                         }
                                         if (state->heard) {
                                             state->heard = false;
                                             state->onChange();
                                         }
                                         arm(state);
                                     });
    }

    std::unique_ptr<sd_bus, BusCloser> bus;
    std::unique_ptr<sd_bus_slot, SlotUnref> slot;
    asio::posix::stream_descriptor descriptor;  // a duplicate of the bus's socket
    std::function<void()> onChange;
    bool heard = false;
};

std::unique_ptr<ChangeListener> ChangeListener::open(const asio::any_io_executor& executor,
                                                     std::function<void()> onChange) {
    auto state = std::make_shared<State>(executor, std::move(onChange));
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0 || !bus) return nullptr;
    state->bus.reset(bus);
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal(bus, &slot, nullptr, ChangeSignal::objectPath, ChangeSignal::interface,
                            ChangeSignal::member, &State::onSignal, state.get()) < 0) {
        return nullptr;
    }
    state->slot.reset(slot);
    const int fd = sd_bus_get_fd(bus);
    const int copy = fd < 0 ? -1 : dup(fd);
    if (copy < 0) return nullptr;
    state->descriptor.assign(copy);
    // The subscription's own reply may already have brought messages along.
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    state->heard = false;
    State::arm(state);
    return std::unique_ptr<ChangeListener>(new ChangeListener(std::move(state)));
}

ChangeListener::ChangeListener(std::shared_ptr<State> state) : state_(std::move(state)) {}

ChangeListener::~ChangeListener() { close(); }

void ChangeListener::close() {
    if (!state_->bus) return;
    std::error_code ignored;
    state_->descriptor.close(ignored);  // ends the pending wait with an error
    state_->slot.reset();
    state_->bus.reset();
}

}  // namespace mirel::host
