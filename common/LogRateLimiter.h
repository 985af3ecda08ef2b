// Keeps a log line that a client can provoke at will (a refusal, a parse
// failure) from becoming a flood of its own: a burst passes as it comes, then
// a few lines a second, and the next line let through is preceded by one
// saying how many were held back. Takes no lock: any thread may ask, with or
// without its own locks held. One limiter per kind of line.
#ifndef VYMM_COMMON_LOG_RATE_LIMITER_H
#define VYMM_COMMON_LOG_RATE_LIMITER_H

#include <stddef.h>

#include <algorithm>
#include <atomic>

#include <log/log.h>
#include <utils/Timers.h>

namespace android {

class LogRateLimiter {
public:
    static constexpr int BURST = 32;      // lines that pass at once
    static constexpr int PER_SECOND = 4;  // then at most this many a second

    explicit LogRateLimiter(int burst = BURST, int perSecond = PER_SECOND)
        : mInterval(seconds_to_nanoseconds(1) / perSecond),
          mBurstSpan(mInterval * burst),
          mNextFree(systemTime(SYSTEM_TIME_MONOTONIC)) {}

    // True when a line may be logged. *heldBack (when given) is the number of
    // lines refused since the last one let through, for the caller to report.
    bool Allow(size_t* heldBack = nullptr) {
        const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        // mNextFree runs ahead of now by one interval per recent line; a
        // line passes while that lead stays within the burst.
        nsecs_t next = mNextFree.load(std::memory_order_relaxed);
        nsecs_t wanted;
        do {
            wanted = std::max(next, now) + mInterval;
            if (wanted - now > mBurstSpan) {
                mPending.fetch_add(1, std::memory_order_relaxed);
                mSuppressed.fetch_add(1, std::memory_order_relaxed);
                return false;
            }
        } while (!mNextFree.compare_exchange_weak(next, wanted, std::memory_order_relaxed));
        const size_t pending = mPending.exchange(0, std::memory_order_relaxed);
        if (heldBack != nullptr) {
            *heldBack = pending;
        }
        return true;
    }

    // Lines refused since construction.
    size_t Suppressed() const { return mSuppressed.load(std::memory_order_relaxed); }

private:
    const nsecs_t mInterval;
    const nsecs_t mBurstSpan;
    std::atomic<nsecs_t> mNextFree;  // monotonic time at which the bucket is full again
    std::atomic<size_t> mPending{0};  // refused since the last line let through
    std::atomic<size_t> mSuppressed{0};
};

}  // namespace android

// Logs through limiter at priority under the file's LOG_TAG; a line let
// through after some were held back is preceded by their count.
#define ALOG_LIMITED(limiter, priority, ...)                                          \
    do {                                                                              \
        size_t heldBack_ = 0;                                                         \
        if ((limiter).Allow(&heldBack_)) {                                            \
            if (heldBack_ > 0) {                                                      \
                LOG_PRI(ANDROID_LOG_WARN, LOG_TAG, "%zu similar lines suppressed",    \
                        heldBack_);                                                   \
            }                                                                         \
            LOG_PRI(priority, LOG_TAG, __VA_ARGS__);                                  \
        }                                                                             \
    } while (0)

#endif
