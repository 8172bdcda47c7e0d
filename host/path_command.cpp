// `mirel path`: where the library lives.
#include "core/store/mirel_paths.h"
#include "host/arguments.h"
#include "host/commands.h"

#include <iostream>

namespace mirel::host {

const char* const pathUsage =
    "usage: mirel path\n"
    "\n"
    "Prints the library's folder on the first line and its database file on the\n"
    "second. MIREL_HOME chooses the folder; otherwise it is $XDG_DATA_HOME/Mirel,\n"
    "or ~/.local/share/Mirel.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

int runPath(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, {});
    if (parsed.help) {
        std::cout << pathUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");
    std::cout << MirelPaths::support().string() << '\n' << MirelPaths::databaseURL().string() << '\n';
    return exitOK;
}

}  // namespace mirel::host
