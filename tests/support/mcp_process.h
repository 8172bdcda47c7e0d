#pragma once
// A built program as a child process on pipes: by default mirel-mcp, driven
// the way an agent's client drives it. Standard error goes to a memory file
// so the child never blocks on it; every standard-output line read with
// readLine must be one JSON document.
#include "core/platform/json.h"

#include <sys/types.h>

#include <csignal>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace mirel::test {

using namespace std::chrono_literals;

class McpProcess {
public:
    // Runs `argv` with this process's environment, MIREL_AGENT removed,
    // MIREL_HOME=home, then `env` on top.
    explicit McpProcess(const std::filesystem::path& home, const std::map<std::string, std::string>& env = {},
                        const std::vector<std::string>& argv = {MIREL_MCP_BINARY});
    // Closes standard input and reaps the child, killing it after a while.
    ~McpProcess();
    McpProcess(const McpProcess&) = delete;
    McpProcess& operator=(const McpProcess&) = delete;

    void sendLine(const std::string& line) { sendRaw(line + "\n"); }
    void sendRaw(const std::string& bytes);
    void closeInput();

    // The next standard-output line without its line feed; nothing on timeout
    // or once the output has ended.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = 20s, bool json = true);
    // Standard-output lines, not JSON, until one holds `text`: all of them, or
    // "" if that line never came.
    std::string readUntil(const std::string& text, std::chrono::milliseconds timeout = 10s);
    // Everything on standard output until it ends.
    std::string readToEnd();
    // A request with a fresh integer id; the parsed reply, checked to carry that id.
    Json request(const std::string& method, const Json& params = Json::object());
    // tools/call; the reply's "result".
    Json callTool(const std::string& name, const Json& arguments = Json::object());
    // The text blocks of a tool result, joined.
    static std::string text(const Json& toolResult);

    // The exit status, or 128 + the signal; kills a child still running after 20 s.
    int waitForExit();
    void terminate(int signal = SIGTERM);
    std::string standardError() const;

private:
    bool fill(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    std::optional<int> status_;
    std::string buffer_;
    bool ended_ = false;
    int nextID_ = 1;
};

}  // namespace mirel::test
