#include "tests/support/store_probe.h"

namespace mirel::test {

std::int64_t countRows(Database& db, const std::string& sqlCount, const std::vector<SQLValue>& values) {
    const auto rows = db.query(sqlCount, values);
    if (rows.empty() || rows.front().columnNames().empty()) return -1;
    return rows.front().intValue(rows.front().columnNames().front()).value_or(-1);
}

}  // namespace mirel::test
