// Two processes, one of them with two threads, writing the same library at once: the
// busy time-out must absorb the contention, and the library stay whole.
#include "core/store/capture_store.h"
#include "tests/support/store_access.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace mirel {
namespace {

constexpr int kRounds = 60;

// One writer's share of the work: its own captures through the whole
// lifecycle, and edits of the one capture that both writers touch.
void writeRounds(CaptureStore& store, const std::string& shared, const std::string& who) {
    for (int i = 0; i < kRounds; ++i) {
        Capture c = test::makeCapture(who + " " + std::to_string(i));
        c.workspaceID = "ws-1";
        store.insert(c);
        store.claim(c.id, who);
        store.addComment(test::makeComment(c.id, "note " + std::to_string(i), who));
        store.resolve(c.id, "ref", who);
        store.setTags({who, "round"}, c.id);
        store.setStatus(shared, i % 2 ? CaptureStatus::open : CaptureStatus::inProgress, who);
        store.recordActivity(shared, "updated", who, who, newID(), Clock::now(), std::nullopt, false);
    }
}

// The child writes through one store; the parent through one store shared by two threads.
TEST(ConcurrencyTest, TwoProcessesAndTwoThreadsWriteTheSameLibrary) {
    test::TempLibrary library;
    std::string shared;
    {  // made and closed before any fork, so no process inherits an open connection to the file
        CaptureStore store(library.databasePath());
        Capture c = test::makeCapture("shared");
        c.workspaceID = "ws-1";
        store.insert(c);
        shared = c.id;
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int status = 0;
        try {
            CaptureStore store(library.databasePath());
            writeRounds(store, shared, "child");
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child writer failed: %s\n", error.what());
            status = 1;
        }
        _exit(status);  // leave the parent's test harness alone
    }
    CaptureStore store(library.databasePath());
    std::vector<std::string> failures(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            try {
                writeRounds(store, shared, "thread" + std::to_string(t));
            } catch (const std::exception& error) {
                failures[t] = error.what();
            }
        });
    for (auto& thread : threads) thread.join();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(failures, std::vector<std::string>(2));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    // Every write of every writer is there: captures (one each, all resolved),
    // comments, tags, their created/claimed/resolved lines, and a status and an
    // edit line per round on the shared one, all waiting to be sent.
    Database& db = CaptureStoreTestAccess::database(store);
    EXPECT_EQ(db.query("PRAGMA integrity_check;").front().string("integrity_check"), "ok");
    const auto n = [&](int count) { return std::to_string(count * 3 * kRounds); };
    EXPECT_EQ(db.query("SELECT (SELECT COUNT(*) FROM captures) || ' ' || (SELECT COUNT(*) FROM captures WHERE status = 'resolved') "
                       "|| ' ' || (SELECT COUNT(*) FROM comments) || ' ' || (SELECT COUNT(*) FROM capture_tags) || ' ' || "
                       "(SELECT COUNT(*) FROM activity WHERE capture_id != ?1) || ' ' || (SELECT COUNT(*) FROM activity "
                       "WHERE capture_id = ?1) || ' ' || (SELECT COUNT(*) FROM captures WHERE sync_state != 'pendingPush') AS n;",
                       {SQLValue(shared)}).at(0).string("n"),
              std::to_string(1 + 3 * kRounds) + " " + n(1) + " " + n(1) + " " + n(2) + " " + n(3) + " " +
                  std::to_string(1 + 2 * 3 * kRounds) + " 0");
}

}  // namespace
}  // namespace mirel
