// mirel-mcp: a local MCP server over the user's Mirel library, speaking
// line-delimited JSON-RPC on standard input and output.
#include "core/platform/file_descriptor.h"
#include "core/store/database_error.h"
#include "core/store/mirel_paths.h"
#include "mcp/server/log.h"
#include "mcp/server/mirel_mcp_server.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

namespace {

// The error value's plain rendering for the "fatal:" line.
std::string plainRendering(const std::exception& error) {
    if (const auto* db = dynamic_cast<const mirel::DatabaseError*>(&error)) return db->plainRendering();
    return error.what();
}

// The library could not be opened: two writes on standard error, nothing on
// standard output, exit status 1.
int fatal(const std::string& error) {
    mirel::logLine("fatal: " + error);
    std::string path;
    try {
        path = mirel::MirelPaths::databaseURL().string();
    } catch (const std::exception&) {
        path = "(no home folder)";
    }
    mirel::writeAll(STDERR_FILENO,
                    "Mirel could not open its library at " + path +
                        ".\nLaunch the Mirel app once to create it, then reconnect this MCP server.\n");
    return 1;
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::unique_ptr<mirel::MirelMCPServer> server;
    try {
        server = std::make_unique<mirel::MirelMCPServer>();
    } catch (const std::exception& error) {
        return fatal(plainRendering(error));
    } catch (...) {
        return fatal("unknown error");
    }
    server->run(std::cin);
    return 0;
}
