#include "tests/support/server_process.h"

#include <stdexcept>

namespace mirel::test {

namespace {

constexpr const char* kStartLine = "mirel-server listening on ";

std::vector<std::string> serverCommand(const std::filesystem::path& data, const std::vector<std::string>& words) {
    std::vector<std::string> command{MIREL_SERVER_BINARY, "--data", data.string()};
    command.insert(command.end(), words.begin(), words.end());
    return command;
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
    options.insert(options.begin(), {"--listen", "127.0.0.1:0"});
    process_ = std::make_unique<McpProcess>(data_, std::map<std::string, std::string>{}, serverCommand(data_, options));
    const auto line = process_->readLine(std::chrono::seconds(20), false);
    if (!line || line->rfind(kStartLine, 0) != 0) {
        const std::string log = process_->standardError();
        stop();
        throw std::runtime_error("mirel-server did not start: " + log);
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
    if (!process_) return -1;
    process_->terminate();
    const int status = process_->waitForExit();
    process_.reset();
    return status;
}

ServerProcess::Output ServerProcess::admin(const std::vector<std::string>& words, const std::string& input) const {
    McpProcess command(data_, {}, serverCommand(data_, words));
    command.sendRaw(input);
    command.closeInput();
    std::string text = command.readToEnd();
    const int status = command.waitForExit();
    return {status, text + command.standardError()};
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
    return pollToken(code.body.value("device_code", "")).body.value("access_token", "");
}

ServerProcess::Reply ServerProcess::pollToken(const Json& deviceCode) const {
    return call("POST", "/api/auth/device/token",
                Json{{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"}, {"device_code", deviceCode},
                     {"client_id", "mirel-desktop"}});
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
    httplib::Result result =
        method == "GET" ? client.Get(path, headers) : client.Post(path, headers, payload, "application/json");
    Reply reply;
    if (!result) return reply;
    reply.status = result->status;
    reply.text = result->body;
    reply.body = parseJSON(result->body).value_or(Json());
    return reply;
}

}  // namespace mirel::test
