#include "mcp/server/jsonrpc.h"
#include "mcp/server/mirel_mcp_server.h"
#include "mcp/server/stdout_transport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace mirel {
namespace {

struct ParseCase {
    const char* line;
    bool parses;
    const char* id;  // the id as compact JSON, or nullptr when absent
    const char* params;
};

TEST(JSONRPCParse, AcceptsObjectsWithTextMethodOnly) {
    const ParseCase cases[] = {
        {R"({"jsonrpc":"2.0","id":1,"method":"ping"})", true, "1", "{}"},
        {R"({"method":"ping","id":null})", true, "null", "{}"},
        {R"({"method":"ping","id":1.5})", true, "1.5", "{}"},
        {R"({"method":"ping","id":"a","params":{"x":[1]}})", true, "\"a\"", R"({"x":[1]})"},
        {R"({"method":"ping","id":[1,{"b":2}]})", true, "[1,{\"b\":2}]", "{}"},
        {R"({"method":"ping","params":[1]})", true, nullptr, "{}"},
        {R"({"method":"ping","params":"x"})", true, nullptr, "{}"},
        {R"({"method":"","jsonrpc":"1.0"})", true, nullptr, "{}"},
        {"  \t{\"method\":\"ping\"}  ", true, nullptr, "{}"},
        {R"({"method":"ping","id":123456789012345678901234567890})", true, "1.2345678901234568e+29", "{}"},
        {R"({"method":7})", false, nullptr, nullptr},
        {R"({"method":null,"id":1})", false, nullptr, nullptr},
        {R"({"id":1})", false, nullptr, nullptr},
        {"{}", false, nullptr, nullptr},
        {"[1,2]", false, nullptr, nullptr},
        {R"([{"method":"ping","id":1}])", false, nullptr, nullptr},
        {"5", false, nullptr, nullptr},
        {R"("ping")", false, nullptr, nullptr},
        {"null", false, nullptr, nullptr},
        {R"({"method":"ping"} {"method":"ping"})", false, nullptr, nullptr},
        {R"({"method":"ping"}x)", false, nullptr, nullptr},
        {R"({"method":"ping",})", false, nullptr, nullptr},
        {R"({"method":"ping","id":"\ud800"})", false, nullptr, nullptr},
        {"not json", false, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto request = JSONRPC::parse(c.line);
        ASSERT_EQ(request.has_value(), c.parses);
        if (!request) continue;
        if (c.id) {
            ASSERT_TRUE(request->id.has_value());
            EXPECT_EQ(writeJSON(*request->id), c.id);
        } else {
            EXPECT_FALSE(request->id.has_value());
        }
        EXPECT_EQ(writeJSON(request->params), c.params);
    }
}

TEST(JSONRPCParse, RefusesNestingBeyondTheCapWithoutCrashing) {
    std::string deep(100000, '[');
    EXPECT_FALSE(JSONRPC::parse(R"({"method":"ping","params":)" + deep + "}").has_value());
}

TEST(JSONRPCReplies, HaveExactlyTheirKeysInSortedOrder) {
    EXPECT_EQ(writeJSON(JSONRPC::result(Json(7), Json::object())), R"({"id":7,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(writeJSON(JSONRPC::result(std::nullopt, Json::object())), R"({"id":null,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(writeJSON(JSONRPC::error(Json("a"), JSONRPC::ErrorCode::methodNotFound, "Unsupported method: foo")),
              R"({"error":{"code":-32601,"message":"Unsupported method: foo"},"id":"a","jsonrpc":"2.0"})");
    EXPECT_EQ(writeJSON(JSONRPC::error(std::nullopt, JSONRPC::ErrorCode::parseError, "Malformed JSON-RPC message.")),
              R"({"error":{"code":-32700,"message":"Malformed JSON-RPC message."},"id":null,"jsonrpc":"2.0"})");
}

TEST(JSONRPCReplies, ErrorCodesAreTheStandardOnes) {
    using C = JSONRPC::ErrorCode;
    const std::pair<C, int> codes[] = {{C::parseError, -32700}, {C::invalidRequest, -32600},
                                       {C::methodNotFound, -32601}, {C::invalidParams, -32602},
                                       {C::internalError, -32603}};
    for (const auto& [code, wire] : codes) EXPECT_EQ(JSONRPC::error(nullptr, code, "m")["error"]["code"], wire);
}

// Captures what StdoutTransport writes by pointing file descriptor 1 at a pipe.
class CapturedStdout {
public:
    CapturedStdout() {
        int fds[2];
        EXPECT_EQ(::pipe(fds), 0);
        saved_ = ::dup(STDOUT_FILENO);
        ::dup2(fds[1], STDOUT_FILENO);
        ::close(fds[1]);
        reader_ = std::thread([this, fd = fds[0]] {
            char buffer[65536];
            ssize_t n;
            while ((n = ::read(fd, buffer, sizeof buffer)) > 0) bytes_.append(buffer, static_cast<std::size_t>(n));
            ::close(fd);
        });
    }
    std::string finish() {
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
        reader_.join();
        return bytes_;
    }

private:
    int saved_;
    std::thread reader_;
    std::string bytes_;
};

TEST(StdoutTransport, WritesOneCompactLinePerMessage) {
    StdoutTransport transport;
    CapturedStdout out;
    transport.send(JSONRPC::result(Json(3), Json{{"text", "a/b\nc “d” é"}, {"b", 1}, {"a", Json::array()}}));
    transport.send(JSONRPC::result(Json(4), Json{{"bad", std::string("\xff\xfe", 2)}}));
    EXPECT_EQ(out.finish(),
              "{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":{\"a\":[],\"b\":1,\"text\":\"a\\/b\\nc “d” é\"}}\n"
              "{\"id\":4,\"jsonrpc\":\"2.0\",\"result\":{\"bad\":\"\xEF\xBF\xBD\xEF\xBF\xBD\"}}\n");
}

TEST(StdoutTransport, ALargeReplyIsOneLine) {
    StdoutTransport transport;
    CapturedStdout out;
    const std::string big(3 * 1024 * 1024, 'A');
    transport.send(JSONRPC::result(Json(1), Json{{"data", big}}));
    const std::string written = out.finish();
    EXPECT_EQ(written.size(), big.size() + std::string(R"({"id":1,"jsonrpc":"2.0","result":{"data":""}})").size() + 1);
    EXPECT_EQ(written.find('\n'), written.size() - 1);
}

TEST(InitializeResult, NegotiatesTheProtocolVersion) {
    const std::pair<Json, const char*> cases[] = {
        {Json{{"protocolVersion", "2024-11-05"}}, "2024-11-05"},
        {Json{{"protocolVersion", "2025-03-26"}}, "2025-03-26"},
        {Json{{"protocolVersion", "2025-06-18"}}, "2025-06-18"},
        {Json{{"protocolVersion", "2099-01-01"}}, "2025-06-18"},
        {Json{{"protocolVersion", "2024-11-05 "}}, "2025-06-18"},
        {Json{{"protocolVersion", 20241105}}, "2025-06-18"},
        {Json{{"protocolVersion", nullptr}}, "2025-06-18"},
        {Json::object(), "2025-06-18"},
    };
    for (const auto& [params, expected] : cases) {
        SCOPED_TRACE(params.dump());
        EXPECT_EQ(MirelMCPServer::initializeResult(params)["protocolVersion"], expected);
    }
}

TEST(InitializeResult, HasExactlyItsFourKeys) {
    const Json result = MirelMCPServer::initializeResult(Json::object());
    Json rest = result;
    rest.erase("instructions");
    EXPECT_EQ(writeJSON(rest),
              R"({"capabilities":{"resources":{"listChanged":false,"subscribe":false},"tools":{"listChanged":false}},)"
              R"("protocolVersion":"2025-06-18","serverInfo":{"name":"mirel","version":"1.0.0"}})");
    const std::string instructions = result["instructions"];
    EXPECT_EQ(instructions.rfind("Mirel is the user's visual bug board. ", 0), 0u);
    EXPECT_NE(instructions.find(" like \"design panel\" or \"checkout flow\", "), std::string::npos);
    EXPECT_NE(instructions.find("primary evidence"), std::string::npos);
    EXPECT_NE(instructions.find("filed from.\n\nStart with list_captures"), std::string::npos);
    EXPECT_NE(instructions.find("at the problem.\n\nWhen you work on one: "), std::string::npos);
    const std::string ending = " Do not resolve anything you have not actually fixed.";
    EXPECT_EQ(instructions.substr(instructions.size() - ending.size()), ending);
}

TEST(DefaultAgentName, TrimsBlanksButNotLineBreaks) {
    const std::pair<const char*, const char*> cases[] = {
        {" \tclaude-code \t", "claude-code"}, {"   ", "agent"}, {"", "agent"},
        {"\xC2\xA0" "ada\xE3\x80\x80", "ada"}, {"bot\n", "bot\n"}, {"two words", "two words"},
    };
    for (const auto& [value, expected] : cases) {
        SCOPED_TRACE(value);
        setenv("MIREL_AGENT", value, 1);
        EXPECT_EQ(defaultAgentName(), expected);
    }
    unsetenv("MIREL_AGENT");
    EXPECT_EQ(defaultAgentName(), "agent");
}

}  // namespace
}  // namespace mirel
