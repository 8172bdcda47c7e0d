#pragma once
#include "core/store/database.h"

#include <string_view>

namespace mirel::Schema {

inline constexpr int currentVersion = 5;

// Brings an empty file or any older library to the current version, kept in
// user_version. A library of version 5 or later is left untouched. Throws the
// DatabaseError of the statement that failed.
void migrate(Database& db);

// The whole SQL text of one migration step, 1 to currentVersion; empty for any
// other number. Step n brings a library from version n - 1 to n.
std::string_view stepSQL(int step);

}  // namespace mirel::Schema
