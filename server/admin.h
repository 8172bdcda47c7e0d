#pragma once
// Administration on the data folder: users, workspaces and their members, and
// approving a device's sign-in code from a script.
#include "server/storage.h"

#include <string>
#include <vector>

namespace mirel::server {

// Runs one command (the words after the options). Prints what it did on
// standard output. Throws UsageError or AccountError.
void runAdminCommand(Storage& storage, const std::vector<std::string>& words);

}  // namespace mirel::server
