#pragma once
// A library on disk with the clock pinned, the store on it, and a second
// connection that shows rows as they lie.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>


namespace mirel::test {

inline constexpr Date kNow = 1717000000;

class StoreTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(kNow); }
    void TearDown() override { Clock::pin(std::nullopt); }

    // Filed through the store at kSeedDate; a shared one in workspace "ws",
    // acknowledged so that nothing waits.
    Capture filed(const std::string& note = "A capture", bool shared = false) {
        Capture c = makeCapture(note);
        if (shared) c.workspaceID = "ws";
        store.insert(c);
        if (shared) store.markSynced("captures", c.id, 1);
        return *store.capture(c.id);
    }
    // One stored value as text: "NULL", a number as printed by %.10g, or the text.
    std::string cell(const std::string& table, const std::string& id, const std::string& column) {
        const auto rows = raw.query("SELECT CASE typeof(" + column + ") WHEN 'text' THEN " + column + " WHEN 'null' THEN 'NULL' "
                                    "ELSE printf('%.10g', " + column + ") END AS v FROM " + table + " WHERE id = ?;", {id});
        return rows.empty() ? "NULL" : rows.front().string("v").value_or("NULL");
    }
    std::string pending(const std::string& table, const std::string& id) {
        std::string out;
        for (const auto& field : CaptureStore::pendingFields(cell(table, id, "pending"))) out += (out.empty() ? "" : " ") + field;
        return cell(table, id, "sync_state") + " {" + out + "}";
    }

    TempLibrary library;
    CaptureStore store{library.databasePath()};
    Database raw{library.databasePath()};
};

}  // namespace mirel::test
