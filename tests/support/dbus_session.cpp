#include "tests/support/dbus_session.h"

#include "core/platform/change_signal.h"

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace mirel::test {

namespace {

// The first line the daemon prints is its address.
std::string readAddress(int fd) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (line.empty() || line.back() != '\n') {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) break;
        char c = 0;
        if (read(fd, &c, 1) != 1) break;
        line += c;
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    return line;
}

}  // namespace

DBusSession::DBusSession() {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    daemon_ = fork();
    if (daemon_ < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        throw std::runtime_error("fork failed");
    }
    if (daemon_ == 0) {
        // Dies with the test, and keeps its start-up chatter off the test's output.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(pipeFds[1], STDOUT_FILENO);
        const int devNull = open("/dev/null", O_WRONLY);
        if (devNull >= 0) dup2(devNull, STDERR_FILENO);
        execlp("dbus-daemon", "dbus-daemon", "--session", "--print-address", "--nofork", nullptr);
        _exit(127);
    }
    close(pipeFds[1]);
    address_ = readAddress(pipeFds[0]);
    close(pipeFds[0]);
    if (address_.empty()) {
        kill(daemon_, SIGTERM);
        waitpid(daemon_, nullptr, 0);
        throw std::runtime_error("dbus-daemon printed no address");
    }
    env_.set("DBUS_SESSION_BUS_ADDRESS", address_);
}

DBusSession::~DBusSession() {
    if (daemon_ > 0) {
        kill(daemon_, SIGTERM);
        waitpid(daemon_, nullptr, 0);
    }
}

void ChangeSignalListener::BusDeleter::operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
void ChangeSignalListener::SlotDeleter::operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }

ChangeSignalListener::ChangeSignalListener() {
    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0 || !raw) throw std::runtime_error("cannot reach the session bus");
    bus_.reset(raw);
    const std::string rule = std::string("type='signal',interface='") + ChangeSignal::interface +
                             "',member='" + ChangeSignal::member + "',path='" + ChangeSignal::objectPath + "'";
    sd_bus_slot* slot = nullptr;
    // The synchronous form waits for the bus to confirm, so nothing posted
    // after construction is missed.
    if (sd_bus_add_match(bus_.get(), &slot, rule.c_str(), &ChangeSignalListener::onSignal, this) < 0) {
        throw std::runtime_error("cannot subscribe to the change signal");
    }
    slot_.reset(slot);
}

ChangeSignalListener::~ChangeSignalListener() = default;

int ChangeSignalListener::onSignal(sd_bus_message*, void* self, sd_bus_error*) {
    ++static_cast<ChangeSignalListener*>(self)->count_;
    return 0;
}

void ChangeSignalListener::postMarker() { ChangeSignal::post(); }

void ChangeSignalListener::pump(std::chrono::steady_clock::time_point until, int stopAt) {
    for (;;) {
        const int r = sd_bus_process(bus_.get(), nullptr);
        if (r < 0) return;
        if (r > 0) continue;
        if (stopAt >= 0 && count_ >= stopAt) return;
        const auto left = until - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return;
        sd_bus_wait(bus_.get(),
                    static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(left).count()));
    }
}

int ChangeSignalListener::settle(int expected, std::chrono::milliseconds timeout, std::chrono::milliseconds quiet) {
    pump(std::chrono::steady_clock::now() + timeout, expected);
    pump(std::chrono::steady_clock::now() + quiet, -1);
    const int seen = count_;
    count_ = 0;
    return seen;
}

}  // namespace mirel::test
