// The change signal on a real, private session bus, and its silence without one.
#include "core/platform/change_signal.h"
#include "tests/support/dbus_session.h"
#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace mirel {
namespace {

using Clock = std::chrono::steady_clock;

TEST(ChangeSignalTest, EachPostArrivesOnceOnTheSessionBus) {
    test::DBusSession bus;
    test::ChangeSignalListener listener;
    ChangeSignal::post();
    ChangeSignal::post();
    ChangeSignal::post();
    EXPECT_EQ(listener.settle(3), 3);
}

TEST(ChangeSignalTest, FollowsTheBusNamedAtEachPost) {
    test::DBusSession first;
    test::ChangeSignalListener onFirst;
    {
        test::DBusSession second;  // points the environment at itself
        test::ChangeSignalListener onSecond;
        ChangeSignal::post();
        EXPECT_EQ(onSecond.settle(1), 1);
    }
    // The second session's scope put the first address back.
    ChangeSignal::post();
    EXPECT_EQ(onFirst.settle(1), 1);
}

TEST(ChangeSignalTest, WithoutASessionBusNothingHappens) {
    test::ScopedEnv env;
    const auto runtime = std::filesystem::temp_directory_path() / ("mirel-no-bus-" + std::to_string(getpid()));
    std::filesystem::create_directories(runtime);
    for (const auto& [name, address] : {std::pair<const char*, const char*>{"unset", nullptr},
                                        {"missing socket", "unix:path=/nonexistent/mirel/bus"},
                                        {"garbage", "not an address"}}) {
        SCOPED_TRACE(name);
        if (address) env.set("DBUS_SESSION_BUS_ADDRESS", address);
        else env.unset("DBUS_SESSION_BUS_ADDRESS");
        env.set("XDG_RUNTIME_DIR", runtime.string());
        const auto start = Clock::now();
        EXPECT_NO_THROW(ChangeSignal::post());
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
    }
    env.unset("XDG_RUNTIME_DIR");
    env.unset("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_NO_THROW(ChangeSignal::post());
    std::filesystem::remove_all(runtime);
}

TEST(ChangeSignalTest, ABusThatNeverAnswersDoesNotHoldThePostUp) {
    // A socket that accepts connections into its backlog and never speaks.
    const auto path = std::filesystem::temp_directory_path() / ("mirel-mute-bus-" + std::to_string(getpid()));
    std::filesystem::remove(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 8), 0);

    test::ScopedEnv env;
    env.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + path.string());
    const auto start = Clock::now();
    ChangeSignal::post();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));

    close(fd);
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace mirel
