// `mirel watch` hears each change another process posts, on its own event
// loop, and lets the loop finish once it stops listening.
#include "core/platform/change_signal.h"
#include "host/change_listener.h"
#include "tests/support/dbus_session.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>

namespace mirel::test {
namespace {

TEST(ChangeListener, HearsEachPostedChangeUntilClosed) {
    DBusSession bus;
    asio::io_context loop;
    int heard = 0;
    const auto listener = host::ChangeListener::open(loop.get_executor(), [&] { ++heard; });
    ASSERT_TRUE(listener);
    for (int expected : {1, 2}) {
        ChangeSignal::post();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (heard < expected && std::chrono::steady_clock::now() < deadline) loop.run_one_for(std::chrono::milliseconds(100));
        EXPECT_EQ(heard, expected);
    }
    listener->close();
    loop.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(loop.stopped());  // nothing left waiting
    EXPECT_EQ(heard, 2);
}

}  // namespace
}  // namespace mirel::test
