// `mirel mcp-config`: registers mirel-mcp with an agent's client.
#include "host/agent_clients.h"
#include "host/arguments.h"
#include "host/commands.h"

#include <filesystem>
#include <iostream>

namespace mirel::host {

const char* const mcpConfigUsage =
    "usage: mirel mcp-config [--client CLIENT] [--install]\n"
    "\n"
    "Prints how to register mirel-mcp with an agent's client, in that client's\n"
    "own form: the entry for its configuration file, or for Claude Code the\n"
    "command to run. The entry names the mirel-mcp beside this mirel by its\n"
    "absolute path, and passes MIREL_HOME and MIREL_AGENT when they are set.\n"
    "\n"
    "With --install the entry is written into the client's configuration file,\n"
    "keeping everything else in it; the former file stays beside it as FILE.bak.\n"
    "A file that is not plain JSON is left untouched.\n"
    "\n"
    "clients:\n"
    "  claude-desktop      ~/.config/Claude/claude_desktop_config.json\n"
    "  claude-code         ~/.claude.json, for all projects\n"
    "  vscode              ~/.config/Code/User/mcp.json\n"
    "  cursor              ~/.cursor/mcp.json\n"
    "  generic             print {\"mcpServers\": ...} for any other client (default)\n"
    "\n"
    "options:\n"
    "  --client CLIENT     one of the clients above\n"
    "  --install           write the entry into the client's configuration file\n"
    "  -h, --help          show this help\n";

namespace {

const std::vector<OptionDefinition> mcpConfigOptions = {{"client"}, {"install", false, true}};

std::string clientNames() {
    std::string names;
    for (const AgentClient& client : agentClients()) names += (names.empty() ? "" : ", ") + std::string(client.name);
    return names;
}

int install(const AgentClient& client, const ServerLaunch& launch) {
    const auto file = client.configFile();
    if (!file) {
        throw UsageError("--install needs a client whose configuration file has a known place; for others,\n"
                         "print the entry with 'mirel mcp-config' and add it by hand");
    }
    const InstallOutcome outcome = installServerEntry(*file, client, launch);
    const std::string where = outcome.file.string(), title(client.title);
    switch (outcome.kind) {
    case InstallOutcome::Kind::unchanged:
        std::cout << "mirel-mcp is already registered with " << title << " in " << where << ".\n";
        return exitOK;
    case InstallOutcome::Kind::created:
        std::cout << "Created " << where << " with mirel-mcp registered for " << title << ".\n";
        break;
    case InstallOutcome::Kind::added:
    case InstallOutcome::Kind::replaced:
        std::cout << (outcome.kind == InstallOutcome::Kind::added ? "Registered" : "Updated") << " mirel-mcp for "
                  << title << " in " << where << " (the former file is " << outcome.backup->string() << ").\n";
        break;
    }
    std::cout << "Restart " << title << " to load it.\n";
    return exitOK;
}

}  // namespace

int runMcpConfig(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, mcpConfigOptions);
    if (parsed.help) {
        std::cout << mcpConfigUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");
    const std::string name = parsed.value("client").value_or("generic");
    const AgentClient* client = findAgentClient(name);
    if (!client) throw UsageError("--client takes " + clientNames() + ", not \"" + name + "\"");

    const ServerLaunch launch = currentServerLaunch();
    if (!std::filesystem::exists(launch.command)) {
        std::cerr << "mirel mcp-config: note: " << launch.command << " is not there; install mirel-mcp beside mirel\n";
    }
    try {
        if (parsed.has("install")) return install(*client, launch);
    } catch (const ClientConfigError& error) {
        std::cerr << "mirel mcp-config: " << error.what() << ".\nRun 'mirel mcp-config --client " << client->name
                  << "' for the entry to add by hand.\n";
        return exitFailure;
    }
    std::cout << registrationText(*client, launch);
    std::optional<std::filesystem::path> file;
    try {
        file = client->configFile();
    } catch (const ClientConfigError&) {
        // Without HOME there is no file to point at; the entry is still right.
    }
    if (file) {
        std::cerr << (client->name == "claude-code" ? "Run this" : "Add this to " + file->string())
                  << ", or run 'mirel mcp-config --client " << client->name << " --install'.\n";
    }
    return exitOK;
}

}  // namespace mirel::host
