// The event ids that WriteBigData(int, const char*, int, int) stores: each
// becomes one report event of an upload.
#ifndef VYMM_BENCH_BIG_DATA_IDS_H
#define VYMM_BENCH_BIG_DATA_IDS_H

#include <iterator>

#include <utils/String8.h>

namespace vymm_bench {

// Counters keyed by the call's text (packages, stream types, devices).
constexpr int kCounterIds[] = {916019101, 916019102, 916019103, 916019201,
                               916019202, 916019203, 916019301, 916300001,
                               916300002, 916400001, 916600020};
// Key/value records.
constexpr int kRecordIds[] = {916220004, 916220005, 916220007, 916600040, 916700010,
                              916700012, 918017001, 918017007, 990982018, 990982019};

// The k-th of a spread of counters over the counter ids: its id and its key.
inline int CounterId(int k) { return kCounterIds[k % std::size(kCounterIds)]; }
inline android::String8 CounterKey(int k) {
    return android::String8::format("com.example.package%d", k);
}

}  // namespace vymm_bench

#endif
