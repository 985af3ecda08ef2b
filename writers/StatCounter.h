// Counters of what the service has done since start, for its statistics
// dump. Bumped on the paths they count and read by a dump on another thread,
// so they are relaxed atomics: no order is implied between two counters, and
// no lock is taken.
#ifndef VYMM_WRITERS_STAT_COUNTER_H
#define VYMM_WRITERS_STAT_COUNTER_H

#include <stdint.h>

#include <atomic>

namespace android {

class StatCounter {
public:
    void Add(uint64_t n = 1) { mValue.fetch_add(n, std::memory_order_relaxed); }
    // Keeps the largest value seen.
    void Raise(uint64_t value) {
        uint64_t seen = mValue.load(std::memory_order_relaxed);
        while (value > seen &&
               !mValue.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
        }
    }
    void Set(uint64_t value) { mValue.store(value, std::memory_order_relaxed); }
    uint64_t Get() const { return mValue.load(std::memory_order_relaxed); }
    void Reset() { Set(0); }

private:
    std::atomic<uint64_t> mValue{0};
};

}  // namespace android

#endif
