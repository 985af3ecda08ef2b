// Counts big-data messages per application and message type (per pid when the
// application cannot be named) and appends the counters as a record to
// "data/log/mediaBDcont.log" when the send policy flushes or uploads them.
//
// WriteBigDataMsg and the other public operations take mLock; the worker
// thread writes, Binder threads dump. The counters are guarded by mLock.
#ifndef VYMM_WRITERS_MEDIA_BD_COUNT_WRITER_H
#define VYMM_WRITERS_MEDIA_BD_COUNT_WRITER_H

#include <utils/KeyedVector.h>
#include <utils/String8.h>

#include "writers/MediaBDFileWriter.h"

namespace android {

class MediaBDCountWriter : public MediaBDFileWriter {
public:
    explicit MediaBDCountWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaBDCountWriter() override;

    // Opens the count file (see OpenRecordFile) and returns mFd, -1 on failure.
    int GetBDCountFd() EXCLUDES(mLock);
    // Counts one message of pid; dropped silently while memory is full.
    void WriteBigDataMsg(int pid, int type) EXCLUDES(mLock);

    // Count one message under its key; true when the counter is saturated
    // and nothing was counted.
    bool UpdateAndCheckBigDataCounter(String8 appName, int type) REQUIRES(mLock);
    bool UpdateAndCheckTypeCounter(int pid, int type) REQUIRES(mLock);

    void ResetLogMem() override REQUIRES(mLock);
    void GetMemInfos(int* cur, int* max) override REQUIRES(mLock);

protected:
    using TypeCounters = DefaultKeyedVector<int, unsigned int>;

    String8 FormatRecords(bool forDump) override REQUIRES(mLock);
    // Applications and pids counted.
    size_t HeldRecords() override REQUIRES(mLock) {
        return mAppCounters.size() + mPidCounters.size();
    }
    void EncodeState(StateWriter* out) override REQUIRES(mLock);
    bool ApplyOperation(uint8_t kind, StateReader& op) override;

    // Each (key, type) pair charges 4 to mLogMemSize, so 128 pairs fill it.
    KeyedVector<String8, TypeCounters> mAppCounters GUARDED_BY(mLock);
    // Applications whose name could not be read, by pid.
    KeyedVector<int, TypeCounters> mPidCounters GUARDED_BY(mLock);

private:
    // Counts one message under its application, or its pid when unnamed,
    // unless memory is full; consults the policy unless saturated.
    void Count(bool named, const String8& appName, int pid, int type) REQUIRES(mLock);
    static void EncodeKey(bool named, const String8& appName, int pid, int type,
                          StateWriter* op);
};

}  // namespace android

#endif
