// Two libraries, "laptop" and "desktop", syncing through one real
// mirel-server on 127.0.0.1: sign-in through the device flow, a capture with
// screenshots and marks travelling over, an agent's work travelling back,
// both sides editing the same capture, and `mirel watch` following the event
// stream. Every program is the built binary, run as a child process.
#include "tests/support/dbus_session.h"
#include "tests/support/image_files.h"
#include "tests/support/mcp_process.h"
#include "tests/support/server_process.h"

#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kEmail = "ada@example.com";

// A child process with its standard output and error in files.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env, const fs::path& logs,
          const std::string& input = "")
        : out_(logs.string() + ".out"), err_(logs.string() + ".err") {
        const fs::path in = logs.string() + ".in";
        writeBytes(in, input);
        std::vector<std::string> entries;
        for (char** e = environ; *e; ++e) {
            const std::string entry = *e;
            if (!env.count(entry.substr(0, entry.find('=')))) entries.push_back(entry);
        }
        for (const auto& [key, value] : env) entries.push_back(key + "=" + value);
        std::vector<char*> args, envp;
        std::vector<std::string> argvCopy = argv;
        for (auto& a : argvCopy) args.push_back(a.data());
        args.push_back(nullptr);
        for (auto& e : entries) envp.push_back(e.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Child() {
        if (pid_ > 0 && !status_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    void signal(int number) { kill(pid_, number); }
    int wait(std::chrono::milliseconds limit = 20s) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!status_) {
            int raw = 0;
            if (waitpid(pid_, &raw, WNOHANG) == pid_) {
                status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            } else if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "a child did not exit in time: " << out() << err();
                kill(pid_, SIGKILL);
            } else {
                std::this_thread::sleep_for(10ms);
            }
        }
        return *status_;
    }
    std::string out() const { return readBytes(out_); }
    std::string err() const { return readBytes(err_); }
    // Waits until standard output holds `text`; false after `limit`.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds limit = 10s) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (out().find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }

private:
    fs::path out_, err_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

struct Ran {
    int status;
    std::string out, err;
};

class SyncEndToEnd : public ::testing::Test {
protected:
    SyncEndToEnd() {
        std::string pattern = (fs::temp_directory_path() / "mirel-sync-e2e-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        scratch = pattern;
        server.addUser(kEmail, "Ada");
        server.addWorkspace("team", "Team", {kEmail});
        url = server.url();
    }
    ~SyncEndToEnd() override {
        std::error_code ignored;
        fs::remove_all(scratch, ignored);
    }

    void approve(const std::string& signinOutput) {
        const auto at = signinOutput.find("Code: ") + 6;
        const auto done = server.admin({"approve", signinOutput.substr(at, signinOutput.find('\n', at) - at), "--user", kEmail});
        EXPECT_EQ(done.status, 0) << done.text;
    }
    std::map<std::string, std::string> env(const std::string& device) {
        return {{"MIREL_HOME", (scratch / device).string()},
                {"XDG_CONFIG_HOME", (scratch / (device + "-config")).string()},
                {"MIREL_API_URL", url},
                {"MIREL_AGENT", ""}};
    }
    std::unique_ptr<Child> start(const std::string& device, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), MIREL_HOST_BINARY);
        return std::make_unique<Child>(arguments, env(device), scratch / (device + "-" + std::to_string(++runs)));
    }
    Ran mirel(const std::string& device, const std::vector<std::string>& arguments) {
        auto child = start(device, arguments);
        const int status = child->wait();
        return {status, child->out(), child->err()};
    }
    McpProcess& agent(const std::string& device) {
        auto& process = agents[device];
        if (!process) {
            auto variables = env(device);
            variables.erase("MIREL_HOME");
            variables["MIREL_AGENT"] = "Claude on the " + device;
            process = std::make_unique<McpProcess>(scratch / device, variables);
        }
        return *process;
    }
    // get_capture's reply, with the library's own folder written "{library}".
    Json view(const std::string& device, const std::string& id) {
        Json content = agent(device).callTool("get_capture", {{"id", id}})["content"];
        const std::string home = (scratch / device).string();
        for (Json& block : content) {
            if (block.value("type", "") != "text") continue;
            std::string text = block["text"];
            for (auto at = text.find(home); at != std::string::npos; at = text.find(home, at)) text.replace(at, home.size(), "{library}");
            block["text"] = text;
        }
        return content;
    }
    std::string detail(const std::string& device, const std::string& id) {
        return McpProcess::text({{"content", view(device, id)}});
    }
    void sync(const std::string& device) {
        const Ran ran = mirel(device, {"sync"});
        EXPECT_EQ(ran.status, 0) << device << ": " << ran.out << ran.err;
    }

    DBusSession bus;  // change signals of each test stay on a bus of its own
    fs::path scratch;
    ServerProcess server;
    std::string url;
    int runs = 0;
    std::map<std::string, std::unique_ptr<McpProcess>> agents;
};

TEST_F(SyncEndToEnd, TwoLibrariesConvergeThroughMirelServer) {
    // Sign-in: both wait for the browser at once; the admin approves each code.
    {
        auto laptop = start("laptop", {"signin"});
        auto desktop = start("desktop", {"signin"});
        for (Child* child : {laptop.get(), desktop.get()}) {
            ASSERT_TRUE(child->waitForOutput("Waiting for the browser")) << child->err();
            EXPECT_NE(child->out().find(url + "/device?user_code="), std::string::npos) << child->out();
            approve(child->out());
        }
        for (Child* child : {laptop.get(), desktop.get()}) {
            EXPECT_EQ(child->wait(), 0) << child->err();
            EXPECT_NE(child->out().find("Signed in as Ada (ada@example.com)."), std::string::npos) << child->out();
            EXPECT_NE(child->out().find("* Team (team, member)"), std::string::npos) << child->out();
        }
    }

    // A capture with two screenshots and marks goes from the laptop to the desktop.
    writeImageFile(scratch / "one.png", 120, 80, ImageFileFormat::png);
    writeImageFile(scratch / "two.jpg", 64, 64, ImageFileFormat::jpeg);
    writeBytes(scratch / "marks.json",
               R"({"shapes":[{"id":"a1","tool":"rectangle","colorHex":"#0A84FF","lineWidth":0.02,)"
               R"("points":[{"x":0.1,"y":0.1},{"x":0.9,"y":0.9}]}]})");
    const Ran added = mirel("laptop", {"add", (scratch / "one.png").string(), (scratch / "two.jpg").string(),
                                       "--annotate", (scratch / "marks.json").string(), "--note",
                                       "Save button clipped\nOn the settings page", "--priority", "high"});
    ASSERT_EQ(added.status, 0) << added.err;
    const std::string id = added.out.substr(0, 36);
    sync("laptop");
    sync("desktop");
    EXPECT_EQ(detail("desktop", id), detail("laptop", id));
    EXPECT_EQ(view("desktop", id), view("laptop", id));  // the screenshots too, byte for byte
    EXPECT_NE(detail("desktop", id).find("Save button clipped"), std::string::npos);

    // An agent on the desktop takes it, comments and resolves; the laptop sees all of it.
    agent("desktop").callTool("claim_capture", {{"id", id}});
    agent("desktop").callTool("comment_on_capture", {{"id", id}, {"body", "The label needs wrapping"}});
    agent("desktop").callTool("resolve_capture", {{"id", id}, {"reference", "abc123"}});
    sync("desktop");
    sync("laptop");
    EXPECT_EQ(detail("laptop", id), detail("desktop", id));
    for (const char* part : {"The label needs wrapping", "abc123", "Claude on the desktop"}) {
        EXPECT_NE(detail("laptop", id).find(part), std::string::npos) << part << " in\n" << detail("laptop", id);
    }

    // Both edit the note and the priority before syncing: the first to arrive
    // stands field by field, and the other's words are kept in a comment.
    agent("laptop").callTool("update_capture", {{"id", id}, {"note", "Laptop words"}, {"priority", "low"}});
    agent("desktop").callTool("update_capture", {{"id", id}, {"note", "Desktop words"}, {"priority", "normal"}});
    sync("laptop");
    sync("desktop");
    sync("laptop");
    const std::string settled = detail("laptop", id);
    EXPECT_EQ(detail("desktop", id), settled);
    EXPECT_NE(settled.find("Laptop words"), std::string::npos) << settled;
    EXPECT_NE(settled.find("Desktop words"), std::string::npos) << settled;

    // `mirel watch` on the laptop follows the event stream: a change filed on
    // the desktop arrives without `mirel sync` on the laptop.
    auto watch = start("laptop", {"watch", "--intervals", "60000,100,200"});
    ASSERT_TRUE(watch->waitForOutput("Up to date", 5s)) << watch->err();
    ASSERT_EQ(mirel("desktop", {"add", "--note", "Filed on the desktop"}).status, 0);
    sync("desktop");
    bool arrived = false;
    for (int i = 0; i < 50 && !arrived; ++i) {
        std::this_thread::sleep_for(100ms);
        arrived = mirel("laptop", {"list"}).out.find("Filed on the desktop") != std::string::npos;
    }
    EXPECT_TRUE(arrived) << watch->out() << watch->err();
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait(5s), 0) << watch->err();
    EXPECT_NE(watch->out().find("Syncing…"), std::string::npos);
}

TEST_F(SyncEndToEnd, CommandsExplainWhatIsWrongWithTheirExitStatus) {
    const Ran notSignedIn = mirel("laptop", {"sync"});
    EXPECT_EQ(notSignedIn.status, 1);
    EXPECT_EQ(notSignedIn.err, "mirel sync: not signed in; run 'mirel signin' first\n");

    auto bad = env("laptop");
    bad["MIREL_API_URL"] = "ftp://example.com";
    Child child({MIREL_HOST_BINARY, "status"}, bad, scratch / "bad-url");
    EXPECT_EQ(child.wait(), 2);
    EXPECT_EQ(child.err(), "mirel status: MIREL_API_URL must be an http:// or https:// URL, not \"ftp://example.com\"\n");

    auto signin = start("laptop", {"signin"});
    ASSERT_TRUE(signin->waitForOutput("Waiting for the browser"));
    const std::string out = signin->out();
    const auto at = out.find("Code: ") + 6;
    httplib::Client browser(url);
    browser.Post("/device", "decision=deny&user_code=" + out.substr(at, out.find('\n', at) - at),
                 "application/x-www-form-urlencoded");
    EXPECT_EQ(signin->wait(), 1);
    EXPECT_TRUE(signin->err().starts_with("mirel signin: ")) << signin->err();
}

}  // namespace
}  // namespace mirel::test
