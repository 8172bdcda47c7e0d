// The scheduling rules of the sync engine, with a stand-in run that waits as
// a network call would and with intervals of milliseconds.
#include "core/sync/run_scheduler.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include <gtest/gtest.h>

namespace mirel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class RunSchedulerTest : public ::testing::Test {
protected:
    RunScheduler& make(SyncIntervals intervals) {
        scheduler_ = std::make_unique<RunScheduler>(
            strand_, intervals, [this] { return fakeRun(); }, [this] { return signedIn_; }, owner_);
        return *scheduler_;
    }
    // Runs `step` on the executor after `delay`.
    void at(std::chrono::milliseconds delay, std::function<void()> step) {
        const auto later = [delay, step]() -> asio::awaitable<void> {
            co_await sleepFor(delay);
            step();
        };
        asio::co_spawn(strand_, later, asio::detached);
    }
    // Runs the loop until no work is left; fails if that takes seconds.
    void runUntilIdle() {
        io_.run_for(3s);
        EXPECT_TRUE(io_.stopped()) << "work still pending";
        io_.restart();
    }

    struct Run {
        Clock::time_point start, end;
        bool cutShort = false;
    };
    asio::awaitable<void> fakeRun() {
        Run run{Clock::now(), {}};
        maxInside_ = std::max(maxInside_, ++inside_);
        if (onRun_) onRun_();
        if (runLength_ > 0ms) run.cutShort = !co_await sleepFor(runLength_);
        --inside_;
        run.end = Clock::now();
        runs_.push_back(run);
    }

    asio::io_context io_;
    SerialExecutor strand_{asio::any_io_executor(io_.get_executor())};
    std::shared_ptr<int> owner_ = std::make_shared<int>(0);
    std::unique_ptr<RunScheduler> scheduler_;
    bool signedIn_ = true;
    std::chrono::milliseconds runLength_{0};
    std::function<void()> onRun_;  // at the start of each run
    std::vector<Run> runs_;
    int inside_ = 0, maxInside_ = 0;
};

TEST_F(RunSchedulerTest, RequestsDuringARunReturnAtOnceAndCostOneFurtherRun) {
    auto& scheduler = make({});
    runLength_ = 60ms;
    asio::co_spawn(strand_, scheduler.syncNow(), asio::detached);
    int returned = 0;
    onRun_ = [&] {
        for (int i = 0; i < 3 && runs_.empty(); ++i) {
            asio::co_spawn(strand_, scheduler.syncNow(), [&](std::exception_ptr) {
                returned += inside_ == 1 && runs_.empty();  // back while the first run goes on
            });
        }
    };
    runUntilIdle();
    EXPECT_EQ(returned, 3);
    EXPECT_EQ(runs_.size(), 2u);
    EXPECT_EQ(maxInside_, 1);
    EXPECT_FALSE(scheduler.isSyncing());
}

// The change during the run comes due before the run ends.
TEST_F(RunSchedulerTest, ABurstOfChangesGivesOneRunADebounceAfterTheLastAndAChangeDuringItFollowsIt) {
    auto& scheduler = make({.debounce = 40ms});
    runLength_ = 60ms;
    for (int i = 0; i < 10; ++i) at(std::chrono::milliseconds(i * 3), [&] { scheduler.noteLocalChange(); });
    const auto lastChange = Clock::now() + 27ms;
    onRun_ = [&] {
        if (runs_.empty()) scheduler.noteLocalChange();
    };
    runUntilIdle();
    ASSERT_EQ(runs_.size(), 2u);
    EXPECT_GE(runs_[0].start - lastChange, 35ms);
    EXPECT_FALSE(runs_[0].cutShort || runs_[1].cutShort);
}

TEST_F(RunSchedulerTest, PeriodicRunsArePausedFromTheEndOfOneToTheStartOfTheNext) {
    auto& scheduler = make({.pause = 25ms});
    runLength_ = 10ms;
    scheduler.start();
    at(200ms, [&] { scheduler.stop(); });
    runUntilIdle();
    ASSERT_GE(runs_.size(), 3u);
    EXPECT_LE(runs_.size(), 7u);
    for (std::size_t i = 1; i < runs_.size(); ++i) EXPECT_GE(runs_[i].start - runs_[i - 1].end, 24ms);
}

TEST_F(RunSchedulerTest, StopCutsShortTheRunsOfItsTasksAndNoneFollows) {
    auto& scheduler = make({.pause = 1h, .debounce = 5ms});
    runLength_ = 1h;
    scheduler.start();
    at(20ms, [&] {
        scheduler.stop();
        scheduler.noteLocalChange();  // a debounced run, stopped in its turn below
    });
    at(60ms, [&] { scheduler.stop(); });
    runUntilIdle();
    ASSERT_EQ(runs_.size(), 2u);
    EXPECT_TRUE(runs_[0].cutShort && runs_[1].cutShort);
    EXPECT_FALSE(scheduler.isSyncing() || scheduler.isStarted());
}

TEST_F(RunSchedulerTest, NothingRunsWithoutSessionAndTasksEndOnceTheirOwnerIsGone) {
    signedIn_ = false;
    make({.pause = 1h, .debounce = 1h}).start();
    scheduler_->noteLocalChange();
    asio::co_spawn(strand_, scheduler_->syncNow(), asio::detached);
    runUntilIdle();
    EXPECT_TRUE(runs_.empty());
    EXPECT_FALSE(scheduler_->isStarted());

    signedIn_ = true;
    auto& scheduler = make({.pause = 10ms, .debounce = 10ms});
    scheduler.start();
    scheduler.start();
    scheduler.noteLocalChange();
    at(2ms, [&] { owner_.reset(); });
    runUntilIdle();
    EXPECT_EQ(runs_.size(), 1u);  // the one periodic run, which began at once
}

}  // namespace
}  // namespace mirel
