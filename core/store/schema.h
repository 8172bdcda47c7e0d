#pragma once
#include "core/store/database.h"

namespace mirel::Schema {

inline constexpr int currentVersion = 5;

// Brings an empty file or any older library to the current version, kept in
// user_version. A library of version 5 or later is left untouched. Throws the
// DatabaseError of the statement that failed.
void migrate(Database& db);

}  // namespace mirel::Schema
