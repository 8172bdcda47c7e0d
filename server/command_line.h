#pragma once
// mirel-server's command line: the options of the serving program, or an
// administration command on the same data folder.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace mirel::server {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ServeOptions {
    std::string host = "127.0.0.1";
    int port = 8787;  // 0: any free port
    std::optional<std::string> publicURL;
    bool uploads = true;
    std::uint64_t maxJSONBytes = 16ull << 20;
    std::uint64_t maxBlobBytes = 64ull << 20;
    double urlLifetime = 900;
    std::size_t maxEventStreams = 64;
};

struct Invocation {
    bool help = false;
    std::filesystem::path data;
    ServeOptions serve;
    std::vector<std::string> command;  // empty: serve
};

// Throws UsageError.
Invocation parseCommandLine(const std::vector<std::string>& arguments);

extern const char* const kUsage;

}  // namespace mirel::server
