#pragma once
// A library on disk with verbs for the sync side's tests: shared rows seeded
// in a chosen ledger state, remote objects written as JSON text.
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "tests/support/store_access.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace mirel::test {

inline constexpr const char* kWorkspace = "ws-1";

class SyncStoreTest : public ::testing::Test {
protected:
    TempLibrary library;
    CaptureStore store{library.databasePath()};

    Database& db() { return CaptureStoreTestAccess::database(store); }

    static Json object(const std::string& jsonText) { return *parseJSON(jsonText); }

    // A capture of the workspace in the given ledger state.
    Capture seedShared(const std::string& note = "Local", const std::string& syncState = "synced",
                       const std::optional<std::string>& pending = std::nullopt) {
        Capture c = makeCapture(note);
        c.workspaceID = kWorkspace;
        seedCaptureRow(db(), c);
        setLedger("captures", c.id, syncState, pending);
        return c;
    }

    void setLedger(const std::string& table, const std::string& id, const std::string& syncState,
                   const std::optional<std::string>& pending) {
        setColumn(db(), table, id, "sync_state", SQLValue(syncState));
        setColumn(db(), table, id, "pending", SQLValue::string(pending));
    }

    // Columns of one row as they lie, joined by "|"; "" without the row.
    std::string cells(const std::string& table, const std::string& id, const std::string& columns) {
        const auto rows = db().query("SELECT " + columns + " FROM " + table + " WHERE id = ?;", {SQLValue(id)});
        if (rows.empty()) return "";
        std::vector<std::string> out;
        for (const std::string& column : rows.front().columnNames()) out.push_back(cellText(column, *rows.front().value(column)));
        return join(out, "|");
    }
    // NULL, a number as %.15g, the text, or for `pending` its names as "{a,b}".
    static std::string cellText(const std::string& column, const SQLValue& v) {
        if (column == "pending") return names(CaptureStore::pendingFields(v.isText() ? std::optional(v.asText()) : std::nullopt));
        if (v.isNull()) return "NULL";
        if (v.isText()) return v.asText();
        char number[32];
        std::snprintf(number, sizeof number, "%.15g", v.isInt() ? double(v.asInt()) : v.asDouble());
        return number;
    }
    static std::string names(const std::set<std::string>& set) { return "{" + join(set, ",") + "}"; }
    std::optional<std::string> text(const std::string& table, const std::string& id, const std::string& column) {
        const auto rows = db().query("SELECT " + column + " AS v FROM " + table + " WHERE id = ?;", {SQLValue(id)});
        return rows.empty() ? std::nullopt : rows.front().string("v");
    }
    bool rowExists(const std::string& table, const std::string& id) { return !cells(table, id, "id").empty(); }
    std::int64_t countRows(const std::string& table) {
        return db().query("SELECT COUNT(*) AS n FROM " + table + ";").front().intValue("n").value_or(-1);
    }
};

}  // namespace mirel::test
