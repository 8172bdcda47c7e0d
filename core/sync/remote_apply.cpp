#include "core/sync/remote_apply.h"

#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/sql_lists.h"
#include "core/sync/wire.h"

namespace mirel::RemoteApply {

std::optional<std::string> stringAt(const Json& object, std::string_view key) {
    const Json& value = Wire::field(object, key);
    if (!value.is_string()) return std::nullopt;
    return value.get<std::string>();
}

bool isSafeID(std::string_view id) {
    if (id.empty() || id.size() > 128) return false;
    for (const char c : id) {
        const bool fits = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                          c == '_';
        if (!fits) return false;
    }
    return true;
}

std::optional<std::string> safeIDAt(const Json& object, std::string_view key) {
    std::optional<std::string> id = stringAt(object, key);
    if (!id || !isSafeID(*id)) return std::nullopt;
    return id;
}

std::set<std::string> protectedFields(const Row& row) {
    if (row.string("sync_state") != std::optional<std::string>("pendingPush")) return {};
    return CaptureStore::pendingFields(row.string("pending"));
}

void Assignments::dropUnchanged(const Row& stored) {
    std::vector<std::string> columns;
    std::vector<SQLValue> values;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const SQLValue* current = stored.value(columns_[i]);
        if (current && *current == values_[i]) continue;
        columns.push_back(std::move(columns_[i]));
        values.push_back(std::move(values_[i]));
    }
    columns_ = std::move(columns);
    values_ = std::move(values);
}

std::string Assignments::updateSQL(const std::string& table) const {
    std::vector<std::string> parts;
    parts.reserve(columns_.size());
    for (const std::string& column : columns_) parts.push_back(column + " = ?");
    return "UPDATE " + table + " SET " + join(parts, ", ") + " WHERE id = ?;";
}

std::vector<SQLValue> Assignments::updateValues(const std::string& id) const {
    std::vector<SQLValue> bound = values_;
    bound.emplace_back(id);
    return bound;
}

std::string Assignments::insertSQL(const std::string& table) const {
    return "INSERT INTO " + table + " (" + join(columns_, ", ") + ") VALUES (" + placeholders(columns_.size()) + ");";
}

}  // namespace mirel::RemoteApply
