#pragma once
// Dates on the wire: ISO 8601 in UTC with milliseconds, "2024-05-01T09:30:00.250Z".
#include "core/platform/clock.h"

#include <optional>
#include <string>
#include <string_view>

namespace mirel::server {

std::string isoDate(Date date);
// Accepts that form, with any number of fraction digits or none, and with "Z"
// or a "+hh:mm"/"-hh:mm" offset. Anything else is absent.
std::optional<Date> parseISODate(std::string_view text);

}  // namespace mirel::server
