// Collects short "radar" messages by message type, one text per type into
// which later messages are appended with ";", and hands them over as one
// radar report when due (a priority-4 message makes it due at once).
//
// Written from the worker thread or directly from a Binder thread under the
// service lock, dumped from a Binder thread: the public operations take
// mLock; the policy's call-backs run with it held.
#ifndef VYMM_WRITERS_MEDIA_EXCEPTION_LOG_WRITER_H
#define VYMM_WRITERS_MEDIA_EXCEPTION_LOG_WRITER_H

#include <stddef.h>
#include <stdint.h>

#include <utils/KeyedVector.h>
#include <utils/String8.h>

#include "writers/MediaLogBase.h"

namespace android {

// Heading of the exception writers' dumps.
constexpr char EXCEPTION_LOG_DUMP_HEAD[] = "\n---------ExceptionLog Record Begin---------\n";

class MediaExceptionLogWriter : public MediaLogBase {
public:
    explicit MediaExceptionLogWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaExceptionLogWriter() override;

    // Kept below the cap; a priority-4 message is kept even when full.
    void WriteLogMsg(int prior, int type, String8 msg);
    // Sends now when anything is held; the argument is not used.
    void ForceLogSend(int type);
    // The service's forced send: DoSendMediaLog under mLock.
    void SendMediaLog();
    // Forgets the text of type without uncharging it; true when there was one.
    bool IsRemoveMediaLogKey(int type);

    // Builds mLogBody from the texts of types 0 to 15; fd is not used.
    void GetMediaLogbody(int fd) override REQUIRES(mLock);
    // Hands the radar report to the base's validation and starts over.
    bool DoSendMediaLog() override REQUIRES(mLock);
    void ResetLogMem() override REQUIRES(mLock);
    String8 DumpText() override;
    WriterStats GetStats() override EXCLUDES(mLock);

    void GetMemInfos(int* cur, int* max) override REQUIRES(mLock);
    void GetLastTime(long* lastTime, long* cycle) override REQUIRES(mLock);
    void GetLogPrior(int* prior) override REQUIRES(mLock);

protected:
    void EncodeState(StateWriter* out) override REQUIRES(mLock);
    bool ApplyOperation(uint8_t kind, StateReader& op) override;

    // Priority of the last message offered, kept or not.
    int32_t mPrior GUARDED_BY(mLock) = -1;
    // Cap of mLogMemSize, the total length of the stored texts.
    static constexpr size_t MAX_LOG_MEM_SIZE = 512;
    // Text by message type. Types outside 0 to 15 are charged but never read back.
    DefaultKeyedVector<int, String8> mLogMsgs GUARDED_BY(mLock);
};

}  // namespace android

#endif
