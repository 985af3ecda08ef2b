#define LOG_TAG "limiter_test"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogRateLimiter.h"
#include "support/LogCapture.h"

using android::LogRateLimiter;

namespace {

nsecs_t Now() { return systemTime(SYSTEM_TIME_MONOTONIC); }

TEST(LogRateLimiterTest, PassesABurstThenAFewASecondAndCountsWhatItHeldBack) {
    constexpr int kBurst = 3;
    constexpr int kPerSecond = 50;  // one line every 20 ms
    const nsecs_t start = Now();
    LogRateLimiter limiter(kBurst, kPerSecond);
    size_t heldBack = 99;
    for (int i = 0; i < kBurst; ++i) {
        ASSERT_TRUE(limiter.Allow(&heldBack)) << "line " << i << " of the burst";
        EXPECT_EQ(heldBack, 0u);
    }
    EXPECT_FALSE(limiter.Allow());
    EXPECT_FALSE(limiter.Allow());

    // Two threads ask without pause until enough intervals have let lines through.
    const size_t wanted = 4;
    const nsecs_t deadline = start + seconds_to_nanoseconds(10);
    std::atomic<size_t> allowed{0};
    std::atomic<size_t> reported{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (allowed < wanted && Now() < deadline) {
                size_t count = 0;
                if (limiter.Allow(&count)) {
                    ++allowed;
                    reported += count;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const nsecs_t elapsed = Now() - start;
    EXPECT_GE(allowed, wanted) << "lines pass again after each interval";
    EXPECT_LE(allowed, static_cast<size_t>(elapsed / milliseconds_to_nanoseconds(20)) + 1);
    // The next line let through reports what the last ones held back.
    size_t last = 0;
    while (!limiter.Allow(&last) && Now() < deadline) {
    }
    EXPECT_EQ(reported + last, limiter.Suppressed()) << "every refused line is reported once";
}

TEST(LogRateLimiterTest, TheLineAfterOneHeldBackSaysSo) {
    LogCapture log;
    LogRateLimiter limiter(1, 2);  // one line, then one every 500 ms
    ALOG_LIMITED(limiter, ANDROID_LOG_INFO, "first");
    ALOG_LIMITED(limiter, ANDROID_LOG_INFO, "held back");
    // Past the interval, whatever the clock's phase: the limiter's own time,
    // no other thread to wait for.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    ALOG_LIMITED(limiter, ANDROID_LOG_INFO, "after");
    std::vector<std::string> lines;
    for (const LogLine& line : log.Lines()) {
        if (line.tag == LOG_TAG) {
            lines.push_back(line.message);
        }
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"first", "1 similar lines suppressed", "after"}));
}

}  // namespace
