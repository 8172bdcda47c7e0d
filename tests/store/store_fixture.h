#pragma once
// A library on disk with the clock pinned, the store on it, and a second
// connection that shows rows as they lie.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <cstdio>

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
    // One stored value as text: "NULL", a number as printed by %g, or the text.
    std::string cell(const std::string& table, const std::string& id, const std::string& column) {
        const auto rows = raw.query("SELECT " + column + " AS v FROM " + table + " WHERE id = ?;", {id});
        const SQLValue* v = rows.empty() ? nullptr : rows.front().value("v");
        if (!v || v->isNull()) return "NULL";
        if (v->isText()) return v->asText();
        char number[32];
        std::snprintf(number, sizeof number, "%.10g", v->isInt() ? double(v->asInt()) : v->asDouble());
        return number;
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
