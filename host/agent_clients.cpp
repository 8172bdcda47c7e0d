#include "host/agent_clients.h"

#include "core/platform/file_io.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace mirel::host {

namespace fs = std::filesystem;
using OrderedJson = nlohmann::ordered_json;

namespace {

std::optional<std::string> environmentValue(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

fs::path home() {
    auto value = environmentValue("HOME");
    if (!value) throw ClientConfigError("HOME is not set, so the client's configuration file can't be found");
    return *value;
}

fs::path configHome() {
    auto value = environmentValue("XDG_CONFIG_HOME");
    if (value && fs::path(*value).is_absolute()) return *value;
    return home() / ".config";
}

std::optional<fs::path> claudeDesktopFile() { return configHome() / "Claude" / "claude_desktop_config.json"; }
std::optional<fs::path> claudeCodeFile() { return home() / ".claude.json"; }
std::optional<fs::path> vscodeFile() { return configHome() / "Code" / "User" / "mcp.json"; }
std::optional<fs::path> cursorFile() { return home() / ".cursor" / "mcp.json"; }
std::optional<fs::path> noFile() { return std::nullopt; }

// A word the shell takes as it stands, or else in single quotes.
std::string shellQuoted(const std::string& word) {
    const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_./:=@%+-", c);
    });
    if (plain) return word;
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string errnoText(const std::string& what, const fs::path& file) {
    return "can't " + what + " " + file.string() + ": " + std::strerror(errno);
}

// The file's text, or nothing when there is no file.
std::optional<std::string> readConfig(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) return std::nullopt;
        throw ClientConfigError(errnoText("read", file));
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw ClientConfigError(errnoText("read", file));
    return text;
}

OrderedJson parseConfig(const std::string& text, const fs::path& file) {
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) return OrderedJson::object();
    const std::string kept = "; it was left as it was";
    OrderedJson document;
    try {
        document = OrderedJson::parse(text);
    } catch (const OrderedJson::parse_error& error) {
        // Comments would be lost on writing, so a file with them is refused too.
        if (OrderedJson::accept(text, true)) {
            throw ClientConfigError(file.string() + " holds comments, which rewriting it would lose" + kept);
        }
        const std::size_t at = std::min<std::size_t>(error.byte ? error.byte - 1 : 0, text.size());
        const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
        throw ClientConfigError(file.string() + " is not valid JSON (line " + std::to_string(line) + ")" + kept);
    }
    if (!document.is_object()) throw ClientConfigError(file.string() + " does not hold a JSON object" + kept);
    return document;
}

// The indentation of the first indented line: tabs, or a number of spaces.
std::pair<char, int> indentationOf(const std::string& text) {
    for (std::size_t newline = text.find('\n'); newline != std::string::npos; newline = text.find('\n', newline + 1)) {
        const std::size_t start = newline + 1;
        if (start < text.size() && text[start] == '\t') return {'\t', 1};
        const std::size_t end = text.find_first_not_of(' ', start);
        if (end != std::string::npos && end > start && text[end] != '\n') return {' ', static_cast<int>(end - start)};
    }
    return {' ', 2};
}

// Replaces `file` with `text` at once, with the former file's mode.
void replaceFile(const fs::path& file, const std::string& text, std::optional<mode_t> mode) {
    try {
        writeFileAtomically(file, text, mode);
    } catch (const fs::filesystem_error& error) {
        throw ClientConfigError("can't write " + file.string() + ": " + error.code().message());
    }
}

}  // namespace

const std::vector<AgentClient>& agentClients() {
    static const std::vector<AgentClient> clients = {
        {"claude-desktop", "Claude Desktop", "mcpServers", false, claudeDesktopFile},
        {"claude-code", "Claude Code", "mcpServers", true, claudeCodeFile},
        {"vscode", "VS Code", "servers", true, vscodeFile},
        {"cursor", "Cursor", "mcpServers", false, cursorFile},
        {"generic", "any MCP client", "mcpServers", false, noFile},
    };
    return clients;
}

const AgentClient* findAgentClient(std::string_view name) {
    for (const AgentClient& client : agentClients()) {
        if (client.name == name) return &client;
    }
    return nullptr;
}

ServerLaunch currentServerLaunch() {
    ServerLaunch launch;
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    launch.command = ((error ? fs::current_path() : self.parent_path()) / "mirel-mcp").string();
    if (auto library = environmentValue("MIREL_HOME")) {
        // The client starts the server from a folder of its own choosing.
        launch.environment.emplace_back("MIREL_HOME", fs::absolute(*library).lexically_normal().string());
    }
    if (auto agent = environmentValue("MIREL_AGENT")) launch.environment.emplace_back("MIREL_AGENT", *agent);
    return launch;
}

OrderedJson serverEntry(const AgentClient& client, const ServerLaunch& launch) {
    OrderedJson entry = OrderedJson::object();
    if (client.namesTransport) entry["type"] = "stdio";
    entry["command"] = launch.command;
    entry["args"] = OrderedJson::array();
    if (!launch.environment.empty()) {
        OrderedJson& env = entry["env"] = OrderedJson::object();
        for (const auto& [name, value] : launch.environment) env[name] = value;
    }
    return entry;
}

std::string registrationText(const AgentClient& client, const ServerLaunch& launch) {
    if (client.name == "claude-code") {
        std::string command = "claude mcp add";
        for (const auto& [name, value] : launch.environment) command += " -e " + shellQuoted(name + "=" + value);
        return command + " --scope user " + std::string(serverName) + " -- " + shellQuoted(launch.command) + "\n";
    }
    OrderedJson snippet;
    snippet[std::string(client.serversKey)][std::string(serverName)] = serverEntry(client, launch);
    return snippet.dump(2) + "\n";
}

InstallOutcome installServerEntry(const fs::path& file, const AgentClient& client, const ServerLaunch& launch) {
    InstallOutcome outcome{InstallOutcome::Kind::added, file, std::nullopt};
    // A configuration file kept elsewhere and linked in stays a link.
    std::error_code error;
    if (fs::is_symlink(file, error)) {
        outcome.file = fs::canonical(file, error);
        if (error) throw ClientConfigError(file.string() + " is a link to nothing; it was left as it was");
    }
    const std::optional<std::string> text = readConfig(outcome.file);
    OrderedJson document = text ? parseConfig(*text, outcome.file) : OrderedJson::object();

    const std::string key(client.serversKey), name(serverName);
    if (!document.contains(key)) document[key] = OrderedJson::object();
    OrderedJson& servers = document[key];
    if (!servers.is_object()) {
        throw ClientConfigError(outcome.file.string() + ": \"" + key + "\" is not a JSON object; it was left as it was");
    }
    const OrderedJson entry = serverEntry(client, launch);
    if (servers.contains(name)) {
        if (servers[name] == entry) return {InstallOutcome::Kind::unchanged, outcome.file, std::nullopt};
        outcome.kind = InstallOutcome::Kind::replaced;
    }
    servers[name] = entry;

    const auto [indentChar, indentWidth] = indentationOf(text.value_or(""));
    const std::string updated = document.dump(indentWidth, indentChar) + "\n";
    std::optional<mode_t> mode;
    if (text) {
        struct stat status{};
        if (stat(outcome.file.c_str(), &status) == 0) mode = status.st_mode & 07777;
        outcome.backup = outcome.file.string() + ".bak";
        replaceFile(*outcome.backup, *text, mode);
    } else {
        outcome.kind = InstallOutcome::Kind::created;
        fs::create_directories(outcome.file.parent_path(), error);
        if (error) throw ClientConfigError("can't make " + outcome.file.parent_path().string() + ": " + error.message());
    }
    replaceFile(outcome.file, updated, mode);
    return outcome;
}

}  // namespace mirel::host
