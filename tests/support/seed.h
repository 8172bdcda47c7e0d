#pragma once
// Plain records with a fresh id and sensible values, for tests to adjust and
// hand to the store.
#include "core/store/records.h"

#include <string>

namespace mirel::test {

// 2024-05-01 00:00:00 UTC, the date the builders use unless told otherwise.
inline constexpr Date kSeedDate = 1714521600.0;

// A live local capture with a screenshot ("2024/05/{id}.png", 800×600, 12345
// bytes) and a thumbnail; without `withImage` a text-only issue.
Capture makeCapture(const std::string& note = "A capture", Date createdAt = kSeedDate, bool withImage = true);
// An image of `captureID` at `position` (< 0: the next free one), 800×600.
CaptureImage makeImage(const std::string& captureID, std::int64_t position = -1, Date createdAt = kSeedDate);
// A comment by a person, or by an agent when `isAgent`.
Comment makeComment(const std::string& captureID, const std::string& body, const std::string& author = "Ada",
                    bool isAgent = false, Date createdAt = kSeedDate);

}  // namespace mirel::test
