// The one send policy that all writers share. Each time a writer has taken in
// data it hands itself over (MediaLogBase::TriggerLogStrategy); the policy
// decides from the writer's own limits whether to flush its memory to its
// record file and whether to upload now, and calls back into the writer.
//
// Entered with the judged writer's mutex held, on whatever thread that writer
// runs. mLock guards only mLogBase and is never held across a call-back, so
// writers on different threads never judge each other. mLogBase is weak:
// every writer holds the policy, so a strong back-reference would keep the
// last judged writer and the policy alive for ever.
#ifndef VYMM_WRITERS_MEDIA_MONITOR_POLICY_H
#define VYMM_WRITERS_MEDIA_MONITOR_POLICY_H

#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include "writers/MediaLogBase.h"

namespace android {

class MediaMonitorPolicy : public RefBase {
public:
    MediaMonitorPolicy();
    ~MediaMonitorPolicy() override;

    // Judges writer (and remembers it as mLogBase until the next call): flushes a
    // file-based writer at its memory cap, then uploads when due. Returns the
    // writer's DoSendMediaLog result after an upload, else false.
    bool TriggerLogSendPolicy(const sp<MediaLogBase>& writer);

    // The operations below judge or drive the last writer handed over
    // (mLogBase); when it is gone they answer false and do nothing.
    bool IsNeedSendLog();
    bool IsNeedWriteToFile();
    // Calls the writer's WriteToFile, then its ResetLogMem.
    void WriteToFile();
    bool DoSendMediaLog();

    // Per-kind send tests. Times and cycle are monotonic nanoseconds; a
    // lastTime of -1 means never due by time.
    bool IsExceptionNeedSend(long lastTime, long cycle);
    bool IsBDNeedSend(long lastTime, long cycle);
    bool IsExceptionLogNeedSend(long lastTime, long cycle);
    bool IsKpiNeedSend(long lastTime, long cycle);
    bool IsBigDataNeedSend(long lastTime, long cycle);

protected:
    Mutex mLock;
    wp<MediaLogBase> mLogBase GUARDED_BY(mLock);

private:
    sp<MediaLogBase> CurrentWriter();

    static bool IsNeedSendLog(const sp<MediaLogBase>& writer);
    static bool IsNeedWriteToFile(const sp<MediaLogBase>& writer);
    static void WriteToFile(const sp<MediaLogBase>& writer);
    static bool IsExceptionNeedSend(const sp<MediaLogBase>& writer, long lastTime, long cycle);
    static bool IsBDNeedSend(const sp<MediaLogBase>& writer, long lastTime, long cycle);
    static bool IsCycleElapsed(const sp<MediaLogBase>& writer, long lastTime, long cycle,
                               const char* dueMessage);
};

}  // namespace android

#endif
