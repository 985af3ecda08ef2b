#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "writers/LogRateLimiter.h"

using android::LogRateLimiter;

namespace {

nsecs_t Now() { return systemTime(SYSTEM_TIME_MONOTONIC); }

// Kept for threads racing for one line, which no single-line fault models.
TEST(LogRateLimiterTest, LetsOneLinePerPeriodThroughAcrossThreads) {
    const nsecs_t period = milliseconds_to_nanoseconds(20);
    const size_t wanted = 4;
    const nsecs_t start = Now();
    LogRateLimiter limiter(period);
    std::atomic<size_t> allowed{0};
    ASSERT_TRUE(limiter.Allow()) << "the first line passes";
    ++allowed;
    EXPECT_FALSE(limiter.Allow());

    // Two threads ask without pause until enough periods have let lines through.
    const nsecs_t deadline = start + seconds_to_nanoseconds(10);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (allowed < wanted && Now() < deadline) {
                allowed += limiter.Allow();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const nsecs_t elapsed = Now() - start;
    EXPECT_GE(allowed, wanted) << "lines pass again after each period";
    EXPECT_LE(allowed, static_cast<size_t>(elapsed / period) + 1);
}

}  // namespace
