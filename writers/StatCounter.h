// Counters of what the service has done since start, for its statistics
// dump. Bumped on the paths they count and read by a dump on another thread:
// relaxed atomics, which imply no order between two counters and take no
// lock, or plain fields where the counting path holds a lock anyway.
#ifndef VYMM_WRITERS_STAT_COUNTER_H
#define VYMM_WRITERS_STAT_COUNTER_H

#include <stdint.h>

#include <atomic>

namespace android {

// Off only in the copy of the core that the entry-point benchmark builds as
// its baseline, so that the counters' cost can be measured: there they count
// nothing.
#ifdef VYMM_STATS_OFF
constexpr bool kCountStats = false;
#else
constexpr bool kCountStats = true;
#endif

class StatCounter {
public:
    void Add(uint64_t n = 1) {
        if (kCountStats) {
            mValue.fetch_add(n, std::memory_order_relaxed);
        }
    }
    // Keeps the largest value seen.
    void Raise(uint64_t value) {
        uint64_t seen = mValue.load(std::memory_order_relaxed);
        while (kCountStats && value > seen &&
               !mValue.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
        }
    }
    void Set(uint64_t value) {
        if (kCountStats) {
            mValue.store(value, std::memory_order_relaxed);
        }
    }
    uint64_t Get() const { return mValue.load(std::memory_order_relaxed); }
    void Reset() { mValue.store(0, std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> mValue{0};
};

// The same, for a counter that a lock already guards: a plain field.
class LockedCounter {
public:
    void Add(uint64_t n = 1) {
        if (kCountStats) {
            mValue += n;
        }
    }
    // Takes back n of what was added.
    void Sub(uint64_t n) {
        if (kCountStats) {
            mValue -= n;
        }
    }
    void Raise(uint64_t value) {
        if (kCountStats && value > mValue) {
            mValue = value;
        }
    }
    uint64_t Get() const { return mValue; }

private:
    uint64_t mValue = 0;
};

}  // namespace android

#endif
