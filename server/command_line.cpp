#include "server/command_line.h"

#include <charconv>

namespace mirel::server {

const char* const kUsage =
    "usage: mirel-server --data DIR [--listen HOST:PORT] [--public-url URL] [--no-uploads]\n"
    "                    [--max-json-mb N] [--max-blob-mb N] [--url-lifetime SECONDS] [--max-streams N]\n"
    "       mirel-server --data DIR user add EMAIL --name NAME        (password on standard input)\n"
    "       mirel-server --data DIR user password EMAIL               (password on standard input)\n"
    "       mirel-server --data DIR user list\n"
    "       mirel-server --data DIR workspace add SLUG --name NAME [--member EMAIL...] [--owner EMAIL...]\n"
    "       mirel-server --data DIR workspace add-member SLUG EMAIL... [--owner]\n"
    "       mirel-server --data DIR workspace remove-member SLUG EMAIL...\n"
    "       mirel-server --data DIR workspace list\n"
    "       mirel-server --data DIR approve USER_CODE --user EMAIL\n"
    "\n"
    "Serves the Mirel sync API on HOST:PORT (default 127.0.0.1:8787; port 0 picks a free one)\n"
    "and keeps everything in DIR: server.sqlite, blobs/ and url-signing.key.\n";

namespace {

std::uint64_t number(const std::string& option, const std::string& text, std::uint64_t most) {
    std::uint64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > most) {
        throw UsageError(option + " takes a whole number from 1 to " + std::to_string(most));
    }
    return value;
}

void parseListen(const std::string& text, ServeOptions& options) {
    auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) throw UsageError("--listen takes HOST:PORT, such as 127.0.0.1:8787");
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string port = text.substr(colon + 1);
    options.host = host;
    options.port = port == "0" ? 0 : static_cast<int>(number("--listen's port", port, 65535));
}

}  // namespace

Invocation parseCommandLine(const std::vector<std::string>& arguments) {
    Invocation invocation;
    bool hasData = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= arguments.size()) throw UsageError(argument + " needs a value");
            return arguments[++i];
        };
        if (!invocation.command.empty()) {
            invocation.command.push_back(argument);
        } else if (argument == "--help" || argument == "-h") {
            invocation.help = true;
        } else if (argument == "--data") {
            invocation.data = value();
            hasData = true;
        } else if (argument == "--listen") {
            parseListen(value(), invocation.serve);
        } else if (argument == "--public-url") {
            std::string url = value();
            while (!url.empty() && url.back() == '/') url.pop_back();
            if (url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0) {
                throw UsageError("--public-url takes an http:// or https:// address");
            }
            invocation.serve.publicURL = url;
        } else if (argument == "--no-uploads") {
            invocation.serve.uploads = false;
        } else if (argument == "--max-json-mb") {
            invocation.serve.maxJSONBytes = number(argument, value(), 1024) << 20;
        } else if (argument == "--max-blob-mb") {
            invocation.serve.maxBlobBytes = number(argument, value(), 4096) << 20;
        } else if (argument == "--url-lifetime") {
            invocation.serve.urlLifetime = static_cast<double>(number(argument, value(), 7 * 86400));
        } else if (argument == "--max-streams") {
            invocation.serve.maxEventStreams = number(argument, value(), 1000);
        } else if (argument.rfind("--", 0) == 0) {
            throw UsageError("unknown option " + argument);
        } else {
            invocation.command.push_back(argument);
        }
    }
    if (!invocation.help && !hasData) throw UsageError("--data DIR is required");
    return invocation;
}

}  // namespace mirel::server
