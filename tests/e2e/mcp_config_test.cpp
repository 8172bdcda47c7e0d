// `mirel mcp-config`: each client's entry, and --install on a configuration
// file that already holds other things, driven as a child process with HOME
// and XDG_CONFIG_HOME in a scratch folder.
#include "tests/e2e/run_mirel.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using OrderedJson = nlohmann::ordered_json;

class McpConfigTest : public ::testing::Test {
protected:
    // `mirel mcp-config ARGUMENTS` with a library and an agent name set, so
    // the entry has to carry both.
    Ran run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "mcp-config");
        return runMirel(home_ / "Ann's library", arguments, "",
                        {{"HOME", home_.string()}, {"XDG_CONFIG_HOME", (home_ / "xdg").string()}, {"MIREL_AGENT", "claude"}});
    }

    // Stands for HOME here; the library is a folder inside it, named so that a
    // shell needs it quoted.
    TempLibrary scratch_;
    const fs::path home_ = scratch_.home();
    const std::string server = (fs::path(MIREL_HOST_BINARY).parent_path() / "mirel-mcp").string();
};

struct ClientCase {
    std::string client;
    std::string file;        // under the scratch HOME
    std::string serversKey;  // where servers are kept by name
    bool typed;              // entries say "type": "stdio"
};

const ClientCase clientCases[] = {
    {"claude-desktop", "xdg/Claude/claude_desktop_config.json", "mcpServers", false},
    {"claude-code", ".claude.json", "mcpServers", true},
    {"vscode", "xdg/Code/User/mcp.json", "servers", true},
    {"cursor", ".cursor/mcp.json", "mcpServers", false},
};

TEST_F(McpConfigTest, InstallKeepsEverythingElseAndLeavesABackup) {
    for (const ClientCase& c : clientCases) {
        SCOPED_TRACE(c.client);
        const fs::path file = home_ / c.file;
        fs::create_directories(file.parent_path());
        // Other servers, other settings before and after, and tabs for indentation (after a blank line).
        const std::string original = "{\n\n\t\"theme\": \"dark\",\n\t\"" + c.serversKey +
                                     "\": {\n\t\t\"other\": {\"command\": \"/bin/other\", \"args\": [\"-v\"]}\n\t},\n"
                                     "\t\"zoom\": 1.5,\n\t\"projects\": {\"/src\": {\"allowedTools\": []}}\n}\n";
        writeBytes(file, original);
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);

        Ran result = run({"--client", c.client, "--install"});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out.rfind("Registered mirel-mcp for ", 0), 0u) << result.out;
        EXPECT_EQ(readBytes(file.string() + ".bak"), original);
        EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);

        const std::string written = readBytes(file);
        EXPECT_EQ(written.substr(0, 3), "{\n\t");
        OrderedJson expected = OrderedJson::parse(original);
        OrderedJson& entry = expected[c.serversKey]["mirel"] = c.typed ? OrderedJson{{"type", "stdio"}} : OrderedJson::object();
        entry.update({{"command", server}, {"args", OrderedJson::array()},
                      {"env", {{"MIREL_HOME", (home_ / "Ann's library").string()}, {"MIREL_AGENT", "claude"}}}});
        EXPECT_EQ(OrderedJson::parse(written).dump(), expected.dump());  // same keys, same order

        // Again: nothing to do, nothing written.
        result = run({"--client", c.client, "--install"});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out.find("already registered"), std::string::npos) << result.out;
        EXPECT_EQ(readBytes(file), written);
        EXPECT_EQ(readBytes(file.string() + ".bak"), original);
    }
}

TEST_F(McpConfigTest, InstallRefusesAFileItCannotParseAndMakesAMissingOne) {
    const std::string broken[] = {
        "{\"mcpServers\": {\"other\": {\"command\": \"x\"}},\n",  // cut short
        "{\n  // my servers\n  \"mcpServers\": {}\n}\n",           // comments would be lost
        "{\"servers\": []}\n",                                     // the servers' key is no object
        "[\"not\", \"an\", \"object\"]\n",
    };
    for (std::size_t i = 0; i < std::size(clientCases); ++i) {
        SCOPED_TRACE(clientCases[i].client);
        const fs::path file = home_ / clientCases[i].file;
        fs::create_directories(file.parent_path());
        writeBytes(file, broken[i]);
        const Ran result = run({"--client", clientCases[i].client, "--install"});
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find(file.string()), std::string::npos) << result.err;
        EXPECT_EQ(readBytes(file), broken[i]);
        EXPECT_FALSE(fs::exists(file.string() + ".bak"));
        fs::remove(file);
    }
    for (const auto& entry : fs::recursive_directory_iterator(home_))  // no temporary file stays
        EXPECT_FALSE(entry.is_regular_file()) << entry.path();

    const Ran created = run({"--client", "cursor", "--install"});
    const fs::path file = home_ / ".cursor" / "mcp.json";
    EXPECT_EQ(created.out, "Created " + file.string() + " with mirel-mcp registered for Cursor.\nRestart Cursor to load it.\n");
    EXPECT_EQ(OrderedJson::parse(readBytes(file))["mcpServers"]["mirel"]["command"], server);
}

TEST_F(McpConfigTest, PrintsClaudeCodesCommandAndRefusesInstallForOthers) {
    Ran result = run({"--client", "claude-code"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "claude mcp add -e 'MIREL_HOME=" + home_.string() +
                              "/Ann'\\''s library' -e MIREL_AGENT=claude --scope user mirel -- " + server + "\n");
    result = run({"--client", "generic", "--install"});
    EXPECT_EQ(std::pair(result.status, result.out), std::pair(2, std::string()));
}

}  // namespace
}  // namespace mirel::test
