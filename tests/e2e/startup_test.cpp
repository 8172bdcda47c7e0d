// Start-up of the built mirel-mcp: where the library lies, the default agent
// name, and the orderly exit when the library cannot be opened.
#include "core/store/capture_store.h"
#include "tests/support/mcp_process.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

std::string readBytes(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Bytes that look nothing like a database, larger than a page.
std::string garbage() {
    std::string bytes;
    for (int i = 0; i < 3000; ++i) bytes += static_cast<char>((i * 37 + 11) % 256);
    return "this is not a database\n" + bytes;
}

int userVersion(const fs::path& database) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(database.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> db(raw, sqlite3_close_v2);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db.get(), "PRAGMA user_version", -1, &statement, nullptr);
    int version = -1;
    if (sqlite3_step(statement) == SQLITE_ROW) version = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    return version;
}

TEST(Startup, CreatesAMissingLibraryAndServesAnEmptyBoard) {
    TempLibrary library;
    const fs::path home = library.home() / "not" / "yet";
    McpProcess server(home);
    EXPECT_EQ(server.request("ping")["result"], Json::object());
    const Json stats = server.callTool("capture_stats");
    EXPECT_EQ(stats["isError"], false) << stats.dump();
    server.closeInput();
    EXPECT_EQ(server.waitForExit(), 0);
    EXPECT_EQ(server.standardError(), "[mirel-mcp] ready — library at " + (home / "mirel.sqlite").string() +
                                          "\n[mirel-mcp] stdin closed — exiting\n");
    for (const char* entry : {"mirel.sqlite", "captures", "thumbs", "logs"}) EXPECT_TRUE(fs::exists(home / entry)) << entry;
    EXPECT_EQ(userVersion(home / "mirel.sqlite"), 5);
}

TEST(Startup, ALibraryOfALaterVersionIsServedAndLeftAtItsVersion) {
    TempLibrary library;
    {
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open(library.databasePath().c_str(), &raw), SQLITE_OK);
        std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> db(raw, sqlite3_close_v2);
        ASSERT_EQ(sqlite3_exec(db.get(), "CREATE TABLE future(x); PRAGMA user_version = 6;", nullptr, nullptr, nullptr),
                  SQLITE_OK);
    }
    McpProcess server(library.home());
    EXPECT_EQ(server.request("ping")["result"], Json::object());
    server.closeInput();
    EXPECT_EQ(server.waitForExit(), 0);
    EXPECT_EQ(userVersion(library.databasePath()), 6);
}

// Every library the server cannot open ends the same way: exit status 1, the
// fatal log line and the two-line advice on standard error, nothing on
// standard output, and nothing changed on disk.
TEST(Startup, ALibraryThatCannotBeOpenedEndsWithStatusOne) {
    struct Case {
        const char* name;
        std::function<fs::path(const fs::path& scratch)> prepare;  // gives MIREL_HOME
        std::function<fs::path(const fs::path& home)> untouched;   // a file whose bytes must not change
    };
    const Case cases[] = {
        {"garbage where the database should be",
         [](const fs::path& scratch) {
             writeBytes(scratch / "mirel.sqlite", garbage());
             return scratch;
         },
         [](const fs::path& home) { return home / "mirel.sqlite"; }},
        {"MIREL_HOME is a regular file",
         [](const fs::path& scratch) {
             writeBytes(scratch / "home", "a plain file");
             return scratch / "home";
         },
         [](const fs::path& home) { return home; }},
        {"the database is a folder",
         [](const fs::path& scratch) {
             fs::create_directories(scratch / "mirel.sqlite");
             return scratch;
         },
         nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempLibrary scratch;
        const fs::path home = c.prepare(scratch.home());
        const std::string before = c.untouched ? readBytes(c.untouched(home)) : "";

        McpProcess server(home);
        // Standard input stays open: the server must not wait for it.
        EXPECT_EQ(server.waitForExit(), 1);
        EXPECT_TRUE(server.stdoutLinesAfterExit().empty());
        const std::string log = server.standardError();
        const std::string advice = "Mirel could not open its library at " + (home / "mirel.sqlite").string() +
                                   ".\nLaunch the Mirel app once to create it, then reconnect this MCP server.\n";
        ASSERT_GT(log.size(), advice.size()) << log;
        EXPECT_EQ(log.substr(log.size() - advice.size()), advice) << log;
        const std::string fatal = log.substr(0, log.size() - advice.size());
        EXPECT_EQ(fatal.rfind("[mirel-mcp] fatal: ", 0), 0u) << log;
        EXPECT_EQ(fatal.find('\n'), fatal.size() - 1) << "the fatal line is one line: " << log;
        if (c.untouched) {
            EXPECT_EQ(readBytes(c.untouched(home)), before);
        }
    }
}

TEST(Startup, AFolderWithoutWritePermissionEndsWithStatusOneOrIsServed) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
    TempLibrary scratch;
    const fs::path home = scratch.home() / "locked";
    fs::create_directories(home);
    fs::permissions(home, fs::perms::owner_read | fs::perms::owner_exec);
    McpProcess server(home);
    server.closeInput();
    const int status = server.waitForExit();
    EXPECT_TRUE(status == 0 || status == 1) << status;
    fs::permissions(home, fs::perms::owner_all);
}

// The default agent name shows in what a tool says it did.
TEST(Startup, MirelAgentIsTrimmedOfBlanks) {
    const std::pair<const char*, const char*> cases[] = {
        {" \tclaude-code\t ", "claude-code"}, {" \t ", "agent"}, {"", "agent"}};
    for (const auto& [value, expected] : cases) {
        SCOPED_TRACE(value);
        TempLibrary library;
        const Capture capture = makeCapture("Button is clipped");
        {
            CaptureStore store(library.databasePath());
            seedCaptureRow(CaptureStoreTestAccess::database(store), capture);
        }
        McpProcess server(library.home(), {{"MIREL_AGENT", value}});
        const Json result = server.callTool("claim_capture", Json{{"id", capture.id.substr(0, 8)}});
        EXPECT_EQ(result["isError"], false) << result.dump();
        EXPECT_NE(McpProcess::text(result).find(std::string(" as ") + expected + "."), std::string::npos)
            << McpProcess::text(result);
    }
}

}  // namespace
}  // namespace mirel::test
