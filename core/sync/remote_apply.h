#pragma once
// Shared pieces of the remote apply: reading untrusted objects and building
// the column lists that the field-by-field rule produces.
#include "core/platform/json.h"
#include "core/store/row.h"
#include "core/store/sql_value.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace mirel::RemoteApply {

// A string value as it stands, even empty; absent for any other kind.
std::optional<std::string> stringAt(const Json& object, std::string_view key);

// Whether a server-given id may name a row here. Ids end up in file names
// (images are stored as "YYYY/MM/{id}.ext") and in URL path segments, so only
// 1 to 128 ASCII letters, digits, '-' and '_' are taken.
bool isSafeID(std::string_view id);

// stringAt, kept only when it is a safe id.
std::optional<std::string> safeIDAt(const Json& object, std::string_view key);

// The pending set that protects a row's fields from a remote value: only a row
// in pendingPush has one, read from its `pending` column.
std::set<std::string> protectedFields(const Row& row);

// Columns and their values, in order, for one UPDATE or INSERT.
class Assignments {
public:
    void add(std::string column, SQLValue value) {
        columns_.push_back(std::move(column));
        values_.push_back(std::move(value));
    }
    // Adds the column unless its ledger name is in `pending`.
    void addUnless(const std::set<std::string>& pending, const std::string& name, std::string column,
                   SQLValue value) {
        if (!pending.count(name)) add(std::move(column), std::move(value));
    }
    // Drops the assignments that would write what `stored` already holds, so
    // that an unchanged echo writes nothing.
    void dropUnchanged(const Row& stored);
    bool empty() const { return columns_.empty(); }
    // "UPDATE {table} SET a = ?, b = ? WHERE id = ?;"; the values with the id last.
    std::string updateSQL(const std::string& table) const;
    std::vector<SQLValue> updateValues(const std::string& id) const;
    // "INSERT INTO {table} (a, b) VALUES (?,?);" with the leading columns first.
    std::string insertSQL(const std::string& table) const;
    const std::vector<SQLValue>& values() const { return values_; }

private:
    std::vector<std::string> columns_;
    std::vector<SQLValue> values_;
};

}  // namespace mirel::RemoteApply
