#pragma once
// The rows the server writes on its own: a capture's history lines (the
// `activity` records every device shows) and the conflict notes that keep a
// losing edit readable beside the value that stood.
#include "server/accounts.h"
#include "server/records.h"

#include <string>
#include <vector>

namespace mirel::server::History {

void captureCreated(Connection& db, const StoredRecord& capture, const User& author);
// `before` holds the previous values of the fields that this change altered.
void captureChanged(Connection& db, const StoredRecord& capture, const Json& before, const User& author);
void commentAdded(Connection& db, const StoredRecord& comment, const User& author);

// A comment of kind "conflict" on the capture, listing the pushed values that
// did not replace newer ones; the caller saves it.
StoredRecord conflictNote(const std::string& workspaceID, const std::string& captureID,
                          const std::vector<std::pair<std::string, Json>>& losingValues, const User& author);

}  // namespace mirel::server::History
