#include "tests/support/mcp_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace mirel::test {

namespace {

void checkIsJSON(const std::string& line) {
    EXPECT_TRUE(parseJSON(line).has_value()) << "standard output carried a line that is not JSON: "
                                             << line.substr(0, 500);
}

void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ADD_FAILURE() << "writing to the server's standard input failed: " << std::strerror(errno);
            return;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

}  // namespace

McpProcess::McpProcess(const std::filesystem::path& home, std::map<std::string, std::string> env,
                       const std::filesystem::path& binary) {
    // A child that dies while we write must fail the test, not kill it.
    ::signal(SIGPIPE, SIG_IGN);

    // The child's environment: ours without the Mirel variables, then ours.
    std::vector<std::string> entries;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (entry.rfind("MIREL_HOME=", 0) == 0 || entry.rfind("MIREL_AGENT=", 0) == 0) continue;
        if (env.count(entry.substr(0, entry.find('=')))) continue;
        entries.push_back(entry);
    }
    env.emplace("MIREL_HOME", home.string());
    for (const auto& [key, value] : env) entries.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string path = binary.string();
    char* argv[] = {path.data(), nullptr};

    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2 failed");

    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec.
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        ::execve(argv[0], argv, envp.data());
        _exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    stdin_ = in[1];
    stdoutReader_ = std::thread([this, fd = out[0]] { readStdout(fd); });
    stderrReader_ = std::thread([this, fd = err[0]] { readStderr(fd); });
}

McpProcess::~McpProcess() {
    closeInput();
    if (!exitStatus_) {
        // Give it the time an orderly exit needs, then stop it.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int status = 0;
        while (true) {
            const pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_ || done < 0) break;
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    joinReaders();
}

void McpProcess::readStdout(int fd) {
    std::string pending;
    char buffer[65536];
    while (true) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buffer, static_cast<std::size_t>(n));
        std::size_t start = 0;
        std::vector<std::string> complete;
        for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
            complete.push_back(pending.substr(start, end - start));
        pending.erase(0, start);
        if (!complete.empty()) {
            std::lock_guard<std::mutex> guard(mutex_);
            for (auto& line : complete) lines_.push_back(std::move(line));
            arrived_.notify_all();
        }
    }
    ::close(fd);
    std::lock_guard<std::mutex> guard(mutex_);
    // Output that ends without a line feed is still reported, so a test sees it.
    if (!pending.empty()) lines_.push_back(pending + " <no line feed>");
    stdoutEnded_ = true;
    arrived_.notify_all();
}

void McpProcess::readStderr(int fd) {
    char buffer[4096];
    while (true) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::lock_guard<std::mutex> guard(mutex_);
        stderr_.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
}

void McpProcess::joinReaders() {
    if (stdoutReader_.joinable()) stdoutReader_.join();
    if (stderrReader_.joinable()) stderrReader_.join();
}

void McpProcess::sendLine(const std::string& line) { sendRaw(line + "\n"); }

void McpProcess::sendRaw(const std::string& bytes) {
    if (stdin_ < 0) {
        ADD_FAILURE() << "sending after the server's standard input was closed";
        return;
    }
    writeAll(stdin_, bytes.data(), bytes.size());
}

std::optional<std::string> McpProcess::readLine(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mutex_);
    arrived_.wait_for(guard, timeout, [&] { return !lines_.empty() || stdoutEnded_; });
    if (lines_.empty()) return std::nullopt;
    std::string line = std::move(lines_.front());
    lines_.pop_front();
    guard.unlock();
    checkIsJSON(line);
    return line;
}

bool McpProcess::silentFor(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> guard(mutex_);
    return !arrived_.wait_for(guard, wait, [&] { return !lines_.empty(); });
}

Json McpProcess::request(const std::string& method, const Json& params) {
    const int id = nextID_++;
    sendLine(writeJSON(Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}));
    const auto line = readLine();
    if (!line) {
        ADD_FAILURE() << "no reply to " << method << "; standard error:\n" << standardError();
        return nullptr;
    }
    auto reply = parseJSON(*line);
    if (!reply) return nullptr;
    EXPECT_EQ(reply->value("id", Json()), Json(id)) << "reply to " << method << ": " << *line;
    return *reply;
}

Json McpProcess::callTool(const std::string& name, const Json& arguments) {
    const Json reply = request("tools/call", Json{{"name", name}, {"arguments", arguments}});
    if (!reply.is_object() || !reply.contains("result")) {
        ADD_FAILURE() << "tools/call " << name << " got no result: " << reply.dump();
        return nullptr;
    }
    return reply["result"];
}

std::string McpProcess::text(const Json& toolResult) {
    std::string out;
    if (!toolResult.is_object() || !toolResult.contains("content")) return out;
    for (const auto& block : toolResult["content"])
        if (block.value("type", "") == "text") out += block.value("text", "");
    return out;
}

void McpProcess::closeInput() {
    if (stdin_ >= 0) {
        ::close(stdin_);
        stdin_ = -1;
    }
}

int McpProcess::waitForExit(std::chrono::milliseconds timeout) {
    if (exitStatus_) return *exitStatus_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) break;
        if (done < 0) return -1;
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the server did not exit within " << timeout.count() << " ms";
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // The pipes are closed now; once the readers are done the buffers are complete.
    joinReaders();
    return *exitStatus_;
}

std::string McpProcess::standardError() {
    std::lock_guard<std::mutex> guard(mutex_);
    return stderr_;
}

std::vector<std::string> McpProcess::stdoutLinesAfterExit() {
    waitForExit();
    std::vector<std::string> out(lines_.begin(), lines_.end());
    lines_.clear();
    for (const auto& line : out) checkIsJSON(line);
    return out;
}

}  // namespace mirel::test
