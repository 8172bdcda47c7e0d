// The change signal on a private session bus: each write of the library tells
// other processes, reads stay quiet, and a missing or mute bus costs nothing.
#include "core/platform/change_signal.h"
#include "core/store/capture_store.h"
#include "tests/support/dbus_session.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>

namespace mirel::test {
namespace {

TEST(ChangeSignalTest, WritesTellOtherProcessesAndReadsDoNot) {
    DBusSession bus;
    TempLibrary library;
    CaptureStore store(library.databasePath());
    ChangeSignalListener listener;
    const Capture c = makeCapture();
    const std::pair<std::function<void()>, bool> rows[] = {  // an action, and whether it posts
        {[&] { store.insert(c); }, true}, {[&] { store.claim(c.id, "claude"); }, true},
        {[&] { store.addComment(makeComment(c.id, "hi")); }, true}, {[&] { store.setTags({"ui"}, c.id); }, true},
        {[&] { store.addImage(makeImage(c.id)); }, true}, {[&] { store.softDelete(c.id); }, true},
        {[&] { store.captures(CaptureQuery{}), store.comments(c.id), store.replaceTags({"x"}, c.id); }, false},
        {[&] { store.recordActivity(c.id, "x", "", "you", newID(), 1, std::nullopt, false); }, false},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        rows[i].first();
        const int posts = listener.settle(rows[i].second ? 1 : 0);
        EXPECT_TRUE(rows[i].second ? posts >= 1 : posts == 0) << "row " << i << ": " << posts;
    }
}

TEST(ChangeSignalTest, AMissingOrMuteBusDoesNotHoldAWriteUp) {
    const auto path = std::filesystem::temp_directory_path() / ("mirel-mute-bus-" + std::to_string(getpid()));
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // accepts into its backlog, never speaks
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(mute, reinterpret_cast<sockaddr*>(&address), sizeof address) | listen(mute, 8), 0);
    ScopedEnv env;
    env.set("XDG_RUNTIME_DIR", "/nonexistent");
    for (const char* bus : std::initializer_list<const char*>{"unix:path=/nonexistent/bus", "not an address", "", nullptr}) {
        bus ? env.set("DBUS_SESSION_BUS_ADDRESS", *bus ? bus : "unix:path=" + path.string()) : env.unset("DBUS_SESSION_BUS_ADDRESS");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NO_THROW(ChangeSignal::post());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << (bus ? bus : "unset");
    }
    close(mute);
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace mirel::test
