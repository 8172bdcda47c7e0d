#include "core/sync/sync_status.h"

#include <ctime>

namespace mirel {

namespace {

template <typename... Cases>
struct Visitor : Cases... {
    using Cases::operator()...;
};
template <typename... Cases>
Visitor(Cases...) -> Visitor<Cases...>;

// "2025-05-01 14:03:07" in the local time zone.
std::string localTime(Date date) {
    const std::time_t seconds = static_cast<std::time_t>(date);
    std::tm parts{};
    if (!localtime_r(&seconds, &parts)) return "?";
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return std::string(text, length);
}

}  // namespace

std::string_view SyncStatus::name() const {
    static constexpr std::string_view names[] = {"idle",      "offline", "failed",
                                                 "signedOut", "syncing", "sessionExpired"};
    return names[value_.index()];
}

std::string SyncStatus::description() const {
    return std::visit(
        Visitor{
            [](const Idle& idle) -> std::string {
                if (!idle.lastSync) return "Up to date";
                return "Up to date (last sync " + localTime(*idle.lastSync) + ")";
            },
            [](const Offline& offline) -> std::string { return "Offline: " + offline.reason; },
            [](const Failed& failed) -> std::string { return "Sync failed: " + failed.message; },
            [](const SignedOut&) -> std::string { return "Signed out"; },
            [](const Syncing&) -> std::string { return "Syncing…"; },
            [](const SessionExpired&) -> std::string {
                return "Your session has expired. Sign in again to keep syncing.";
            },
        },
        value_);
}

}  // namespace mirel
