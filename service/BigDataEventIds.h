// The big-data event ids that the service itself routes: the audio
// statistics it caches between flushes and the one it holds until asked.
#ifndef VYMM_SERVICE_BIG_DATA_EVENT_IDS_H
#define VYMM_SERVICE_BIG_DATA_EVENT_IDS_H

#include <stdint.h>

namespace android {

constexpr int32_t BIGDATA_ID_STREAM_VOLUME = 916600001;  // one slot per stream
constexpr int32_t BIGDATA_ID_FIRST_PKG = 916600002;      // one slot per id up to ...
constexpr int32_t BIGDATA_ID_USAGE = 916600007;          // (also one slot per usage)
constexpr int32_t BIGDATA_ID_LAST_PKG = 916600008;       // ... this one
constexpr int32_t BIGDATA_ID_PLAY_STATUS = 916600009;
constexpr int32_t BIGDATA_ID_HELD = 916600030;

}  // namespace android

#endif
