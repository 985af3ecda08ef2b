// Keeps a log line that a client can provoke at will (a refusal by a bound)
// from becoming a flood of its own. Takes no lock: any thread may ask, with
// or without its own locks held.
#ifndef VYMM_WRITERS_LOG_RATE_LIMITER_H
#define VYMM_WRITERS_LOG_RATE_LIMITER_H

#include <atomic>

#include <utils/Timers.h>

namespace android {

// Lets a log line through at most once per period (monotonic clock); safe from any thread.
class LogRateLimiter {
public:
    // The first call is let through.
    explicit LogRateLimiter(nsecs_t period = seconds_to_nanoseconds(1))
        : mPeriod(period), mLastAllowed(systemTime(SYSTEM_TIME_MONOTONIC) - period) {}

    bool Allow() {  // true at most once per period
        const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        nsecs_t last = mLastAllowed.load(std::memory_order_relaxed);
        // A failed exchange reloads last: another thread has just been let through.
        while (now - last >= mPeriod) {
            if (mLastAllowed.compare_exchange_weak(last, now, std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }

private:
    const nsecs_t mPeriod;
    std::atomic<nsecs_t> mLastAllowed;  // monotonic time of the last line let through
};

}  // namespace android

#endif
