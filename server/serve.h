#pragma once
// Runs the server until SIGINT or SIGTERM, then lets the requests in
// progress finish and closes the event streams cleanly.
#include "server/command_line.h"

#include <filesystem>

namespace mirel::server {

// The exit status: 0 after a signal, 1 when the server can't start.
int serve(const std::filesystem::path& data, const ServeOptions& options);

}  // namespace mirel::server
