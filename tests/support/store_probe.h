#pragma once
#include "core/store/database.h"

namespace mirel::test {

// The first column of the first row of a COUNT query; -1 without one.
std::int64_t countRows(Database& db, const std::string& sqlCount, const std::vector<SQLValue>& values = {});

}  // namespace mirel::test
