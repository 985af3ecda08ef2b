// Base of every log writer: the upload cycle and debug switch read from the
// properties, the memory charge and last send time that the send policy
// judges, and the virtual interface through which the service and the
// policy drive a writer.
//
// The base takes no lock. A writer's public write operations take its mutex
// (`mLock`, or a mutex of the writer's own) and end in TriggerLogStrategy
// with it held, so the policy's call-backs (WriteToFile, DoSendMediaLog,
// ResetLogMem and the getters) must not take it again.
#ifndef VYMM_WRITERS_MEDIA_LOG_BASE_H
#define VYMM_WRITERS_MEDIA_LOG_BASE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <initializer_list>

#include <utils/Errors.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/String8.h>
#include <utils/Timers.h>

#include "writers/WriterStats.h"
#include "writers/WriterStore.h"
#include "common/LogRateLimiter.h"

namespace android {

class MediaMonitorPolicy;

// Writer types, the value of mWriterType; the send policy switches on them.
enum : int32_t {
    LOG_TYPE_EXCEPTION_LOG = 1,
    LOG_TYPE_BD_FLOW = 2,
    LOG_TYPE_BD_COUNT = 3,
    LOG_TYPE_EXCEPTION = 4,
    LOG_TYPE_KPI = 5,
    LOG_TYPE_BIGDATA = 6,
};

// Record files, relative to the working directory as on the device.
constexpr char BD_FLOW_FILE[] = "data/log/mediaBDflow.log";
constexpr char BD_COUNT_FILE[] = "data/log/mediaBDcont.log";
// A record file's size cap in bytes.
constexpr size_t MAX_RECORD_FILE_SIZE = 2097152;

class MediaLogBase : public RefBase {
public:
    // One flow-file record.
    struct BigData {
        int32_t pid;
        int32_t type;
        int32_t reserved;  // always 0, never printed
        String8 time;
        String8 appName;
        String8 msg;
    };

    // A null policy is kept as null; the writer then never triggers it.
    explicit MediaLogBase(const sp<MediaMonitorPolicy>& policy);
    ~MediaLogBase() override;

    // Slots 1 to 10 of the writer interface; the base does nothing, and its
    // getters leave their out-arguments untouched, so callers pre-set them.
    virtual void WriteToFile() {}
    // Flushes memory to the record file; when the file then has content,
    // closes fd and appends the file's text to mLogBody. Else fd stays open.
    virtual void GetMediaLogbody(int fd);
    // Uploads what the writer holds; true when an upload was carried out.
    virtual bool DoSendMediaLog() { return false; }
    // Writes DumpText() to fd in one write, unless fd is negative.
    virtual void Dump(int fd);
    virtual void ResetLogMem() {}
    // The record file, or null for a writer without one.
    virtual const char* GetFilePath() { return nullptr; }
    virtual void GetMemInfos(int* /*cur*/, int* /*max*/) {}
    virtual void GetFileInfos(int* /*max*/) {}
    // Both in nanoseconds of the monotonic clock; a lastTime of -1 means
    // the writer is never due by time.
    virtual void GetLastTime(long* /*lastTime*/, long* /*cycle*/) {}
    virtual void GetLogPrior(int* /*prior*/) {}

    // What the writer holds now and has done; takes the writer's mutex. The
    // base holds nothing of its own.
    virtual WriterStats GetStats() { return StatsHolding(0, 0); }
    void ResetStats() { mCounters.Reset(); }
    // What Dump writes: the writer's state as text, rendered under the
    // writer's own lock, which is released before anyone writes it out.
    virtual String8 DumpText() { return String8(); }

    // Reads ro.media.debuggable and ro.media.uploadduration.
    void GetDefault();

    // Durable state, when the service keeps it. Recover replays what a store
    // held (the snapshot's records, then the journal's operations through the
    // writer's own methods) on the starting thread, before AttachStore; from
    // then on the writer journals what it takes in and the worker writes it
    // out with TakePersistWork at the end of each batch. store outlives the
    // writer's use of it and is only written on the worker (or the shutdown).
    void Recover(const WriterStore::Contents& contents);
    void AttachStore(WriterStore* store);
    struct PersistWork {
        bool snapshot = false;  // bytes is a snapshot's payload, else operations
        std::string bytes;
    };
    // Takes the writer's lock. Empty when nothing changed.
    PersistWork TakePersistWork();
    // The next TakePersistWork writes a snapshot.
    void RequestSnapshot();

    // Validation only: UNKNOWN_ERROR when a checked text is null, else 0.
    // The text they compose is never kept or sent.
    status_t WriteLogExceptionMsg(const char* a, int b, const char* c, const char* d);
    status_t WriteLogExceptionMsg(const char* a, int b, const char* c, const char* d,
                                  const char* e);
    status_t WriteLogExceptionCmd(const char* a, const char* b);

    // Local time as "%m-%d %H:%M:%S", or empty when it cannot be converted.
    String8 GetFormattedCurrentTime();
    // The process name of pid, "Unknow App" when unreadable, empty for pid -1.
    String8 GetAppNameByPid(int pid);
    void SetCurFileSize(long* size);
    // Hands this writer to the send policy; the caller holds the writer's mutex.
    void TriggerLogStrategy();

protected:
    friend class MediaMonitorPolicy;

    // Shared bodies of the writers' getters. On a null pointer they log
    // "<where> fail, ptr is null" at warning priority under tag (the writer's
    // LOG_TAG, where its "Class::Method") and write nothing.
    static bool AnyNullPtr(const char* tag, const char* where,
                           std::initializer_list<const void*> ptrs);
    void ReportMemInfos(const char* tag, const char* where, int* cur, int* max, size_t cap);
    void ReportLastTime(const char* tag, const char* where, long* lastTime, long* cycle);
    // Writes all of text to fd in one write, as a dump must; write's result.
    static ssize_t WriteText(int fd, const String8& text);
    // The counters with what the writer holds now; the caller holds its mutex.
    WriterStats StatsHolding(size_t records, size_t cap, size_t bytes = 0,
                             size_t byteLimit = 0) const;
    // Opens a record file as OpenOwnFile does (open(2)'s flags and mode),
    // counting and logging what it replaced or had to skip. -1 when skipped.
    int OpenRecordPath(const char* path, int flags, mode_t mode);
    // The lock that guards the writer's records (mLock unless it has its own).
    virtual Mutex& WriterLock() { return mLock; }
    // The writer's records as operations that ApplyOperation can replay, with
    // the writer's lock held.
    virtual void EncodeState(StateWriter* /*out*/) {}
    // Replays one operation of kind (1 and up) through the writer's own
    // methods, taking the writer's lock as they do; false when not understood.
    virtual bool ApplyOperation(uint8_t /*kind*/, StateReader& /*op*/) { return false; }
    // Size of the record file now, -1 for a writer without one; lock held.
    virtual int64_t RecordFileSize() { return -1; }
    // With the writer's lock held: an empty operation to fill and hand to
    // Journal, its buffer reused from event to event.
    StateWriter& NewOp();
    // With the writer's lock held: journal one operation (kind first).
    void Journal(const StateWriter& op);
    // With the writer's lock held: the records changed otherwise than by a
    // journalled operation (a flush, a reset), so the next batch snapshots.
    void StateChanged();
    // With the writer's lock held, on the worker, around an upload of records
    // to the reporting library: the journal marks the upload begun, and the
    // state after it is snapshotted at once, so that a death in between is
    // known at start-up as an upload in doubt.
    void BeginUpload();
    void EndUpload();

    // Moves mLastSendTime on by one cycle, so that uploads stay on the cycle's
    // grid rather than drifting to "now". A cycle may be up to 2^31 seconds:
    // past the clock's range the writer is simply never due.
    void AdvanceLastSendTime();

    // Set by GetDefault at construction.
    nsecs_t globalMediaLogCycleDuration;
    bool mDebuggable;

    // Constant separators and the radar-report header.
    const String8 mNewLine;
    const String8 mSemicolon;
    const String8 mAt;
    const String8 mRadarHead;

    // Owned by the writer, touched under its mutex.
    String8 mLogBody;  // an upload's text, read by its debug line alone
    size_t mLogMemSize;       // in the writer's own unit (bytes or a count)
    nsecs_t mLastSendTime;    // monotonic; -1: not due by time
    int32_t mWriterType;      // one of LOG_TYPE_*
    long mCurFileSize;        // bytes of the record file, as last measured

    // Bumped under the writer's mutex, read without it.
    WriterCounters mCounters;

    // The writer's mutex. The base never takes it.
    Mutex mLock;

    const sp<MediaMonitorPolicy> mPolicy;

    // The log cuts a line at 1024 bytes, so more of a record file (up to
    // MAX_RECORD_FILE_SIZE) would never be seen; read whole, it was a
    // transient block big enough to raise the allocator's trim threshold.
    static constexpr size_t MAX_RECORD_FILE_READ = 1024;

private:
    // Appends the head of this writer's record file, at most
    // MAX_RECORD_FILE_READ bytes, to mLogBody.
    void AppendRecordFile();

    // Thread-safe on its own: record paths replaced or skipped.
    LogRateLimiter mRecordPathLog;

    // The snapshot's payload: the upload grid's anchor, the record file's
    // size, then the records.
    std::string EncodePayload();
    void RestoreLastSendTime(int64_t wallNs);
    void ReplayJournal(const WriterStore::Contents& contents, int64_t fileSizeThen);
    void DiffersFromFiles();

    // Set before the writer is shared; the worker alone writes it.
    WriterStore* mStore = nullptr;
    // Guarded by WriterLock(): operations since the last batch, framed.
    std::string mPendingOps;
    StateWriter mOp;  // NewOp's
    bool mSnapshotDue = false;
    bool mRecoveryDiffers = true;  // the records are not what the files hold
    LogRateLimiter mClockLog;
};

}  // namespace android

#endif
