#include "tests/support/server_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace mirel::test {

namespace {

constexpr const char* kStartLine = "mirel-server listening on ";

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        read = fds[0];
        write = fds[1];
    }
};

// Spawns the binary; the child's standard input, output and error are the
// given descriptors.
pid_t spawn(const std::vector<std::string>& arguments, int in, int out, int err) {
    std::vector<std::string> words{MIREL_SERVER_BINARY};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("can't start " + words[0]);
    return pid;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// One line from `fd`, waiting up to `timeout` in all.
std::optional<std::string> readLine(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    char c;
    while (true) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        if (::read(fd, &c, 1) != 1) return std::nullopt;
        if (c == '\n') return line;
        line += c;
    }
}

}  // namespace

ServerProcess::ServerProcess(std::vector<std::string> options, std::filesystem::path data) {
    if (data.empty()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "mirel-server-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        data_ = std::filesystem::path(pattern) / "data";
        ownsData_ = true;
    } else {
        data_ = std::move(data);
    }
    std::vector<std::string> arguments{"--data", data_.string(), "--listen", "127.0.0.1:0"};
    arguments.insert(arguments.end(), options.begin(), options.end());

    Pipe out;
    int log = ::open(logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = spawn(arguments, devNull, out.write, log);
    ::close(out.write);
    ::close(log);
    ::close(devNull);
    stdout_ = out.read;

    auto line = readLine(stdout_, std::chrono::seconds(20));
    if (!line || line->rfind(kStartLine, 0) != 0) {
        stop();
        throw std::runtime_error("mirel-server did not start; see " + logPath().string());
    }
    url_ = line->substr(std::string(kStartLine).size());
    url_ = url_.substr(0, url_.find(' '));
    port_ = std::stoi(url_.substr(url_.rfind(':') + 1));
}

ServerProcess::~ServerProcess() {
    stop();
    if (ownsData_) {
        std::error_code ignored;
        std::filesystem::remove_all(data_.parent_path(), ignored);
    }
}

int ServerProcess::stop() {
    if (pid_ < 0) return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "mirel-server did not stop on SIGTERM";
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    if (stdout_ >= 0) ::close(stdout_);
    stdout_ = -1;
    return exitStatus(status);
}

ServerProcess::Output ServerProcess::admin(const std::vector<std::string>& words, const std::string& input) const {
    std::vector<std::string> arguments{"--data", data_.string()};
    arguments.insert(arguments.end(), words.begin(), words.end());
    Pipe in, out;
    const pid_t pid = spawn(arguments, in.read, out.write, out.write);
    ::close(in.read);
    ::close(out.write);
    (void)!::write(in.write, input.data(), input.size());
    ::close(in.write);
    Output output{0, {}};
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(out.read, buffer, sizeof buffer)) > 0) output.text.append(buffer, static_cast<std::size_t>(n));
    ::close(out.read);
    int status = 0;
    ::waitpid(pid, &status, 0);
    output.status = exitStatus(status);
    return output;
}

void ServerProcess::addUser(const std::string& email, const std::string& name) const {
    auto result = admin({"user", "add", email, "--name", name}, std::string(kPassword) + "\n");
    if (result.status != 0) throw std::runtime_error("user add failed: " + result.text);
}

void ServerProcess::addWorkspace(const std::string& slug, const std::string& name,
                                 const std::vector<std::string>& members) const {
    std::vector<std::string> words{"workspace", "add", slug, "--name", name, "--member"};
    words.insert(words.end(), members.begin(), members.end());
    auto result = admin(words);
    if (result.status != 0) throw std::runtime_error("workspace add failed: " + result.text);
}

std::string ServerProcess::workspaceID(const std::string& token, const std::string& slug) const {
    for (const auto& ws : call("GET", "/v1/me", std::nullopt, token).body.value("workspaces", Json::array())) {
        if (ws.value("slug", "") == slug) return ws.value("id", "");
    }
    return "";
}

std::string ServerProcess::signIn(const std::string& email) const {
    const Reply code = call("POST", "/api/auth/device/code", Json{{"client_id", "mirel-desktop"}});
    auto approved = admin({"approve", code.body.value("user_code", ""), "--user", email});
    if (approved.status != 0) throw std::runtime_error("approve failed: " + approved.text);
    const Reply token = call("POST", "/api/auth/device/token",
                             Json{{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
                                  {"device_code", code.body.value("device_code", "")},
                                  {"client_id", "mirel-desktop"}});
    return token.body.value("access_token", "");
}

Json ServerProcess::sync(const std::string& token, std::int64_t cursor, const Json& changes,
                         const std::string& deviceID) const {
    return call("POST", "/v1/sync",
                Json{{"device_id", deviceID}, {"cursor", cursor}, {"changes", changes}, {"full_groups", Json::array()}},
                token)
        .body;
}

ServerProcess::Reply ServerProcess::call(const std::string& method, const std::string& path,
                                         const std::optional<Json>& body, const std::string& token) const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(30);
    httplib::Headers headers{{"Accept", "application/json"}};
    if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
    const std::string payload = body ? writeJSON(*body) : std::string();
    httplib::Result result = method == "GET"    ? client.Get(path, headers)
                             : method == "PUT"  ? client.Put(path, headers, payload, "application/json")
                                                : client.Post(path, headers, payload, "application/json");
    Reply reply;
    if (!result) return reply;
    reply.status = result->status;
    reply.text = result->body;
    reply.body = parseJSON(result->body).value_or(Json());
    return reply;
}

}  // namespace mirel::test
