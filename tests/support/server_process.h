#pragma once
// A real mirel-server for a test: started on a free loopback port with its own
// data folder, driven over HTTP, administered through its own command line,
// and stopped with SIGTERM.
//
//   ServerProcess server;                       // mirel-server --data TMP --listen 127.0.0.1:0
//   server.addUser("ann@example.com", "Ann");   // user add …, password on standard input
//   server.addWorkspace("acme", "Acme", {"ann@example.com"});
//   server.admin({"approve", userCode, "--user", "ann@example.com"});
//   std::string token = server.signIn("ann@example.com");   // the whole device flow
#include "core/platform/json.h"
#include "tests/support/mcp_process.h"

#include <httplib.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirel::test {

class ServerProcess {
public:
    static constexpr const char* kPassword = "correct horse battery";

    // Starts the binary with `--data DIR --listen 127.0.0.1:0` and `options`,
    // and waits for its start line. An empty `data` makes a temporary folder
    // that goes with the object.
    explicit ServerProcess(std::vector<std::string> options = {}, std::filesystem::path data = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    const std::string& url() const { return url_; }  // "http://127.0.0.1:PORT"
    int port() const { return port_; }
    const std::filesystem::path& data() const { return data_; }

    struct Output {
        int status;
        std::string text;  // standard output and standard error
    };
    // `mirel-server --data DIR WORDS…` with `input` on standard input.
    Output admin(const std::vector<std::string>& words, const std::string& input = "") const;
    void addUser(const std::string& email, const std::string& name) const;
    void addWorkspace(const std::string& slug, const std::string& name, const std::vector<std::string>& members) const;
    // The id of a workspace, read as its member sees it in /v1/me.
    std::string workspaceID(const std::string& token, const std::string& slug) const;

    struct Reply {
        int status = 0;  // 0 when the connection failed
        Json body;       // null when the body isn't JSON
        std::string text;
    };
    // Device code, approval with `approve`, first poll: a session token.
    std::string signIn(const std::string& email) const;
    // One poll of the device-token endpoint for `deviceCode`.
    Reply pollToken(const Json& deviceCode) const;

    Reply call(const std::string& method, const std::string& path, const std::optional<Json>& body = std::nullopt,
               const std::string& token = "") const;

    // A /v1/sync exchange of one device; the reply's body.
    Json sync(const std::string& token, std::int64_t cursor, const Json& changes = Json::array(),
              const std::string& deviceID = "laptop") const;

    // SIGTERM, then the exit status (128 + the signal if it had to be killed).
    int stop();

private:
    std::filesystem::path data_;
    bool ownsData_ = false;
    std::string url_;
    int port_ = 0;
    std::unique_ptr<McpProcess> process_;
};

}  // namespace mirel::test
