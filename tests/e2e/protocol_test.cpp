// The built mirel-mcp as a client sees it: exact lines in and out, input that
// never ends it, and the capture resources.
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/image_files.h"
#include "tests/support/mcp_process.h"
#include "tests/support/seed.h"
#include "tests/support/snapshot.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

const std::string kParseError = R"({"error":{"code":-32700,"message":"Malformed JSON-RPC message."},"id":null,"jsonrpc":"2.0"})";

class ProtocolTest : public ::testing::Test {
protected:
    // Proves that nothing else was answered: the next line is the reply to a fresh ping.
    void expectPingAnsweredNext() {
        const std::string id = "p" + std::to_string(++pings);
        server.sendLine(R"({"method":"ping","id":")" + id + R"("})");
        EXPECT_EQ(server.readLine().value_or("<no reply>"), R"({"id":")" + id + R"(","jsonrpc":"2.0","result":{}})");
    }
    void expectCleanExit() {
        server.closeInput();
        EXPECT_EQ(server.waitForExit(), 0);
        EXPECT_EQ(server.standardError(), "[mirel-mcp] ready — library at " + library.databasePath().string() +
                                              "\n[mirel-mcp] stdin closed — exiting\n");
    }

    TempLibrary library;
    McpProcess server{library.home()};
    int pings = 0;
};

TEST_F(ProtocolTest, AnswersEachLineExactly) {
    const std::pair<std::string, std::string> exchanges[] = {  // a line, and its reply ("" for none)
        {R"({"jsonrpc":"2.0","id":1,"method":"ping"})", R"({"id":1,"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":"a/b","params":[1]})", R"({"id":"a\/b","jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping","id":{"k":[1.5]}})", R"({"id":{"k":[1.5]},"jsonrpc":"2.0","result":{}})"},
        {R"({"method":"ping"})", R"({"id":null,"jsonrpc":"2.0","result":{}})"},
        {"  {\"method\":\"ping\",\"id\":3}\t\r", R"({"id":3,"jsonrpc":"2.0","result":{}})"},
        {"[1,2]", kParseError}, {R"([{"method":"ping","id":1}])", kParseError}, {R"({"id":5,"method":7})", kParseError},
        {R"("ping")", kParseError}, {R"({"method":"ping","id":6)", kParseError}, {"\xff\xfe", kParseError},
        {R"({"method":"prompts/list","id":7})", R"({"id":7,"jsonrpc":"2.0","result":{"prompts":[]}})"},
        {R"({"method":"Ping","id":8})", R"({"error":{"code":-32601,"message":"Unsupported method: Ping"},"id":8,"jsonrpc":"2.0"})"},
        {"{\"method\":\"foo\xff\",\"id\":9}",
         "{\"error\":{\"code\":-32601,\"message\":\"Unsupported method: foo\xEF\xBF\xBD\"},\"id\":9,\"jsonrpc\":\"2.0\"}"},
        {R"({"method":"foo"})", ""}, {R"({"method":"notifications/initialized"})", ""},
        {R"({"method":"notifications/cancelled","id":10,"params":{"requestId":1}})", ""},
        {R"({"method":"tools/call","id":12,"params":{"name":5}})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":12,"jsonrpc":"2.0"})"},
        {R"({"method":"tools/call","params":["capture_stats"]})",
         R"({"error":{"code":-32602,"message":"tools\/call requires a `name`."},"id":null,"jsonrpc":"2.0"})"},
        {R"({"method":"tools/call","id":16,"params":{"name":"a/b\nc"}})",
         R"({"id":16,"jsonrpc":"2.0","result":{"content":[{"text":"Unknown tool: a\/b\nc","type":"text"}],"isError":true}})"},
        {R"({"method":"tools/call","id":17,"params":{"name":"capture_stats","arguments":[1]}})",
         R"({"id":17,"jsonrpc":"2.0","result":{"content":[{"text":"Open: 0   In progress: 0   Resolved: 0   Archived: 0",)"
         R"("type":"text"}],"isError":false}})"},
        {R"({"method":"tools/list","id":18,"params":null})", R"({"id":18,"jsonrpc":"2.0","result":)" + readSnapshot("tools_list.json") + "}"},
    };
    for (const auto& [line, reply] : exchanges) {
        server.sendLine(line);
        if (!reply.empty()) {
            EXPECT_EQ(server.readLine().value_or("<no reply>"), reply) << line;
        }
        expectPingAnsweredNext();
    }
    for (const char* blank : {"", "   ", "\t\r", "\xE2\x80\xA8", "\xC2\x85 "}) server.sendLine(blank);
    expectPingAnsweredNext();
    server.sendRaw(R"({"method":"ping","id":"last"})");  // no line feed before the end
    server.closeInput();
    EXPECT_EQ(server.readLine().value_or("<no reply>"), R"({"id":"last","jsonrpc":"2.0","result":{}})");
    expectCleanExit();
}

TEST_F(ProtocolTest, NegotiatesTheVersionAndIntroducesItself) {
    for (const auto& [asked, given] : {std::pair<Json, const char*>{"2024-11-05", "2024-11-05"}, {"2025-03-26", "2025-03-26"},
                                       {"2030-01-01", "2025-06-18"}, {20241105, "2025-06-18"}, {nullptr, "2025-06-18"}}) {
        Json result = server.request("initialize", {{"protocolVersion", asked}}).value("result", Json::object());
        const std::string instructions = result.value("instructions", "");
        result.erase("instructions");
        EXPECT_EQ(result, (Json{{"protocolVersion", given},
                                {"capabilities", {{"tools", {{"listChanged", false}}}, {"resources", {{"subscribe", false}, {"listChanged", false}}}}},
                                {"serverInfo", {{"name", "mirel"}, {"version", "1.0.0"}}}}));
        EXPECT_EQ(instructions.substr(0, 37) + "…" + instructions.substr(instructions.size() - 28),
                  "Mirel is the user's visual bug board.…you have not actually fixed.");
    }
}

// No line ends the server: each is answered (or not) and the next ping still is.
TEST_F(ProtocolTest, HostileInputNeverEndsTheServer) {
    const std::string big(10 << 20, 'a'), deep(100000, '[');
    std::string deepObjects;
    for (int i = 0; i < 100000; ++i) deepObjects += R"({"a":)";
    const std::pair<std::string, std::string> lines[] = {
        {R"({"method":"ping","id":"big","params":{"x":")" + big + R"("}})", R"({"id":"big","jsonrpc":"2.0","result":{}})"},
        {big, kParseError}, {deep, kParseError}, {R"({"method":"ping","id":1,"params":)" + deepObjects, kParseError},
        {R"({"method":"ping","id":"\\","params":)" + deep + std::string(100000, ']') + "}", kParseError},  // past an escape
        {"{\"method\":\"ping\",\"id\":\"\\ud800\"}", kParseError}, {R"({"method":"ping","id":1e400})", ""},
        {R"({"method":"tools/call","id":4,"params":{"name":"list_captures","arguments":{"limit":1e400,"status":7,"search":[]}}})", ""},
        {R"({"method":"tools/call","id":6,"params":{"name":"get_capture","arguments":{"id":{"x":1},"max_image_edge":"big"}}})", ""},
        {R"({"method":"resources/read","id":8,"params":{"uri":5}})", ""}, {R"({"method":"resources/list","id":9,"params":[]})", ""},
    };
    for (const auto& [line, reply] : lines) {
        server.sendLine(line);
        const auto got = server.readLine();
        ASSERT_TRUE(got) << line.substr(0, 100) << "\n" << server.standardError();
        if (!reply.empty()) {
            EXPECT_EQ(*got, reply) << line.substr(0, 100);
        }
        expectPingAnsweredNext();
    }
    expectCleanExit();
}

TEST(WireTest, TheCaptureResources) {
    TempLibrary library;
    CaptureStore store(library.databasePath());
    Capture seen = makeCapture("Save button overlaps"), typed = makeCapture("", kSeedDate - 60, false);
    seen.appName = "Editor";
    seen.windowTitle = "  editor ";  // raw in the resource list: neither trimmed nor compared with the app
    typed.status = CaptureStatus::inProgress;
    store.insert(seen);
    store.insert(typed);
    MirelPaths::ensureParentDirectory(seen.imageURL());
    writeImageFile(seen.imageURL(), 1600, 800, ImageFileFormat::png);
    McpProcess server(library.home());  // started on the filed library
    EXPECT_EQ(server.request("resources/list").value("result", Json()),
              (Json{{"resources", {{{"uri", "mirel://capture/" + seen.id}, {"name", "Save button overlaps"},
                                    {"description", "Seen in Editor · “  editor ” · OPEN"}, {"mimeType", "image/png"}},
                                   {{"uri", "mirel://capture/" + typed.id}, {"name", "Untitled issue"},
                                    {"description", "IN-PROGRESS"}, {"mimeType", "text/plain"}}}}}));
    const std::string detail = McpProcess::text(server.callTool("get_capture", {{"id", seen.id}, {"include_image", false}}));
    for (const std::string& uri : {"mirel://capture/" + seen.id, seen.id.substr(0, 8), "x-mirel://capture/mirel://capture/" + seen.id}) {
        const Json contents = server.request("resources/read", {{"uri", uri}})["result"]["contents"];
        ASSERT_EQ(contents.size(), 2u) << uri;
        EXPECT_EQ(contents[0], (Json{{"uri", uri}, {"mimeType", "text/plain"}, {"text", detail}}));
        const auto png = ImageCodec::decode(decodeBase64(contents[1].value("blob", "")));
        EXPECT_EQ(contents[1]["mimeType"], "image/png");
        EXPECT_EQ(png ? png->width * 10000 + png->height : 0, 14000700) << uri;
    }
    EXPECT_EQ(server.request("resources/read", {{"uri", typed.id}})["result"]["contents"].size(), 1u);
    const std::pair<Json, std::string> errors[] = {
        {"mirel://capture/", "Expected a mirel://capture/<id> uri."}, {5, "Expected a mirel://capture/<id> uri."},
        {"mirel://capture/zzz", "No capture at mirel://capture/zzz."}, {"%", "No capture at %."},
    };
    for (const auto& [uri, message] : errors)
        EXPECT_EQ(server.request("resources/read", {{"uri", uri}}).value("error", Json()), (Json{{"code", -32602}, {"message", message}}));
}

}  // namespace
}  // namespace mirel::test
