// The scheduling rules of the sync engine, with a stand-in run that waits as
// a network call would and with intervals of milliseconds.
#include "core/sync/run_scheduler.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

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
        asio::co_spawn(
            strand_,
            [delay, step]() -> asio::awaitable<void> {
                co_await sleepFor(delay);
                step();
            },
            asio::detached);
    }
    void drive() {
        asio::co_spawn(strand_, scheduler_->syncNow(), asio::detached);
    }
    // Runs the loop until no work is left; fails if that takes `limit`.
    void runUntilIdle(std::chrono::milliseconds limit = 3000ms) {
        io_.run_for(limit);
        EXPECT_TRUE(io_.stopped()) << "work still pending after " << limit.count() << " ms";
        io_.restart();
    }

    struct Run {
        Clock::time_point start, end;
        bool cutShort = false;
    };
    asio::awaitable<void> fakeRun() {
        Run run{Clock::now(), {}, false};
        ++inside_;
        maxInside_ = std::max(maxInside_, inside_);
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
    std::vector<Run> runs_;
    int inside_ = 0, maxInside_ = 0;
};

TEST_F(RunSchedulerTest, WithoutSessionNothingRunsAndNothingWaits) {
    signedIn_ = false;
    auto& scheduler = make({.pause = 1h, .debounce = 1h});
    at(0ms, [&] {
        scheduler.start();
        scheduler.noteLocalChange();
    });
    drive();
    runUntilIdle();
    EXPECT_TRUE(runs_.empty());
    EXPECT_FALSE(scheduler.isStarted());
}

TEST_F(RunSchedulerTest, RequestsDuringARunReturnAtOnceAndCostOneFurtherRun) {
    auto& scheduler = make({});
    runLength_ = 60ms;
    drive();
    int returned = 0;
    for (int i = 0; i < 3; ++i) {
        at(10ms, [&] {
            asio::co_spawn(strand_, scheduler.syncNow(), [&](std::exception_ptr) {
                if (inside_ == 1 && runs_.empty()) ++returned;  // back while the first run goes on
            });
        });
    }
    runUntilIdle();
    EXPECT_EQ(returned, 3);
    ASSERT_EQ(runs_.size(), 2u);
    EXPECT_EQ(maxInside_, 1);
    EXPECT_FALSE(scheduler.isSyncing());
}

TEST_F(RunSchedulerTest, ABurstOfLocalChangesGivesOneRunADebounceAfterTheLast) {
    auto& scheduler = make({.debounce = 40ms});
    for (int i = 0; i < 10; ++i) at(std::chrono::milliseconds(i * 3), [&] { scheduler.noteLocalChange(); });
    const auto lastChange = Clock::now() + 27ms;
    runUntilIdle();
    ASSERT_EQ(runs_.size(), 1u);
    EXPECT_GE(runs_[0].start - lastChange, 35ms);
}

TEST_F(RunSchedulerTest, AChangeDuringADebouncedRunDoesNotCutItShortButFollowsIt) {
    auto& scheduler = make({.debounce = 5ms});
    runLength_ = 50ms;
    at(0ms, [&] { scheduler.noteLocalChange(); });
    at(25ms, [&] { scheduler.noteLocalChange(); });
    runUntilIdle();
    ASSERT_EQ(runs_.size(), 2u);
    EXPECT_FALSE(runs_[0].cutShort);
    EXPECT_FALSE(runs_[1].cutShort);
}

TEST_F(RunSchedulerTest, PeriodicRunsArePausedFromTheEndOfOneToTheStartOfTheNext) {
    auto& scheduler = make({.pause = 25ms});
    runLength_ = 10ms;
    at(0ms, [&] { scheduler.start(); });
    at(200ms, [&] { scheduler.stop(); });
    runUntilIdle();
    ASSERT_GE(runs_.size(), 3u);
    EXPECT_LE(runs_.size(), 7u);
    for (std::size_t i = 1; i < runs_.size(); ++i) EXPECT_GE(runs_[i].start - runs_[i - 1].end, 24ms);
}

TEST_F(RunSchedulerTest, StopCutsShortTheRunsOfItsTasksAndNoneFollows) {
    auto& scheduler = make({.pause = 1h, .debounce = 5ms});
    runLength_ = 1h;
    at(0ms, [&] { scheduler.start(); });
    at(20ms, [&] {
        scheduler.stop();
        scheduler.noteLocalChange();  // a debounced run, stopped in its turn below
    });
    at(60ms, [&] { scheduler.stop(); });
    runUntilIdle();
    ASSERT_EQ(runs_.size(), 2u);
    EXPECT_TRUE(runs_[0].cutShort);
    EXPECT_TRUE(runs_[1].cutShort);
    EXPECT_FALSE(scheduler.isSyncing() || scheduler.isStarted());
}

TEST_F(RunSchedulerTest, StartTwiceGivesOneTaskAndTasksEndOnceTheirOwnerIsGone) {
    auto& scheduler = make({.pause = 10ms, .debounce = 10ms});
    at(0ms, [&] {
        scheduler.start();
        scheduler.start();
        scheduler.noteLocalChange();
    });
    at(2ms, [&] { owner_.reset(); });
    runUntilIdle();
    EXPECT_EQ(runs_.size(), 1u);  // the one periodic run, which began at once
}

}  // namespace
}  // namespace mirel
