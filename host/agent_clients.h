#pragma once
// Registering mirel-mcp with an agent's client: which clients there are, the
// server entry in each one's own form, and writing that entry into the
// client's configuration file without disturbing anything else in it.
#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel::host {

// A configuration file that can't be read, parsed or written; what() is the
// whole message, and the file is as it was.
class ClientConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How a client starts mirel-mcp.
struct ServerLaunch {
    std::string command;                                            // absolute path
    std::vector<std::pair<std::string, std::string>> environment;  // passed to the server
};

struct AgentClient {
    std::string_view name;        // as given to --client
    std::string_view title;       // as people call the client
    std::string_view serversKey;  // the top-level object that holds servers by name
    bool namesTransport;          // entries carry "type": "stdio"
    // The file --install edits, from HOME and XDG_CONFIG_HOME; absent when the
    // client has no known place for it.
    std::optional<std::filesystem::path> (*configFile)();
};

// The name the server is registered under.
inline constexpr std::string_view serverName = "mirel";

const std::vector<AgentClient>& agentClients();
const AgentClient* findAgentClient(std::string_view name);

// mirel-mcp beside the running program, with MIREL_HOME (made absolute) and
// MIREL_AGENT when they are set.
ServerLaunch currentServerLaunch();

// {"command", "args", "env"} as the client reads it.
nlohmann::ordered_json serverEntry(const AgentClient& client, const ServerLaunch& launch);
// What the user adds by hand: the configuration snippet, or for Claude Code
// the `claude mcp add` command line.
std::string registrationText(const AgentClient& client, const ServerLaunch& launch);

struct InstallOutcome {
    enum class Kind { created, added, replaced, unchanged } kind;
    std::filesystem::path file;                   // the file written (a link's target)
    std::optional<std::filesystem::path> backup;  // the former file, when there was one
};

// Sets the server's entry in `file`, keeping every other key and the file's
// indentation and mode; the former file is copied to FILE.bak first and the
// new one replaces it atomically. A file that is not a plain JSON object is
// refused with ClientConfigError and not touched.
InstallOutcome installServerEntry(const std::filesystem::path& file, const AgentClient& client,
                                  const ServerLaunch& launch);

}  // namespace mirel::host
