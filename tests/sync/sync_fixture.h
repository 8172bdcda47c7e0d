#pragma once
// A library on disk with verbs for the sync side's tests: shared rows seeded
// in a chosen ledger state, remote objects written as JSON text.
#include "core/store/capture_store.h"
#include "tests/support/store_access.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

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

    // What a write left in the database, read past the store's decoders: NULL or nothing without the row.
    SQLValue readColumn(const std::string& table, const std::string& id, const std::string& column) {
        const auto rows = db().query("SELECT " + column + " AS v FROM " + table + " WHERE id = ?;", {SQLValue(id)});
        return rows.empty() ? SQLValue::null() : *rows.front().value("v");
    }
    std::optional<std::string> text(const std::string& table, const std::string& id, const std::string& column) {
        const SQLValue v = readColumn(table, id, column);
        return v.isText() ? std::optional(v.asText()) : std::nullopt;
    }
    std::int64_t integer(const std::string& table, const std::string& id, const std::string& column) {
        const SQLValue v = readColumn(table, id, column);
        return v.isInt() ? v.asInt() : -1;
    }
    std::set<std::string> pendingKeys(const std::string& table, const std::string& id) {
        return CaptureStore::pendingFields(text(table, id, "pending"));
    }
    std::string syncStateOf(const std::string& table, const std::string& id) {
        return text(table, id, "sync_state").value_or("");
    }
    bool rowExists(const std::string& table, const std::string& id) { return !readColumn(table, id, "id").isNull(); }
    std::int64_t countRows(const std::string& table) {
        return db().query("SELECT COUNT(*) AS n FROM " + table + ";").front().intValue("n").value_or(-1);
    }
};

}  // namespace mirel::test
