#pragma once
// A library on disk with verbs for the sync side's tests: shared rows seeded
// in a chosen ledger state, remote objects written as JSON text.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel::test {

inline constexpr const char* kWorkspace = "ws-1";

class SyncStoreTest : public ::testing::Test {
protected:
    TempLibrary library;
    CaptureStore store{library.databasePath()};

    Database& db() { return store.database(); }

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

    std::optional<std::string> text(const std::string& table, const std::string& id, const std::string& column) {
        return readText(db(), table, id, column);
    }
    std::int64_t integer(const std::string& table, const std::string& id, const std::string& column) {
        const SQLValue v = readColumn(db(), table, id, column);
        return v.isInt() ? v.asInt() : -1;
    }
};

}  // namespace mirel::test
