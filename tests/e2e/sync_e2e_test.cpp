// Two libraries, "laptop" and "desktop", syncing through one real
// mirel-server on 127.0.0.1: sign-in through the device flow, a capture with
// screenshots and marks travelling over, an agent's work travelling back,
// both sides editing the same capture, and `mirel watch` following the event
// stream. Every program is the built binary, run as a child process.
#include "tests/support/dbus_session.h"
#include "tests/support/image_files.h"
#include "tests/e2e/run_mirel.h"
#include "tests/support/server_process.h"
#include "tests/support/temp_library.h"

#include <httplib.h>

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kEmail = "ada@example.com";

class SyncEndToEnd : public ::testing::Test {
protected:
    SyncEndToEnd() {
        server.addUser(kEmail, "Ada");
        server.addWorkspace("team", "Team", {kEmail});
    }
    void approve(const std::string& signinOutput) {
        const auto at = signinOutput.find("Code: ") + 6;
        const auto done = server.admin({"approve", signinOutput.substr(at, signinOutput.find('\n', at) - at), "--user", kEmail});
        EXPECT_EQ(done.status, 0) << done.text;
    }
    std::map<std::string, std::string> env(const std::string& device) {
        return {{"XDG_CONFIG_HOME", (scratch / (device + "-config")).string()}, {"MIREL_API_URL", server.url()}};
    }
    std::unique_ptr<McpProcess> start(const std::string& device, const std::vector<std::string>& arguments) {
        return startMirel(scratch / device, arguments, env(device));
    }
    Ran mirel(const std::string& device, const std::vector<std::string>& arguments) {
        return runMirel(scratch / device, arguments, "", env(device));
    }
    McpProcess& agent(const std::string& device) {
        auto& process = agents[device];
        if (!process) {
            auto variables = env(device);
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
    TempLibrary scratchFolder;
    const fs::path scratch = scratchFolder.home();
    ServerProcess server;
    std::map<std::string, std::unique_ptr<McpProcess>> agents;
};

TEST_F(SyncEndToEnd, TwoLibrariesConvergeThroughMirelServer) {
    // Sign-in: both wait for the browser at once; the admin approves each code.
    {
        auto laptop = start("laptop", {"signin"});
        auto desktop = start("desktop", {"signin"});
        std::map<McpProcess*, std::string> shown;
        for (McpProcess* child : {laptop.get(), desktop.get()}) {
            shown[child] = child->readUntil("Waiting for the browser");
            ASSERT_NE(shown[child], "") << child->standardError();
            EXPECT_NE(shown[child].find(server.url() + "/device?user_code="), std::string::npos) << shown[child];
            approve(shown[child]);
        }
        for (McpProcess* child : {laptop.get(), desktop.get()}) {
            const std::string out = shown[child] + child->readToEnd();
            EXPECT_EQ(child->waitForExit(), 0) << child->standardError();
            EXPECT_NE(out.find("Signed in as Ada (ada@example.com)."), std::string::npos) << out;
            EXPECT_NE(out.find("* Team (team, member)"), std::string::npos) << out;
            EXPECT_NE(out.find("\nFirst sync: Up to date (last sync "), std::string::npos) << out;
        }
    }

    const Ran unknown = mirel("laptop", {"workspace", "nope"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_TRUE(unknown.err.starts_with("mirel workspace: no workspace \"nope\"; these are yours:\n")) << unknown.err;

    // A capture with two screenshots and marks goes from the laptop to the desktop.
    writeImageFile(scratch / "one.png", 120, 80, ImageFileFormat::png);
    writeImageFile(scratch / "two.jpg", 64, 64, ImageFileFormat::jpeg);
    writeBytes(scratch / "marks.json",
               R"({"shapes":[{"id":"a1","tool":"rectangle","colorHex":"#0A84FF","lineWidth":0.02,)"
               R"("points":[{"x":0.1,"y":0.1},{"x":0.9,"y":0.9}]}]})");
    const Ran added = mirel("laptop", {"add", (scratch / "one.png").string(), (scratch / "two.jpg").string(),
                                       "--annotate", (scratch / "marks.json").string(), "--note",
                                       "Save button clipped\nOn the settings page", "--priority", "high", "--group", "Layout"});
    ASSERT_EQ(added.status, 0) << added.err;
    const std::string id = added.out.substr(0, 36);
    EXPECT_NE(mirel("laptop", {"status"}).out.find("\nWaiting to be sent: 1 capture, 2 images, 1 group\n"), std::string::npos);
    sync("laptop");
    sync("desktop");
    EXPECT_EQ(view("desktop", id), view("laptop", id));  // the text, and the screenshots byte for byte

    // An agent on the desktop takes it, comments and resolves; the laptop sees all of it.
    agent("desktop").callTool("claim_capture", {{"id", id}});
    agent("desktop").callTool("comment_on_capture", {{"id", id}, {"body", "The label needs wrapping"}});
    agent("desktop").callTool("resolve_capture", {{"id", id}, {"reference", "abc123"}});
    EXPECT_NE(mirel("desktop", {"status"}).out.find("\nWaiting to be sent: 1 capture, 1 comment\n"), std::string::npos);
    sync("desktop");
    sync("laptop");
    EXPECT_EQ(detail("laptop", id), detail("desktop", id));  // the comment, the resolution and who did them

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
    const std::string firstLines = watch->readUntil("Up to date");
    ASSERT_NE(firstLines, "") << watch->standardError();
    ASSERT_EQ(mirel("desktop", {"add", "--note", "Filed on the desktop"}).status, 0);
    sync("desktop");
    bool arrived = false;
    for (int i = 0; i < 50 && !arrived; ++i) {
        std::this_thread::sleep_for(100ms);
        arrived = mirel("laptop", {"list"}).out.find("Filed on the desktop") != std::string::npos;
    }
    watch->terminate(SIGINT);
    const std::string watched = firstLines + watch->readToEnd();
    EXPECT_TRUE(arrived) << watched << watch->standardError();
    EXPECT_EQ(watch->waitForExit(), 0) << watch->standardError();
    EXPECT_NE(watched.find("Syncing…"), std::string::npos);
}

TEST_F(SyncEndToEnd, CommandsExplainWhatIsWrongWithTheirExitStatus) {
    const Ran notSignedIn = mirel("laptop", {"sync"});
    EXPECT_EQ(std::pair(notSignedIn.status, notSignedIn.err), std::pair(1, std::string("mirel sync: not signed in; run 'mirel signin' first\n")));
    const Ran status = mirel("laptop", {"status"});  // quietly, whatever systemctl has to say
    EXPECT_EQ(std::pair(status.status, status.err), std::pair(0, std::string()));
    EXPECT_TRUE(status.out.starts_with("Not signed in (server " + server.url() + ")\nDefault workspace: none\n")) << status.out;

    auto variables = env("laptop");
    variables["MIREL_API_URL"] = "ftp://example.com";
    const Ran badURL = runMirel(scratch / "laptop", {"status"}, "", variables);
    EXPECT_EQ(std::pair(badURL.status, badURL.err),
              std::pair(2, std::string("mirel status: MIREL_API_URL must be an http:// or https:// URL, not \"ftp://example.com\"\n")));

    auto signin = start("laptop", {"signin"});
    const std::string out = signin->readUntil("Waiting for the browser");
    ASSERT_NE(out, "");
    const auto at = out.find("Code: ") + 6;
    httplib::Client browser(server.url());
    browser.Post("/device", "decision=deny&user_code=" + out.substr(at, out.find('\n', at) - at),
                 "application/x-www-form-urlencoded");
    EXPECT_EQ(signin->waitForExit(), 1);
    EXPECT_TRUE(signin->standardError().starts_with("mirel signin: ")) << signin->standardError();
}

}  // namespace
}  // namespace mirel::test
