// `mirel`: files captures into a library on Linux, where no desktop
// application does, and shows what is there.
#include "host/arguments.h"
#include "host/commands.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <string_view>

namespace {

using namespace mirel::host;

struct Command {
    std::string_view name;
    int (*run)(const Arguments&);
    const char* const* usage;
    std::string_view summary;
};

const Command commands[] = {
    {"add", runAdd, &addUsage, "file screenshots and a note as a capture; prints its id"},
    {"list", runList, &listUsage, "list captures"},
    {"show", runShow, &showUsage, "show one capture in full"},
    {"demo", runDemo, &demoUsage, "fill the library with a demo board"},
    {"path", runPath, &pathUsage, "print the library's folder and database file"},
    {"doctor", runDoctor, &doctorUsage, "find (--fix: remove) what interrupted work left behind"},
    {"signin", runSignin, &signinUsage, "sign in to the sync server with a code approved in a browser"},
    {"sync", runSync, &syncUsage, "send and fetch changes once"},
    {"watch", runWatch, &watchUsage, "keep syncing until interrupted"},
    {"status", runStatus, &statusUsage, "show the account, the last sync and what waits to be sent"},
    {"workspace", runWorkspace, &workspaceUsage, "list the workspaces, or choose the default one"},
    {"adopt", runAdopt, &adoptUsage, "move captures filed before signing in into a workspace"},
    {"signout", runSignout, &signoutUsage, "sign out; captures filed here stay"},
    {"mcp-config", runMcpConfig, &mcpConfigUsage, "register mirel-mcp with an agent's client"},
};

void printUsage(std::ostream& out) {
    out << "usage: mirel COMMAND [ARGS...]\n"
           "\n"
           "Files captures into the Mirel library that mirel-mcp serves to agents.\n"
           "\n"
           "commands:\n";
    for (const Command& command : commands) {
        out << "  " << command.name << std::string(11 - std::min<std::size_t>(command.name.size(), 10), ' ')
            << command.summary << '\n';
    }
    out << "\n"
           "Run 'mirel COMMAND --help' for a command's options. MIREL_HOME chooses the\n"
           "library's folder; MIREL_API_URL the sync server (default http://127.0.0.1:8787).\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(true);
    if (argc < 2) {
        printUsage(std::cerr);
        return exitUsage;
    }
    const std::string_view name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        printUsage(std::cout);
        return exitOK;
    }
    const Command* command = nullptr;
    for (const Command& candidate : commands) {
        if (candidate.name == name) command = &candidate;
    }
    if (!command) {
        std::cerr << "mirel: unknown command \"" << name << "\"\n\n";
        printUsage(std::cerr);
        return exitUsage;
    }

    const Arguments arguments(argv + 2, argv + argc);
    try {
        const int status = command->run(arguments);
        std::cout.flush();
        if (!std::cout) {
            std::cerr << "mirel " << name << ": could not write to standard output\n";
            return exitFailure;
        }
        return status;
    } catch (const UsageError& error) {
        return reportUsageError(name, error, *command->usage);
    } catch (const std::exception& error) {
        std::cerr << "mirel " << name << ": " << error.what() << '\n';
        return exitFailure;
    }
}
