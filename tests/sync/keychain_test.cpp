#include "core/sync/keychain.h"
#include "core/sync/keychain_stores.h"
#include "tests/support/dbus_session.h"
#include "tests/support/scoped_env.h"
#include "tests/sync/sync_test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace mirel {
namespace {

namespace fs = std::filesystem;

// A temporary folder standing for the user's home, config and data folders.
class TempHome {
public:
    TempHome() {
        std::string pattern = (fs::temp_directory_path() / "mirel-keychain-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
        env_.set("HOME", root_.string());
        env_.set("XDG_CONFIG_HOME", (root_ / "config").string());
        env_.set("XDG_DATA_HOME", (root_ / "data").string());
        env_.unset("XDG_RUNTIME_DIR");
        env_.unset("DBUS_SESSION_BUS_ADDRESS");
    }
    ~TempHome() { fs::remove_all(root_); }
    fs::path sessionFile() const { return root_ / "config" / "mirel" / "session"; }

private:
    fs::path root_;
    test::ScopedEnv env_;
};

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    stat(path.c_str(), &info);
    return info.st_mode & 07777;
}

TEST(Keychain, FileFormIsPrivateReplacedWholeAndForgiving) {
    TempHome home;
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    Keychain::remove("session");

    Keychain::write("first-token", "session");
    Keychain::write("second-token", "session");
    EXPECT_EQ(Keychain::read("session"), "second-token");
    EXPECT_EQ(modeOf(home.sessionFile()), 0600u);
    EXPECT_EQ(modeOf(home.sessionFile().parent_path()), 0700u);
    EXPECT_EQ(std::distance(fs::directory_iterator(home.sessionFile().parent_path()), fs::directory_iterator()), 1);

    std::ofstream(home.sessionFile(), std::ios::binary) << "\xff\xfe";
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    for (const char* escape : {"../escape", ".hidden", ""}) {
        Keychain::write("x", escape);
        EXPECT_EQ(Keychain::read(escape), std::nullopt) << escape;
    }
    Keychain::remove("session");
    EXPECT_FALSE(fs::exists(home.sessionFile()));
    EXPECT_EQ(std::distance(fs::directory_iterator(home.sessionFile().parent_path().parent_path()), fs::directory_iterator()), 1);
}

// gnome-keyring-daemon on a private bus, with a login keyring in the
// temporary data folder, made and unlocked by a password on its standard input.
class KeyringDaemon {
public:
    KeyringDaemon() {
        int input[2];
        // Close-on-exec, so that the daemon holds no write end and reads an end of input.
        if (pipe2(input, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            dup2(input[0], STDIN_FILENO);
            const int devNull = open("/dev/null", O_WRONLY);
            dup2(devNull, STDOUT_FILENO);
            dup2(devNull, STDERR_FILENO);
            execlp("gnome-keyring-daemon", "gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets",
                   nullptr);
            _exit(127);
        }
        close(input[0]);
        const std::string password = "mirel-test";
        [[maybe_unused]] const ssize_t written = write(input[1], password.data(), password.size());
        close(input[1]);
    }
    ~KeyringDaemon() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    bool answers() const {
        bool answered = false;
        test::waitUntil([&] { return pid_ > 0 && (answered = SecretServiceStore::answers()); }, std::chrono::seconds(5));
        return answered;
    }

private:
    pid_t pid_ = -1;
};

TEST(Keychain, SecretServiceKeepsOneItemPerAccountAndNoFile) {
    TempHome home;
    std::optional<test::DBusSession> bus;
    try {
        bus.emplace();
    } catch (const std::exception& error) {
        GTEST_SKIP() << "no private session bus: " << error.what();
    }
    KeyringDaemon keyring;
    if (!keyring.answers()) GTEST_SKIP() << "gnome-keyring-daemon did not offer a Secret Service on the private bus";

    EXPECT_EQ(Keychain::read("session"), std::nullopt);
    Keychain::remove("session");
    Keychain::write("first-token", "session");
    Keychain::write("second-token", "session");
    EXPECT_EQ(Keychain::read("session"), "second-token");
    EXPECT_FALSE(fs::exists(home.sessionFile()));
    Keychain::remove("session");
    EXPECT_EQ(Keychain::read("session"), std::nullopt);
}

}  // namespace
}  // namespace mirel
