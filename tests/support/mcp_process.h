#pragma once
// Drives a built server binary as a child process over pipes, the way an
// agent's client does: lines of JSON-RPC in, lines of JSON-RPC out, a log on
// standard error.
//
// Standard output is read by a thread into a queue of lines and standard
// error by another thread into a buffer, so the child never blocks on a full
// pipe. Every standard-output line must be one JSON document; a line that is
// not is reported as a test failure.
#include "core/platform/json.h"

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace mirel::test {

class McpProcess {
public:
    // Starts `binary` with MIREL_HOME=home plus `env` (which may override
    // MIREL_HOME). MIREL_AGENT is unset unless `env` gives it.
    explicit McpProcess(const std::filesystem::path& home, std::map<std::string, std::string> env = {},
                        const std::filesystem::path& binary = MIREL_MCP_BINARY);
    // Closes standard input and reaps the child, killing it after a timeout.
    ~McpProcess();
    McpProcess(const McpProcess&) = delete;
    McpProcess& operator=(const McpProcess&) = delete;

    void sendLine(const std::string& line);  // line + "\n"
    void sendRaw(const std::string& bytes);

    // The next standard-output line without its line feed; nothing on
    // timeout or once the child's output has ended.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // True if no standard-output line arrives within `wait`.
    bool silentFor(std::chrono::milliseconds wait = std::chrono::milliseconds(300));

    // Sends a request with a fresh integer id and returns the parsed reply,
    // checking that it carries that id. Null if no reply came.
    Json request(const std::string& method, const Json& params = Json::object());
    // tools/call; returns the reply's "result" (null if there was none).
    Json callTool(const std::string& name, const Json& arguments = Json::object());
    // The text blocks of a tool result, concatenated in order.
    static std::string text(const Json& toolResult);

    void closeInput();
    // The exit status (128 + signal if killed by one); kills the child and
    // reports a failure if it has not exited within `timeout`.
    int waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Everything read from standard error so far; complete after waitForExit.
    std::string standardError();
    // Waits for the child to exit and returns the standard-output lines not
    // read yet.
    std::vector<std::string> stdoutLinesAfterExit();

    pid_t pid() const { return pid_; }

private:
    void readStdout(int fd);
    void readStderr(int fd);
    void joinReaders();

    pid_t pid_ = -1;
    int stdin_ = -1;
    std::optional<int> exitStatus_;
    int nextID_ = 1;
    std::thread stdoutReader_;
    std::thread stderrReader_;

    // Guarded by mutex_.
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::string> lines_;
    bool stdoutEnded_ = false;
    std::string stderr_;
};

}  // namespace mirel::test
