// The protocol as a client sees it: exact lines in, exact lines out, from the
// built mirel-mcp running on a fresh library.
#include "tests/support/mcp_process.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace mirel::test {
namespace {

class ProtocolTest : public ::testing::Test {
protected:
    void SetUp() override { server = std::make_unique<McpProcess>(library.home()); }

    // Proves that nothing was answered before it: the next line must be the
    // reply to a fresh ping.
    void expectPingAnsweredNext() {
        const std::string id = "after-" + std::to_string(++pings);
        server->sendLine(R"({"method":"ping","id":")" + id + R"("})");
        EXPECT_EQ(server->readLine().value_or("<no reply>"), R"({"id":")" + id + R"(","jsonrpc":"2.0","result":{}})");
    }

    std::string expectedLog() const {
        return "[mirel-mcp] ready — library at " + library.databasePath().string() +
               "\n[mirel-mcp] stdin closed — exiting\n";
    }

    TempLibrary library;
    std::unique_ptr<McpProcess> server;
    int pings = 0;
};

const std::string kParseError = R"({"error":{"code":-32700,"message":"Malformed JSON-RPC message."},"id":null,"jsonrpc":"2.0"})";

struct Exchange {
    std::string line;
    std::string reply;  // empty: no reply at all
};

TEST_F(ProtocolTest, AnswersEachLineExactly) {
    const Exchange exchanges[] = {
        {R"({"jsonrpc":"2.0","id":1,"method":"ping"})", R"({"id":1,"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":1.5})", R"({"id":1.5,"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":"a/b"})", R"({"id":"a\/b","jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":{"k":[true]}})", R"({"id":{"k":[true]},"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping"})", R"({"id":null,"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":2,"params":[1]})", R"({"id":2,"jsonrpc":"2.0","result":{}})"},
        {"  {\"method\":\"ping\",\"id\":3}\t", R"({"id":3,"jsonrpc":"2.0","result":{}})"},
        {"{\"method\":\"ping\",\"id\":4}\r", R"({"id":4,"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":123456789012345678901234567890})",
         R"({"id":1.2345678901234568e+29,"jsonrpc":"2.0","result":{}})"},
        // Not requests: the -32700 reply never echoes an id.
        {"[1,2]", kParseError},
        {R"([{"method":"ping","id":1}])", kParseError},
        {R"({"id":5})", kParseError},
        {R"({"id":5,"method":7})", kParseError},
        {"5", kParseError},
        {R"("ping")", kParseError},
        {R"({"method":"ping","id":6)", kParseError},
        {"\xff\xfe\xfd", kParseError},
        // Methods.
        {R"({"method":"prompts/list","id":7})", R"({"id":7,"jsonrpc":"2.0","result":{"prompts":[]}})"},
        {R"({"method":"foo","id":null})",
         R"({"error":{"code":-32601,"message":"Unsupported method: foo"},"id":null,"jsonrpc":"2.0"})"},
        {R"({"method":"Ping","id":8})",
         R"({"error":{"code":-32601,"message":"Unsupported method: Ping"},"id":8,"jsonrpc":"2.0"})"},
        {"{\"method\":\"foo\xff\",\"id\":9}",
         "{\"error\":{\"code\":-32601,\"message\":\"Unsupported method: foo\xEF\xBF\xBD\"},\"id\":9,\"jsonrpc\":\"2.0\"}"},
        {R"({"method":"foo"})", ""},
        {R"({"method":"notifications/cancelled","id":10,"params":{"requestId":1}})", ""},
        {R"({"method":"notifications/initialized","id":11})", ""},
        {R"({"method":"notifications/initialized"})", ""},
        {R"({"method":"notifications/progress"})", ""},
        // tools/call without a text name is the one JSON-RPC error of tools.
        {R"({"method":"tools/call","id":12})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":12,"jsonrpc":"2.0"})"},
        {R"({"method":"tools/call","id":"n","params":{"name":5}})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":"n","jsonrpc":"2.0"})"},
        {R"({"method":"tools/call","id":13,"params":["capture_stats"]})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":13,"jsonrpc":"2.0"})"},
        {R"({"method":"tools/call","params":{}})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":null,"jsonrpc":"2.0"})"},
        // Unknown tools are results with isError true; a "/" and a line break
        // in the text stay on one line.
        {R"({"method":"tools/call","id":14,"params":{"name":""}})",
         R"({"id":14,"jsonrpc":"2.0","result":{"content":[{"text":"Unknown tool: ","type":"text"}],"isError":true}})"},
        {R"({"method":"tools/call","id":15,"params":{"name":"List_Captures"}})",
         R"({"id":15,"jsonrpc":"2.0","result":{"content":[{"text":"Unknown tool: List_Captures","type":"text"}],"isError":true}})"},
        {R"({"method":"tools/call","id":16,"params":{"name":"a/b\nc"}})",
         R"({"id":16,"jsonrpc":"2.0","result":{"content":[{"text":"Unknown tool: a\/b\nc","type":"text"}],"isError":true}})"},
    };
    for (const auto& exchange : exchanges) {
        SCOPED_TRACE(exchange.line);
        server->sendLine(exchange.line);
        if (!exchange.reply.empty()) {
            EXPECT_EQ(server->readLine().value_or("<no reply>"), exchange.reply);
        }
        expectPingAnsweredNext();
    }
}

TEST_F(ProtocolTest, BlankLinesGetNoReplyAndNoLogLine) {
    for (const char* blank : {"", "   ", "\t\t", "\r", " \t \r", "\xE2\x80\xA8", "\xC2\x85 "}) server->sendLine(blank);
    expectPingAnsweredNext();
    server->closeInput();
    EXPECT_EQ(server->waitForExit(), 0);
    EXPECT_EQ(server->standardError(), expectedLog());
}

TEST_F(ProtocolTest, NegotiatesTheProtocolVersion) {
    const std::pair<Json, const char*> cases[] = {
        {Json{{"protocolVersion", "2024-11-05"}}, "2024-11-05"},
        {Json{{"protocolVersion", "2025-03-26"}}, "2025-03-26"},
        {Json{{"protocolVersion", "2030-01-01"}}, "2025-06-18"},
        {Json{{"protocolVersion", 20241105}}, "2025-06-18"},
        {Json::object(), "2025-06-18"},
    };
    for (const auto& [params, version] : cases) {
        SCOPED_TRACE(params.dump());
        const Json reply = server->request("initialize", params);
        EXPECT_EQ(reply["result"]["protocolVersion"], version);
        EXPECT_EQ(reply["result"]["serverInfo"], (Json{{"name", "mirel"}, {"version", "1.0.0"}}));
    }
    // initialize does not need an id either, and a second one is answered alike.
    server->sendLine(R"({"method":"initialize","params":"2024-11-05"})");
    const auto line = server->readLine().value_or("");
    EXPECT_EQ(line.rfind(R"({"id":null,"jsonrpc":"2.0","result":{"capabilities":{"resources":{"listChanged":false,"subscribe":false},"tools":{"listChanged":false}},"instructions":"Mirel is the user's visual bug board.)", 0), 0u) << line;
    EXPECT_NE(line.find(R"(actually fixed.","protocolVersion":"2025-06-18","serverInfo":{"name":"mirel","version":"1.0.0"}}})"), std::string::npos) << line;
}

TEST_F(ProtocolTest, ListsNineToolsWithClosedSchemas) {
    const Json reply = server->request("tools/list");
    const Json& tools = reply["result"]["tools"];
    ASSERT_EQ(tools.size(), 9u);
    EXPECT_EQ(tools[0]["name"], "list_captures");
    EXPECT_EQ(tools[8]["name"], "capture_stats");
    for (const Json& tool : tools) EXPECT_EQ(tool["inputSchema"]["additionalProperties"], false);
}

TEST_F(ProtocolTest, ALastLineWithoutLineFeedIsAnsweredBeforeExit) {
    server->sendLine(R"({"method":"ping","id":1})");
    server->sendRaw(R"({"method":"ping","id":"last"})");
    server->closeInput();
    EXPECT_EQ(server->waitForExit(), 0);
    const auto lines = server->stdoutLinesAfterExit();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], R"({"id":"last","jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(server->standardError(), expectedLog());
}

TEST_F(ProtocolTest, ClosingInputWhenIdleExitsCleanly) {
    server->closeInput();
    EXPECT_EQ(server->waitForExit(), 0);
    EXPECT_TRUE(server->stdoutLinesAfterExit().empty());
    EXPECT_EQ(server->standardError(), expectedLog());
}

// No line of input ends the server: each is answered (or not) and the next
// ping still gets its reply.
TEST_F(ProtocolTest, HostileInputNeverEndsTheServer) {
    const std::string tenMB(10 * 1024 * 1024, 'a');
    const std::string deepArrays(100000, '[');
    std::string deepObjects;
    for (int i = 0; i < 100000; ++i) deepObjects += R"({"a":)";
    const std::pair<std::string, std::string> lines[] = {
        {R"({"method":"ping","id":"big","params":{"x":")" + tenMB + R"("}})",
         R"({"id":"big","jsonrpc":"2.0","result":{}})"},
        {tenMB, kParseError},
        {deepArrays, kParseError},
        {R"({"method":"ping","id":1,"params":)" + deepArrays, kParseError},
        {R"({"method":"ping","id":1,"params":)" + deepObjects, kParseError},
        {R"({"method":"ping","id":1,"params":)" + std::string(100000, '[') + std::string(100000, ']') + "}", kParseError},
        {"{\"method\":\"ping\",\"id\":\"\\ud800\"}", kParseError},
        {R"({"method":"ping","id":"a)" + std::string(1, '\0') + R"(b"})", kParseError},
        {R"({"method":"ping","id":1e400})", ""},
        {R"({"method":"ping","id":-99999999999999999999999})", ""},
        {R"({"method":"initialize","id":2,"params":"2024-11-05"})", ""},
        {R"({"method":"tools/list","id":3,"params":null})", ""},
        {R"({"method":"tools/call","id":4,"params":{"name":"list_captures","arguments":{"limit":1e400,"status":7,"search":[]}}})", ""},
        {R"({"method":"tools/call","id":5,"params":{"name":"list_captures","arguments":{"limit":-99999999999999999999}}})", ""},
        {R"({"method":"tools/call","id":6,"params":{"name":"get_capture","arguments":{"id":{"x":1},"ids":"abc","max_image_edge":"big"}}})", ""},
        {R"({"method":"tools/call","id":7,"params":{"name":"capture_stats","arguments":[1,2]}})", ""},
        {R"({"method":"resources/read","id":8,"params":{"uri":5}})", ""},
        {R"({"method":"resources/list","id":9,"params":[]})", ""},
    };
    for (const auto& [line, reply] : lines) {
        SCOPED_TRACE(line.substr(0, 120));
        server->sendLine(line);
        // "" marks a line whose exact reply belongs to other tests: any one
        // line of JSON will do here.
        const auto got = server->readLine();
        ASSERT_TRUE(got.has_value()) << server->standardError();
        if (!reply.empty()) {
            EXPECT_EQ(*got, reply);
        }
        expectPingAnsweredNext();
    }
    server->closeInput();
    EXPECT_EQ(server->waitForExit(), 0);
}

}  // namespace
}  // namespace mirel::test
