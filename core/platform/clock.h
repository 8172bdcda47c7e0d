#pragma once
// The one seam for time and fresh ids, so tests can pin them.
#include <optional>
#include <string>

namespace mirel {

// Seconds since 1970-01-01 00:00:00 UTC, with fraction: how dates are kept.
using Date = double;

namespace Clock {
Date now();
// Pins now() to a fixed date (tests); nullopt releases it.
void pin(std::optional<Date> date);
}  // namespace Clock

// A new random version 4 UUID, lower case, 36 characters.
std::string newID();

}  // namespace mirel
