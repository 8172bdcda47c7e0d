// mirel-server: a small self-hosted sync server for Mirel libraries.
#include "server/accounts.h"
#include "server/admin.h"
#include "server/command_line.h"
#include "server/serve.h"

#include <cstdio>
#include <iostream>

int main(int argc, char** argv) {
    using namespace mirel::server;
    try {
        const Invocation invocation = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
        if (invocation.help) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (invocation.command.empty()) return serve(invocation.data, invocation.serve);
        Storage storage(invocation.data);
        runAdminCommand(storage, invocation.command);
        return 0;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "mirel-server: %s\n\n%s", error.what(), kUsage);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "mirel-server: %s\n", error.what());
        return 1;
    }
}
