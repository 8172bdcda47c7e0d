#include "core/platform/clock.h"

#include <uuid/uuid.h>

#include <atomic>
#include <chrono>

namespace mirel {

namespace {
std::atomic<bool> pinned{false};
std::atomic<Date> pinnedDate{0};
}  // namespace

Date Clock::now() {
    if (pinned.load()) return pinnedDate.load();
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since).count();
}

void Clock::pin(std::optional<Date> date) {
    if (date) pinnedDate.store(*date);
    pinned.store(date.has_value());
}

std::string newID() {
    uuid_t raw;
    uuid_generate_random(raw);
    char text[37];
    uuid_unparse_lower(raw, text);
    return std::string(text);
}

}  // namespace mirel
