#include "core/sync/keychain.h"
#include "core/sync/keychain_stores.h"
#include "tests/support/dbus_session.h"
#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

// Each blocking libsecret call leaves a few bytes behind inside libgio (from
// its D-Bus dispatch, after every handle of ours is released). The leak checker
// leaves GLib's own allocations alone in this test program; its fast unwinder
// stops at g_malloc0, hence both names.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libgio-2.0.so\nleak:g_malloc0\n";
}

namespace mirel {
namespace {

namespace fs = std::filesystem;

// A temporary home, config and data folder, and no session bus.
class TempHome {
public:
    TempHome() {
        std::string pattern = (fs::temp_directory_path() / "mirel-keychain-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        env_.set("HOME", root_);
        env_.set("XDG_CONFIG_HOME", root_ / "config");
        env_.set("XDG_DATA_HOME", root_ / "data");
        env_.unset("XDG_RUNTIME_DIR");
        env_.unset("DBUS_SESSION_BUS_ADDRESS");
    }
    ~TempHome() { fs::remove_all(root_); }
    fs::path root() const { return root_; }
    fs::path sessionFile() const { return root_ / "config" / "mirel" / "session"; }

private:
    fs::path root_;
    test::ScopedEnv env_;
};

// The round every store must pass: nothing at first, the last write wins, remove forgets.
void expectOneItemPerAccount() {
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    Keychain::remove("session");
    Keychain::write("first-token", "session");
    Keychain::write("second-token", "session");
    EXPECT_EQ(Keychain::read("session"), "second-token");
}

TEST(Keychain, FileFormIsPrivateReplacedWholeAndForgiving) {
    TempHome home;
    expectOneItemPerAccount();
    struct stat file {
    }, folder{};
    stat(home.sessionFile().c_str(), &file);
    stat(home.sessionFile().parent_path().c_str(), &folder);
    EXPECT_EQ((file.st_mode & 0777) * 01000 + (folder.st_mode & 0777), 0600700u);
    EXPECT_EQ(std::distance(fs::directory_iterator(home.sessionFile().parent_path()), fs::directory_iterator()), 1);

    std::ofstream(home.sessionFile(), std::ios::binary) << "\xff\xfe";
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    // Account names become file names in the folder: only plain ones are taken.
    Keychain::write("edge", "azAZ09-_.");
    EXPECT_EQ(Keychain::read("azAZ09-_."), "edge");
    for (const char* refused : {".hidden", "../escape", "a`", "a{", "a@", "a[", "a:", "a,", "a^", ""}) {
        Keychain::write("x", refused);
        EXPECT_EQ(Keychain::read(refused), std::nullopt) << refused;
    }
    Keychain::remove("session");
    EXPECT_FALSE(fs::exists(home.sessionFile()));
}

TEST(Keychain, SecretServiceKeepsOneItemPerAccountAndNoFile) {
    TempHome home;
    std::optional<test::DBusSession> bus;
    try {
        bus.emplace();
    } catch (const std::exception& error) {
        GTEST_SKIP() << "no private session bus: " << error.what();
    }
    // A login keyring in the temporary data folder, made and unlocked with the password on standard input.
    struct Daemon : test::McpProcess {
        using McpProcess::McpProcess;
        ~Daemon() { terminate(); }
    } keyring(home.root(), {}, {"/usr/bin/gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"});
    keyring.sendRaw("mirel-test");
    keyring.closeInput();
    bool answers = false;
    for (int tries = 0; tries < 100 && !(answers = SecretServiceStore::answers()); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!answers) GTEST_SKIP() << "gnome-keyring-daemon offered no Secret Service on the private bus";
    expectOneItemPerAccount();
    EXPECT_FALSE(fs::exists(home.sessionFile()));
    Keychain::remove("session");
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
}

}  // namespace
}  // namespace mirel
