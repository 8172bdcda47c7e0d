// Start-up of the built mirel-mcp: the library made or served as it is, the
// orderly exit when it cannot be opened, and the default agent name.
#include "core/store/capture_store.h"
#include "tests/support/image_files.h"
#include "tests/support/mcp_process.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

std::int64_t userVersion(const fs::path& file) {
    return Database(file).query("PRAGMA user_version;").at(0).intValue("user_version").value_or(-1);
}

TEST(Startup, MakesAMissingLibraryAndServesALaterOneAsItIs) {
    TempLibrary library;
    const fs::path home = library.home() / "not" / "yet";
    {
        McpProcess server(home);
        EXPECT_EQ(server.callTool("capture_stats").value("isError", true), false);
        server.closeInput();
        EXPECT_EQ(server.waitForExit(), 0);
    }
    for (const char* entry : {"captures", "thumbs", "logs"}) EXPECT_TRUE(fs::is_directory(home / entry)) << entry;
    EXPECT_EQ(userVersion(home / "mirel.sqlite"), 5);

    Database(library.databasePath()).executeRaw("CREATE TABLE later (x); PRAGMA user_version = 6;");
    McpProcess server(library.home());
    EXPECT_EQ(server.request("ping").value("result", Json()), Json::object());
    server.closeInput();
    EXPECT_EQ(server.waitForExit(), 0);
    EXPECT_EQ(userVersion(library.databasePath()), 6);
}

// Exit status 1, the fatal line and the advice on standard error, nothing on
// standard output, and nothing changed on disk.
TEST(Startup, ALibraryThatCannotBeOpenedEndsWithStatusOne) {
    TempLibrary scratch;
    fs::create_directories(scratch.home() / "garbage");
    writeBytes(scratch.home() / "garbage/mirel.sqlite", std::string(3000, '\x11'));
    writeBytes(scratch.home() / "file", "a plain file");
    fs::create_directories(scratch.home() / "folder/mirel.sqlite");
    for (const fs::path& home : {scratch.home() / "garbage", scratch.home() / "file", scratch.home() / "folder"}) {
        McpProcess server(home);  // standard input stays open: the server must not wait for it
        EXPECT_EQ(server.waitForExit(), 1) << home;
        EXPECT_EQ(server.readToEnd(), "") << home;
        const std::string log = server.standardError();
        EXPECT_EQ(log.substr(0, 19), "[mirel-mcp] fatal: ") << log;
        EXPECT_EQ(log.substr(log.find('\n')), "\nMirel could not open its library at " + (home / "mirel.sqlite").string() +
                                                  ".\nLaunch the Mirel app once to create it, then reconnect this MCP server.\n");
    }
    EXPECT_EQ(readBytes(scratch.home() / "garbage/mirel.sqlite"), std::string(3000, '\x11'));
    EXPECT_EQ(readBytes(scratch.home() / "file"), "a plain file");
}

TEST(Startup, MirelAgentNamesTheDefaultAgentTrimmedOfBlanks) {
    TempLibrary library;
    const Capture capture = makeCapture("Button is clipped");
    CaptureStore(library.databasePath()).insert(capture);
    for (const auto& [value, name] : {std::pair{" \tclaude-code\t ", "claude-code"}, {" \t ", "agent"}, {"", "agent"}}) {
        McpProcess server(library.home(), {{"MIREL_AGENT", value}});
        EXPECT_EQ(McpProcess::text(server.callTool("comment_on_capture", {{"id", capture.id}, {"body", "x"}})),
                  "Comment added to [" + capture.id.substr(0, 8) + "] “Button is clipped” as " + name + ".");
    }
}

}  // namespace
}  // namespace mirel::test
