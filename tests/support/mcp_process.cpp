#include "tests/support/mcp_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace mirel::test {

McpProcess::McpProcess(const std::filesystem::path& home, const std::map<std::string, std::string>& env,
                       const std::vector<std::string>& argv) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that dies while we write fails the test, not the run
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        merged[entry.substr(0, entry.find('='))] = entry.substr(entry.find('=') + 1);
    }
    merged.erase("MIREL_AGENT");
    merged["MIREL_HOME"] = home.string();
    for (const auto& [key, value] : env) merged[key] = value;
    std::vector<std::string> entries, args = argv;
    for (const auto& [key, value] : merged) entries.push_back(key + "=" + value);
    std::vector<char*> envp, argp;
    for (auto& entry : entries) envp.push_back(entry.data());
    for (auto& arg : args) argp.push_back(arg.data());
    envp.push_back(nullptr);
    argp.push_back(nullptr);

    int in[2], out[2];
    err_ = ::memfd_create("stderr", MFD_CLOEXEC);
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || err_ < 0) throw std::runtime_error("pipe2");
    pid_ = ::fork();
    if (pid_ == 0) {  // only async-signal-safe calls until exec
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err_, 2);
        ::execve(argp[0], argp.data(), envp.data());
        _exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
}

McpProcess::~McpProcess() {
    closeInput();
    if (!status_) waitForExit();
    ::close(out_);
    ::close(err_);
}

void McpProcess::sendRaw(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return (void)(ADD_FAILURE() << "the child's standard input is closed");
        done += static_cast<std::size_t>(n);
    }
}

void McpProcess::closeInput() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
}

bool McpProcess::fill(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{out_, POLLIN, 0};
    if (ended_ || left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
    char chunk[1 << 16];
    const ssize_t n = ::read(out_, chunk, sizeof chunk);
    if (n <= 0) return !(ended_ = true);
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
}

std::optional<std::string> McpProcess::readLine(std::chrono::milliseconds timeout, bool json) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t end;
    while ((end = buffer_.find('\n')) == std::string::npos)
        if (!fill(deadline)) return std::nullopt;
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    EXPECT_TRUE(!json || parseJSON(line)) << "standard output carried a line that is not JSON: " << line.substr(0, 300);
    return line;
}

std::string McpProcess::readUntil(const std::string& text, std::chrono::milliseconds timeout) {
    std::string seen;
    while (const auto line = readLine(timeout, false)) {
        seen += *line + "\n";
        if (line->find(text) != std::string::npos) return seen;
    }
    return "";
}

std::string McpProcess::readToEnd() {
    while (fill(std::chrono::steady_clock::now() + 20s)) {
    }
    return std::exchange(buffer_, "");
}

Json McpProcess::request(const std::string& method, const Json& params) {
    const int id = nextID_++;
    sendLine(writeJSON(Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}));
    const auto reply = parseJSON(readLine().value_or(""));
    if (!reply) {
        ADD_FAILURE() << "no reply to " << method << "\n" << standardError();
        return nullptr;
    }
    EXPECT_EQ(reply->value("id", Json()), id) << method;
    return *reply;
}

Json McpProcess::callTool(const std::string& name, const Json& arguments) {
    return request("tools/call", {{"name", name}, {"arguments", arguments}}).value("result", Json());
}

std::string McpProcess::text(const Json& toolResult) {
    std::string out;
    for (const auto& block : toolResult.value("content", Json::array()))
        if (block.value("type", "") == "text") out += block.value("text", "");
    return out;
}

int McpProcess::waitForExit() {
    if (status_) return *status_;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) != pid_) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the child did not exit";
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(2ms);
    }
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return *status_;
}

void McpProcess::terminate(int signal) {
    if (!status_) ::kill(pid_, signal);
}

std::string McpProcess::standardError() const {
    std::string text(static_cast<std::size_t>(::lseek(err_, 0, SEEK_END)), '\0');
    return ::pread(err_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) ? text : "";
}

}  // namespace mirel::test
