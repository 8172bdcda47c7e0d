#pragma once
// Builders and seeding verbs for tests. The seed* functions INSERT rows with
// plain SQL, so a test of a read (or of a tool, or of the server) does not
// depend on the store's own write operations being right. Every column of the
// record is written as it stands; `pending` is left NULL.
//
// Typical use:
//     TempLibrary library;
//     CaptureStore store(library.databasePath());
//     auto c = makeCapture("Button is clipped\nOn the settings page");
//     c.priority = CapturePriority::high;
//     seedCaptureRow(CaptureStoreTestAccess::database(store), c);
//     seedComment(CaptureStoreTestAccess::database(store), makeComment(c.id, "Looking at it"));
#include "core/store/database.h"
#include "core/store/records.h"

#include <string>

namespace mirel::test {

// A fixed date (2024-05-01 00:00:00 UTC) that builders use unless told otherwise.
inline constexpr Date kSeedDate = 1714521600.0;

// ---- Builders: plain records with a fresh id and sensible values ----

// A live, local capture with a screenshot ("2024/05/{id}.png", 800×600,
// 12345 bytes) and a thumbnail; created and updated at `createdAt`.
// Pass `withImage` false for a text-only issue (empty imagePath, no thumb,
// capture mode `text`).
Capture makeCapture(const std::string& note = "A capture", Date createdAt = kSeedDate,
                    bool withImage = true);

// An image of `captureID` at `position`, "2024/05/{id}.png", 800×600.
CaptureImage makeImage(const std::string& captureID, std::int64_t position = 0,
                       Date createdAt = kSeedDate);

// A live local group, made at kSeedDate.
CaptureGroup makeGroup(const std::string& name, const std::optional<std::string>& workspaceID = {});

// A comment by a person ("Ada"), or by an agent when `isAgent`.
Comment makeComment(const std::string& captureID, const std::string& body,
                    const std::string& author = "Ada", bool isAgent = false,
                    Date createdAt = kSeedDate);

// ---- Seeding verbs: raw INSERTs, one row each ----

void seedCaptureRow(Database& db, const Capture& capture);
void seedImageRow(Database& db, const CaptureImage& image);
void seedGroupRow(Database& db, const CaptureGroup& group);
void seedComment(Database& db, const Comment& comment);

// Overwrites one column of one row by id, with any value, including ones the
// store would never write (NULL in a NOT NULL-less column, a number in a text
// column, an unknown enumeration word). `table` and `column` are trusted.
void setColumn(Database& db, const std::string& table, const std::string& id,
               const std::string& column, const SQLValue& value);

}  // namespace mirel::test
