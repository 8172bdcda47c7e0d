#include "core/sync/sync_status.h"
#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

#include <ctime>

namespace mirel {

TEST(SyncStatus, OneLineForPeopleInEachCase) {
    test::ScopedEnv env;
    env.set("TZ", "UTC");
    tzset();
    const std::pair<SyncStatus, const char*> cases[] = {
        {SyncStatus::idle(std::nullopt), "Up to date"},
        {SyncStatus::idle(1714566600.75), "Up to date (last sync 2024-05-01 12:30:00)"},
        {SyncStatus::offline("Couldn't connect to server"), "Offline: Couldn't connect to server"},
        {SyncStatus::failed("Server error 500"), "Sync failed: Server error 500"},
        {SyncStatus::signedOut(), "Signed out"},
        {SyncStatus::syncing(), "Syncing…"},
        {SyncStatus::sessionExpired(), "Your session has expired. Sign in again to keep syncing."},
    };
    for (const auto& [status, expected] : cases) EXPECT_EQ(status.description(), expected) << status.name();
}

}  // namespace mirel
