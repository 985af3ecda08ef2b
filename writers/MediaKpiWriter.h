// Turns key performance indicators into report events, two integer
// parameters each, named by event id. Holds no records: mLogMemSize counts
// the events sent in the current upload cycle (8 units each) and caps them.
//
// Written from the service's worker thread: the public operations take mLock;
// the policy's call-backs run with it held.
#ifndef VYMM_WRITERS_MEDIA_KPI_WRITER_H
#define VYMM_WRITERS_MEDIA_KPI_WRITER_H

#include <stddef.h>
#include <stdint.h>

#include <utils/String8.h>
#include <utils/Vector.h>

#include "common/LogRateLimiter.h"
#include "writers/MediaLogBase.h"

namespace android {

// One KPI as text "eventId=subType:value".
struct MediaKpi {
    int32_t eventId;
    int32_t subType;
    int32_t value;
};

class MediaKpiWriter : public MediaLogBase {
public:
    explicit MediaKpiWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaKpiWriter() override;

    // Checks the form of one KPI text, logging what is wrong with it. It
    // sends nothing: its parts never reach AddOneKpi.
    void WriteKpis(const String8& kpis);
    // Appends the KPI when all three texts are decimal numbers from 0 to
    // INT32_MAX, blanks around them allowed; else leaves list as it is.
    void AddOneKpi(Vector<MediaKpi>& list, const String8& eventId, const String8& subType,
                   const String8& value);
    // One report event per KPI whose event id has parameter names.
    void SendKpis(Vector<MediaKpi>& list) REQUIRES(mLock);

    // Opens the next cycle's allowance; uploads nothing.
    bool DoSendMediaLog() override REQUIRES(mLock);
    void SendMediaLog();
    void TriggerLog();
    void ResetLogMem() override REQUIRES(mLock);
    // Holds no records: its charge counts the events of this cycle.
    WriterStats GetStats() override EXCLUDES(mLock);

    void GetMemInfos(int* cur, int* max) override REQUIRES(mLock);
    void GetLastTime(long* lastTime, long* cycle) override REQUIRES(mLock);

protected:
    // Cap of mLogMemSize: 256 events a cycle.
    static constexpr size_t MAX_KPI_SIZE = 2048;
    // Two names per event id from 916019001 on: the sub-type's, then the value's.
    static constexpr const char* mKpiParamNames[14] = {
        "SupportsL",     "SupportsH",            // 916019001
        "ProtocolType",  "Supports",             // 916019002
        "LatencyType",   "LatencyTime",          // 916019003
        "ResourceType",  "ResourceConsumption",  // 916019004
        "ResourceType",  "ResourceLoad",         // 916019005
        "PowerType",     "PowerConsumption",     // 916019006
        "StabilityType", "TestResult",           // 916019007
    };

    // The line about a malformed text: any client can send them by the thousand.
    LogRateLimiter mBadKpiLog;
};

}  // namespace android

#endif
