#include "core/sync/keychain.h"
#include "core/sync/keychain_stores.h"
#include "tests/support/dbus_session.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <thread>

// Blocking libsecret calls leave a few bytes inside libgio after every handle of
// ours is gone; the leak checker's fast unwinder stops at g_malloc0.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libgio-2.0.so\nleak:g_malloc0\n";
}

namespace mirel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A temporary home, config and data folder, and no session bus.
struct TempHome {
    TempHome() {
        env.set("HOME", root);
        env.set("XDG_CONFIG_HOME", root / "config");
        env.set("XDG_DATA_HOME", root / "data");
        env.unset("XDG_RUNTIME_DIR");
        env.unset("DBUS_SESSION_BUS_ADDRESS");
    }
    test::TempLibrary folder;
    test::ScopedEnv env;
    const fs::path root = folder.home(), sessionFile = root / "config" / "mirel" / "session";
};

// The round every store must pass: nothing at first, the last write wins.
void expectOneItemPerAccount() {
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    Keychain::remove("session");
    Keychain::write("first-token", "session");
    Keychain::write("second-token", "session");
    EXPECT_EQ(Keychain::read("session"), "second-token");
}

TEST(Keychain, FileFormIsPrivateReplacedWholeAndForgiving) {
    TempHome home;
    fs::create_directories(home.sessionFile.parent_path());  // made by someone else, open to all: tightened
    fs::permissions(home.sessionFile.parent_path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
    expectOneItemPerAccount();
    struct stat file {}, folder{};
    stat(home.sessionFile.c_str(), &file);
    stat(home.sessionFile.parent_path().c_str(), &folder);
    EXPECT_EQ((file.st_mode & 0777) * 01000 + (folder.st_mode & 0777), 0600700u);
    EXPECT_EQ(std::distance(fs::directory_iterator(home.sessionFile.parent_path()), fs::directory_iterator()), 1);

    std::ofstream(home.sessionFile, std::ios::binary) << "\xff\xfe";
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    // Account names become file names in the folder: only plain ones are taken.
    Keychain::write("edge", "azAZ09-_.");
    EXPECT_EQ(Keychain::read("azAZ09-_."), "edge");
    for (const char* refused : {".hidden", "../escape", "a`", "a{", "a@", "a[", "a:", "a,", "a^", ""}) {
        Keychain::write("x", refused);
        EXPECT_EQ(Keychain::read(refused), std::nullopt) << refused;
    }
    Keychain::remove("session");
    EXPECT_FALSE(fs::exists(home.sessionFile));
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
    } keyring(home.root, {}, {"/usr/bin/gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"});
    keyring.sendRaw("mirel-test");
    keyring.closeInput();
    for (int tries = 0; tries < 100 && !SecretServiceStore::answers(); ++tries) std::this_thread::sleep_for(50ms);
    if (!SecretServiceStore::answers()) GTEST_SKIP() << "gnome-keyring-daemon offered no Secret Service";
    expectOneItemPerAccount();
    EXPECT_FALSE(fs::exists(home.sessionFile));
    Keychain::remove("session");
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
}

}  // namespace
}  // namespace mirel
