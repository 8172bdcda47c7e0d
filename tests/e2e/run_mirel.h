#pragma once
// The built `mirel` command line as a child process on a library.
#include "tests/support/mcp_process.h"

#include <memory>

namespace mirel::test {

struct Ran {
    int status;
    std::string out, err;
};

// Started with `arguments`, `input` on its standard input, then closed.
inline std::unique_ptr<McpProcess> startMirel(const std::filesystem::path& home, std::vector<std::string> arguments,
                                              const std::map<std::string, std::string>& env = {}, const std::string& input = "") {
    arguments.insert(arguments.begin(), MIREL_HOST_BINARY);
    auto mirel = std::make_unique<McpProcess>(home, env, arguments);
    mirel->sendRaw(input);
    mirel->closeInput();
    return mirel;
}

// Run to its end with `input` on standard input.
inline Ran runMirel(const std::filesystem::path& home, std::vector<std::string> arguments, const std::string& input = "",
                    const std::map<std::string, std::string>& env = {}) {
    const auto mirel = startMirel(home, std::move(arguments), env, input);
    std::string out = mirel->readToEnd();
    const int status = mirel->waitForExit();
    return {status, std::move(out), mirel->standardError()};
}

}  // namespace mirel::test
