// Aggregates exception reports in memory, merged by (event id, level,
// sub-type), and uploads one report event per record once an upload cycle has
// passed since the last upload.
//
// Written from the service's worker thread, dumped from a Binder thread: the
// public operations take mLock; the policy's call-backs run with it held.
#ifndef VYMM_WRITERS_MEDIA_EXCEPTION_WRITER_H
#define VYMM_WRITERS_MEDIA_EXCEPTION_WRITER_H

#include <stddef.h>
#include <stdint.h>

#include <utils/KeyedVector.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include "common/LogRateLimiter.h"
#include "writers/MediaLogBase.h"

namespace android {

// One record: every report with the same eventId, eventLevel and subType.
struct MediaException {
    int32_t eventId = 0;  // also the id of the report event uploaded
    bool simple = true;   // only the short form has updated it
    int32_t eventLevel = 0;
    int32_t subType = 0;
    // Distinct texts with how often each was reported; sorted byte-wise.
    DefaultKeyedVector<String8, int> reason{0};
    DefaultKeyedVector<String8, int> callingApp{0};
    int32_t count = 0;  // reports merged
    // paraInt and associatedEventId are the last long-form report's;
    // paraChar counts the texts of them all.
    int32_t paraInt = -1;
    DefaultKeyedVector<String8, int> paraChar{0};
    int32_t associatedEventId = -1;
};

class MediaExceptionWriter : public MediaLogBase {
public:
    explicit MediaExceptionWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaExceptionWriter() override;

    // Short form; pid only appears in the debug line.
    void WriteException(int pid, int eventId, int eventLevel, int subType, String8 reason,
                        String8 callingApp);
    // Long form; marks the record as carrying the long-form fields.
    void WriteException(int pid, int eventId, int eventLevel, int subType, String8 reason,
                        String8 callingApp, int paraInt, String8 paraChar,
                        int associatedEventId);

    // The matching record, appended (and charged) when new; null only when
    // the list cannot grow.
    MediaException* GetExceptionObj(Vector<MediaException>& list, int eventId, int eventLevel,
                                    int subType) REQUIRES(mLock);
    // Counts one occurrence of value; an empty value is ignored, and a new one
    // that would push the table's upload string past 63 characters is dropped.
    void UpdateStringInfo(DefaultKeyedVector<String8, int>& table, String8 value)
        REQUIRES(mLock);
    // "key:count" entries in key order, joined by ";"; empty for an empty table.
    static String8 GetUploadString(const DefaultKeyedVector<String8, int>& table);

    // Uploads every record, moves mLastSendTime on by one cycle and resets.
    bool DoSendMediaLog() override REQUIRES(mLock);
    void SendMediaLog();
    void TriggerLog();
    void ResetLogMem() override REQUIRES(mLock);
    String8 DumpText() override;
    WriterStats GetStats() override EXCLUDES(mLock);

    void GetMemInfos(int* cur, int* max) override REQUIRES(mLock);
    void GetLastTime(long* lastTime, long* cycle) override REQUIRES(mLock);
    void GetLogPrior(int* prior) override REQUIRES(mLock);

protected:
    void EncodeState(StateWriter* out) override REQUIRES(mLock);
    bool ApplyOperation(uint8_t kind, StateReader& op) override;

    // Cap of mLogMemSize, which charges 12 per record, 3 plus the length per
    // distinct text and 8 per long-form report.
    static constexpr size_t MAX_EXCEPTION_LOG_SIZE = 10240;

    Vector<MediaException> mExceptions GUARDED_BY(mLock);  // in order of first report
    int32_t mPrior GUARDED_BY(mLock) = -1;                 // level of the last report kept
    LogRateLimiter mNoRecordLog;  // a report refused for want of a record

private:
    // Shared first steps of both forms: the cap, the record, its texts and
    // count. Null when the report is dropped.
    MediaException* AddReport(int eventId, int eventLevel, int subType, const String8& reason,
                              const String8& callingApp, bool longForm) REQUIRES(mLock);
    // Shared last steps: the debug line, mPrior, the charge and the policy.
    void FinishReport(const MediaException& record, size_t charge) REQUIRES(mLock);
    void LogRecord(const char* format, const MediaException& record);
};

}  // namespace android

#endif
