#pragma once
// Reading single columns straight from the database, so that store tests can
// check what a write left behind without going through the store's decoders.
#include "core/store/database.h"

#include <optional>
#include <set>
#include <string>

namespace mirel::test {

// The value of `column` in the row of `table` with that id; NULL when no row.
SQLValue readColumn(Database& db, const std::string& table, const std::string& id, const std::string& column);
std::optional<std::string> readText(Database& db, const std::string& table, const std::string& id,
                                    const std::string& column);
// The keys of the row's `pending` object (empty for NULL or no row).
std::set<std::string> pendingKeys(Database& db, const std::string& table, const std::string& id);
// The row's `sync_state` ("" when no row).
std::string syncStateOf(Database& db, const std::string& table, const std::string& id);
bool rowExists(Database& db, const std::string& table, const std::string& id);
std::int64_t countRows(Database& db, const std::string& sqlCount, const std::vector<SQLValue>& values = {});

}  // namespace mirel::test
