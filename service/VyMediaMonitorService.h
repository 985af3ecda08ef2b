// The media monitor service "Vymedia.monitor": media components report
// exceptions, KPI strings and big-data statistics, and tell it the audio
// state. Each call is checked, turned into an event and queued to one worker
// thread, which hands it to the writers; no caller waits for a file or an
// upload.
//
// Threads and locks, in the order in which they may be nested:
//   mLock            the entry points' lock: queue order and the cache slots.
//                    Binder threads hold it while they build and queue one
//                    event (and for the type-9 direct call to the exception
//                    log writer).
//   mAudioStateLock  the audio state; taken alone by the Monitor...
//                    operations, or inside mLock.
//   a writer's mutex taken by the writers' own entry points.
//   mQueueLock       the send thread's queue; never held with a writer's mutex.
// The capture's lock (CallCapture) is taken alone, first thing in an entry
// point, to record the call.
// mDispatchLock serialises dispatch on the worker, before a writer's mutex.
// It is never held together with mLock: a writer that uploads for seconds
// keeps only mDispatchLock, so the entry points go on queueing meanwhile.
//
// The writers, the policy and the thread are set by Init (in the constructor,
// before the service can be reached) and released by DeInit (when the last
// strong reference goes, after the thread has stopped), so they need no lock.
#ifndef VYMM_SERVICE_VY_MEDIA_MONITOR_SERVICE_H
#define VYMM_SERVICE_VY_MEDIA_MONITOR_SERVICE_H

#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <deque>
#include <memory>
#include <string>

#include <IVyMediaMonitorService.h>
#include <utils/Condition.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Thread.h>
#include <utils/Vector.h>

#include "service/MonitorStats.h"
#include "service/CallCapture.h"
#include "service/DumpSlots.h"
#include "service/WriterPersistence.h"
#include "common/LogRateLimiter.h"
#include "writers/MediaBDCountWriter.h"
#include "writers/MediaBDFlowWriter.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/MediaExceptionWriter.h"
#include "writers/MediaKpiWriter.h"
#include "writers/MediaMonitorPolicy.h"

namespace android {

class VyMediaMonitorService : public BnVyMediaMonitorService {
public:
    // What an event asks of the writers; selects its dispatch route. 0 and
    // values above 21 are never produced and are dispatched as unknown.
    enum EventType : int32_t {
        EVENT_LOG_MSG = 1,
        EVENT_BD_FLOW_MSG = 2,
        EVENT_BD_COUNT_MSG = 3,
        EVENT_BD_FLOW_COUNT_MSG = 4,
        EVENT_BD_WRITE_FILES = 5,  // produced by nothing, still served
        EVENT_WRITE_CHECK = 6,
        EVENT_EXCEPTION = 7,
        EVENT_EXCEPTION_EXT = 8,
        EVENT_KPI = 9,
        EVENT_BIGDATA = 10,
        EVENT_BIGDATA_STRING = 11,
        EVENT_BIGDATA_OUTPUT_DEVICE = 12,
        EVENT_BIGDATA_PKG = 13,
        EVENT_BIGDATA_PKG_TYPE = 14,
        EVENT_BIGDATA_PLAY_STATUS = 15,
        EVENT_FORCE_SEND = 16,
        EVENT_BIGDATA_RECORDING = 17,
        EVENT_BIGDATA_DUAL_BLUETOOTH = 18,
        EVENT_VIDEO_BIGDATA = 19,
        EVENT_VIDEO_CODEC_ERROR = 20,
        EVENT_VIDEO_CATON_VAGUE = 21,
    };

    // Events carry a call's arguments by value from a Binder thread to the
    // worker; immutable once queued. Derived events keep their payload in
    // their own fields and leave the base's pid, prior and subType at -1.
    class LogSrvEvent : public RefBase {
    public:
        // value lands in pid for a big-data file message, else in prior.
        LogSrvEvent(EventType type, int value, int subType, String8 msg, bool isBigData);

        // Bytes of the texts the event holds, which a client chooses.
        virtual size_t TextBytes() const { return msg.size(); }

        EventType type;
        int32_t pid;
        int32_t prior;
        int32_t subType;
        String8 msg;

    protected:
        explicit LogSrvEvent(EventType type);
    };

    class ExceptionEvent : public LogSrvEvent {
    public:
        // The short form leaves paraInt and associatedEventId -1, paraChar empty.
        ExceptionEvent(EventType type, int pid, int eventId, int eventLevel, int subType,
                       String8 reason, String8 callingApp);
        ExceptionEvent(EventType type, int pid, int eventId, int eventLevel, int subType,
                       String8 reason, String8 callingApp, int paraInt, String8 paraChar,
                       int associatedEventId);

        size_t TextBytes() const override {
            return reason.size() + callingApp.size() + paraChar.size();
        }

        int32_t pid;
        int32_t eventId;
        int32_t eventLevel;
        int32_t subType;
        String8 reason;
        String8 callingApp;
        int32_t paraInt;
        String8 paraChar;
        int32_t associatedEventId;
    };

    class KpiEvent : public LogSrvEvent {
    public:
        KpiEvent(EventType type, const String8& kpis);
        size_t TextBytes() const override { return kpis.size(); }

        String8 kpis;  // the whole record text, parsed by the KPI writer
    };

    // One shape for ten kinds of big-data call; each constructor fills its
    // slots and leaves the others 0 or empty. The placements are the
    // recorders' contract: the integer-list forms put their text in pkgName,
    // the three-integer form leaves para1 0, the two-text form's integer is
    // ext2.
    class BigDataEvent : public LogSrvEvent {
    public:
        BigDataEvent(EventType type, int eventId, String8 s, int a, int b);
        BigDataEvent(EventType type, int eventId, String8 s1, String8 s2, int b);
        BigDataEvent(EventType type, int eventId, String8 s1, String8 s2, int a, int b);
        BigDataEvent(EventType type, int eventId, String8 s1, String8 s2, String8 s3);
        BigDataEvent(EventType type, int eventId, String8 s1, String8 s2, String8 s3, int a);
        BigDataEvent(EventType type, int eventId, String8 s1, String8 s2, String8 s3, String8 s4);
        BigDataEvent(EventType type, int eventId, String8 s, int a, int b, int c, int d);
        BigDataEvent(EventType type, int eventId, String8 s, int b, int c, int d);

        size_t TextBytes() const override {
            return subType.size() + extStr.size() + pkgName.size() + extStr2.size() +
                   param.size();
        }

        int32_t eventId;
        String8 subType;
        int32_t ext1 = 0;
        int32_t ext2 = 0;
        String8 extStr;
        String8 pkgName;
        String8 extStr2;
        String8 param;
        int32_t para1 = 0;
        int32_t para2 = 0;
        int32_t para3 = 0;
        int32_t para4 = 0;

    private:
        BigDataEvent(EventType type, int eventId);
    };

    // The video events: fields in the order of the call's arguments.
    class VideoBigDataEvent : public LogSrvEvent {
    public:
        VideoBigDataEvent(int eventId, String8 str1, String8 str2, String8 str3, String8 str4,
                          int int1, int int2, int int3);
        size_t TextBytes() const override {
            return str1.size() + str2.size() + str3.size() + str4.size();
        }

        int32_t eventId;
        String8 str1, str2, str3, str4;
        int32_t int1, int2, int3;
    };

    class VideoMediaCodecErrorBigDataEvent : public LogSrvEvent {
    public:
        VideoMediaCodecErrorBigDataEvent(int eventId, String8 str1, String8 str2, String8 str3,
                                         String8 str4, String8 str5, int int1);
        size_t TextBytes() const override {
            return str1.size() + str2.size() + str3.size() + str4.size() + str5.size();
        }

        int32_t eventId;
        String8 str1, str2, str3, str4, str5;
        int32_t int1;
    };

    class VideoMediaCatonVagueBigDataEvent : public LogSrvEvent {
    public:
        VideoMediaCatonVagueBigDataEvent(int eventId, String8 str1, String8 str2, String8 str3,
                                         String8 str4, String8 str5, String8 str6, int int1);
        size_t TextBytes() const override {
            return str1.size() + str2.size() + str3.size() + str4.size() + str5.size() +
                   str6.size();
        }

        int32_t eventId;
        String8 str1, str2, str3, str4, str5, str6;
        int32_t int1;
    };

    // The worker: takes every event waiting on a bounded FIFO at once and
    // dispatches them to the service in order, with mQueueLock released.
    // When the queue stays empty for mWriteCheckDuration it queues a
    // write-check event of its own. It never owns the service: it holds a
    // plain pointer, valid until the service's shutdown has joined it
    // (Exit), so the service's end never runs on the worker and no event
    // is lost between two of a batch.
    // SendLogEvent and Exit run on any thread; threadLoop on its own.
    class LogSendThread : public Thread {
    public:
        explicit LogSendThread(VyMediaMonitorService* service);
        ~LogSendThread() override;

        // Queues event, or drops it when mQueueLimit events, or
        // MAX_QUEUE_BYTES, are waiting. Never waits for anything but
        // mQueueLock.
        void SendLogEvent(const sp<LogSrvEvent>& event) EXCLUDES(mQueueLock);
        // Wakes the worker to write out what a writer took in off the queue
        // (the direct type-9 message). Never waits for anything but mQueueLock.
        void Nudge() EXCLUDES(mQueueLock);
        // Stops the thread and waits for it to end; queued events, and the
        // rest of a batch cut short, stay queued for TakeQueue. Must not be
        // called on the worker itself (it would wait for itself).
        void Exit() EXCLUDES(mQueueLock);
        // The events still queued, which the caller now owns.
        std::deque<sp<LogSrvEvent>> TakeQueue() EXCLUDES(mQueueLock);

        // The queue's and the worker's part of the statistics.
        void CopyStatsTo(MonitorStats* stats) EXCLUDES(mQueueLock);
        // Zeroes them; the high-water mark starts again from the depth now.
        void ResetStats() EXCLUDES(mQueueLock);

    protected:
        // Reads the properties and starts the thread.
        void onFirstRef() override;
        // Names the thread and lowers its priority from inside it, where the
        // host's thread library would not.
        status_t readyToRun() override;
        bool threadLoop() override;

        // A client picks the length of an event's texts (up to a whole
        // transaction), so the count alone does not bound the queue. Real
        // events carry a few hundred bytes: a full queue of them is far below
        // the limit, which only stops a flood. Both bounds count what waits:
        // a batch being dispatched may hold as much again.
        static constexpr size_t MAX_QUEUE_BYTES = 2 * 1024 * 1024;
        // Charged per event besides its texts: the event and its buffers.
        static constexpr size_t QUEUE_EVENT_BYTES = 128;

        const int32_t mQueueLimit;
        Mutex mQueueLock;
        Condition mQueueCond;  // on the monotonic clock; an event was queued
        VyMediaMonitorService* const mService;  // outlives the thread
        // FIFO. Not the platform's Vector: taking from its front reallocates
        // it whenever it falls below half its capacity, which is every pop of
        // a draining backlog.
        std::deque<sp<LogSrvEvent>> mEventQueue GUARDED_BY(mQueueLock);
        size_t mQueueBytes GUARDED_BY(mQueueLock);  // as MAX_QUEUE_BYTES counts them
        bool mNudged GUARDED_BY(mQueueLock) = false;
        // Counted under mQueueLock, which every hand-off takes anyway.
        struct QueueCounters {
            LockedCounter queued[MONITOR_EVENT_TYPES];
            LockedCounter droppedFull;
            LockedCounter droppedBytes;
            LockedCounter highWater;
            LockedCounter taken;  // by the worker, in batches
        };
        QueueCounters mCounters GUARDED_BY(mQueueLock);
        // Bumped by the worker alone, for a batch's events once they have run
        // and the writers' state after them is written out (PersistBatch), so
        // that a process killed at any moment loses none of what the
        // statistics showed as dispatched. Journalling each event before it
        // runs would cost a second encoding of every event; a batch is one
        // write either way. What was taken and not yet dispatched is the
        // difference.
        StatCounter mDispatched;
        StatCounter mLongestDispatchNs;
        // Set by onFirstRef, before the thread starts.
        bool mDebuggable;
        int64_t mWriteCheckDuration;  // nanoseconds

    private:
        // Waits until an event is queued or a nudge comes, or queues a write
        // check after an idle period; false when an exit is pending instead.
        bool WaitForEvent() REQUIRES(mQueueLock);
        // Waits as WaitForEvent does, then takes all that is queued (nothing
        // when only nudged); false when an exit is pending.
        bool TakeBatch(std::deque<sp<LogSrvEvent>>* batch) EXCLUDES(mQueueLock);
        void Push(const sp<LogSrvEvent>& event, size_t bytes) REQUIRES(mQueueLock);
        // Writes out what ran events of the batch left in the writers and
        // counts them as dispatched.
        void FinishBatch(size_t ran);
        // Puts the rest of a batch cut short back at the head of the queue.
        void PutBack(std::deque<sp<LogSrvEvent>>* batch) EXCLUDES(mQueueLock);
        static size_t QueueBytes(const LogSrvEvent& event) {
            return QUEUE_EVENT_BYTES + event.TextBytes();
        }

        LogRateLimiter mQueueBytesLog;  // the refusal line, at most once a second
    };

    VyMediaMonitorService();
    ~VyMediaMonitorService() override;

    // The remote interface; operations 1 to 3 admit only CheckUid's callers.
    void ForceLogSend(int type) override;
    void WriteLogMsg(int prior, int type, const char* msg) override;
    void WriteMediaBigData(int pid, int type, const char* msg) override;
    void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                     const String8& callingApp) override;
    void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                     const String8& callingApp, int paraInt, const String8& paraChar,
                     int associatedEventId) override;
    void WriteKpis(const String8& kpis) override;
    void WriteBigData(int eventId, const char* s1, int i1, int i2) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, int i1, int i2) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, int i1) override;
    void WriteBigData(int eventId, const char* s1, int i1, int i2, int i3) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3, int i1) override;
    void WriteBigData(int eventId, const char* s1, int i1, int i2, int i3, int i4) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3, const char* s4,
                      int i1, int i2, int i3) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3, const char* s4,
                      const char* s5, int i1) override;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3, const char* s4,
                      const char* s5, const char* s6, int i1) override;
    void MonitorSetForceUse(int usage, int config) override EXCLUDES(mAudioStateLock);
    void MonitorBroadcastStream(int state, int stream) override EXCLUDES(mAudioStateLock);
    void MonitorBroadcastDevice(unsigned int device) override EXCLUDES(mAudioStateLock);
    void MonitorVolumeIndex(int source, int index, int device) override EXCLUDES(mAudioStateLock);
    void MonitorPlayingApp(const char* app) override EXCLUDES(mAudioStateLock);

    // The service's own operations, called on itself through the virtual
    // table so that a subclass may replace them.
    void onFirstRef() override {}
    // Only 916600009: stores the play-status statistic.
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                              const char* s4) EXCLUDES(mLock);
    // The cache senders queue slots; they run inside the short exception
    // form and the held-slot send, under mLock.
    virtual void SendVolumeCacheEvent(int stream) REQUIRES(mLock);
    virtual void SendCacheEvent() REQUIRES(mLock);
    // Writes the writers' dumps to fd on a debuggable device, to a caller of
    // uid 1013 or with the dump permission; args may ask for the usage or
    // the statistics instead. Always 0. Never waits on the caller with a
    // lock held: the text is rendered first, then written within
    // DUMP_TIMEOUT, in one of the DumpSlots.
    virtual status_t Dump(int fd, const Vector<String16>& args);
    virtual void GetActiveStream() REQUIRES(mLock) EXCLUDES(mAudioStateLock);
    virtual void WritePlayingStatus() EXCLUDES(mLock, mAudioStateLock);
    virtual void SendCacheEventSingle(const sp<BigDataEvent>& event) REQUIRES(mLock);

    // Every counter, and their reset (the dump's --stats and --reset-stats).
    MonitorStats GetStats();
    void ResetStats();

    // The dump transaction (what dumpsys sends) reaches Dump.
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags = 0) override;

    // Start-up, in the constructor.
    void Init();
    // The shutdown: stops the capture and joins the worker, dispatches the
    // events still queued, then has the uploading writers send what they
    // hold. Idempotent. Runs when the last strong reference goes (so the
    // object is whole, subclass included) or when called first by the
    // owner, which then waits for the uploads; never on the worker, which
    // holds no reference. No call may arrive once it has begun.
    void DeInit();
    void onLastStrongRef(const void* id) override;
    void SetupStaticTypeFlags();
    // Remove a leftover record file whose property is 0.
    void CheckLogFiles();
    void CheckBDFlowLogFiles();
    void CheckBDCountLogFiles();

    // The one way onto the queue; the caller holds mLock so that events
    // queue in the order the calls took it.
    void SendLogEventLogSrv(const sp<LogSrvEvent>& event) REQUIRES(mLock);
    // The periodic flush check of the uploading writers.
    void DoWriteCheck();

    // On the worker after each batch, and once more in the shutdown: the
    // writers' state goes to storage. Does nothing when persistence is off.
    void PersistBatch();

    // Dispatch, on the worker: one event at a time, by its type.
    void OnSrvEvent(const sp<LogSrvEvent>& event) EXCLUDES(mDispatchLock);
    void OnSrvEventOther(const sp<LogSrvEvent>& event) REQUIRES(mDispatchLock);

    // The six platform uids of the audio and media services.
    static bool CheckUid(int uid);
    // Queues a big-data file message by its type's flag; false when the type
    // is registered with a flag outside 1 to 3.
    bool CheckFlagSendLogEventLogSrv(int pid, int type, String8 msg) REQUIRES(mLock);

    // The routes: each makes its writer call when the writer exists.
    void WriteExceptionLog(const sp<LogSrvEvent>& event);
    void WriteBDFlowLog(const sp<LogSrvEvent>& event);
    void WriteBDCountLog(const sp<LogSrvEvent>& event);
    void WriteBDLogAllToFile();
    void WriteExceptionString(const sp<LogSrvEvent>& event);
    void WriteExceptionLong(const sp<LogSrvEvent>& event);
    void WriteKpisLog(const sp<LogSrvEvent>& event);
    void WriteBigDataLog(const sp<LogSrvEvent>& event);
    void WriteBigDataStringLog(const sp<LogSrvEvent>& event);
    void WriteBigDataOutPutDeviceLog(const sp<LogSrvEvent>& event);
    void WriteBigDataPkgLog(const sp<LogSrvEvent>& event);
    void WriteBigDataPkgTypeLog(const sp<LogSrvEvent>& event);
    void WriteBigDataPlayStatusLog(const sp<LogSrvEvent>& event);
    void AllWriterDoSendLog();
    void WriteBigDataPara4RecordingLog(const sp<LogSrvEvent>& event);
    void WriteBigDataDualBluetoothLog(const sp<LogSrvEvent>& event);
    void WriteVideoBigData(const sp<LogSrvEvent>& event);
    void WriteMediaCodecErrorBigData(const sp<LogSrvEvent>& event);
    void WriteMediaCatonVagueBigData(const sp<LogSrvEvent>& event);

protected:
    // Audio-state sizes: streams 0..13 have a bit in mActiveStreams, but only
    // 0..12 a volume slot; volume sources are 1..13.
    static constexpr int STREAM_VOLUME_SLOTS = 13;
    static constexpr int PKG_SLOTS = 7;  // ids 916600002 to 916600008
    static constexpr int USAGE_SLOTS = 2;
    static constexpr int VOLUME_SOURCES = 13;

    // Constant after Init.
    sp<CallCapture> mCapture;  // null unless capturing
    sp<MediaMonitorPolicy> mPolicy;
    sp<LogSendThread> mLogSendThread;
    sp<MediaExceptionLogWriter> mExceptionLogWriter;
    sp<MediaBDFlowWriter> mBDFlowWriter;
    sp<MediaBDCountWriter> mBDCountWriter;
    sp<MediaExceptionWriter> mExceptionWriter;
    sp<MediaKpiWriter> mKpiWriter;
    sp<MediaBigDataWriter> mBigDataWriter;
    std::unique_ptr<WriterPersistence> mPersistence;  // null when off
    KeyedVector<int32_t, int32_t> mStaticTypeFlags;  // big-data type -> file flag
    int32_t mRadar;
    int32_t mBDFlow;
    int32_t mBDCount;
    int32_t mException;
    int32_t mKpi;
    int32_t mBigData;
    bool mDebuggable;

    Mutex mLock;
    Mutex mAudioStateLock;
    Mutex mDispatchLock;

    CallCounters mCallCounters;

    // The cache slots: the last statistic of each kind, queued again at
    // each flush until replaced.
    sp<BigDataEvent> mStreamVolumeEvents[STREAM_VOLUME_SLOTS] GUARDED_BY(mLock);
    sp<BigDataEvent> mPkgEvents[PKG_SLOTS] GUARDED_BY(mLock);
    sp<BigDataEvent> mUsageEvents[USAGE_SLOTS] GUARDED_BY(mLock);
    sp<BigDataEvent> mPlayStatusEvent GUARDED_BY(mLock);
    sp<BigDataEvent> mHeldEvent GUARDED_BY(mLock);  // id 916600030, sent on request

    // The audio state.
    uint32_t mForceUse GUARDED_BY(mAudioStateLock);       // usage 0 high half, usage 1 low
    uint32_t mActiveStreams GUARDED_BY(mAudioStateLock);  // bit n: stream n active
    uint32_t mDevice GUARDED_BY(mAudioStateLock);         // output device bits
    // Character source - 1 is '0' + the last volume index of that source on
    // device 2 (or 1); thirteen '0' at start.
    char mVolumeDevice2[VOLUME_SOURCES + 1] GUARDED_BY(mAudioStateLock);
    char mVolumeDevice1[VOLUME_SOURCES + 1] GUARDED_BY(mAudioStateLock);
    String8 mPlayingApp GUARDED_BY(mAudioStateLock);
    String8 mLastFlushedApp GUARDED_BY(mAudioStateLock);  // at the last cache flush

private:
    // Caller check of operations 1 to 3 (by transaction code): false, with
    // the denial line and counted against the operation, when the calling
    // uid is not admitted.
    bool IsCallerAllowed(uint32_t code);
    // The caller check of a call with these arguments, which the capture
    // records either way.
    template <typename... Args>
    bool Admit(uint32_t code, const Args&... args) {
        const bool allowed = IsCallerAllowed(code);
        Record(code, !allowed, args...);
        return allowed;
    }
    // Records an accepted call in the capture, first thing in its operation.
    template <typename... Args>
    void Capture(uint32_t code, const Args&... args) {
        Record(code, false, args...);
    }
    template <typename... Args>
    void Record(uint32_t code, bool refused, const Args&... args) {
        if (mCapture != nullptr) {
            mCapture->Record(code, refused, {CallCapture::Arg(args)...});
        }
    }
    // The six writers in their fixed order, each possibly null.
    std::array<sp<MediaLogBase>, MONITOR_WRITERS> AllWriters() const;
    // What a dump with args writes: the writers' dumps (for none, for the
    // platform's own and after a line naming an unknown one), the usage,
    // the statistics, or a usage error.
    String8 RenderDumpFor(const Vector<String16>& args);
    // A client's C string; null logs the error line and becomes empty.
    String8 ToString8(const char* text);
    // Each writer whose switch is 1, in their fixed order.
    void CreateWriters();
    // Loads the writers' state kept by the last service, unless
    // ro.media.persist is 0.
    void RecoverWriters();
    // Removes path when its switch is 0; name is the property's last word.
    void RemoveStaleFile(int32_t value, const char* path, const char* name);
    // Queues event under mLock.
    void QueueEvent(const sp<LogSrvEvent>& event) EXCLUDES(mLock);
    // The writers' dumps, in their fixed order, each under its writer's lock.
    String8 RenderDump();
    // Writes a rendered dump to the caller's fd within DUMP_TIMEOUT, or gives
    // up with a (rate-limited) line.
    void WriteDump(int fd, const String8& text);

    // A dump waits this long in all for its caller to read.
    static constexpr nsecs_t DUMP_TIMEOUT = seconds_to_nanoseconds(3);
    // Dumps beyond these are answered at once, so that callers that never
    // read cannot take the serving threads, nor the bug report's dump.
    DumpSlots mDumpSlots;

    // Lines that any client can provoke with every call, one limiter per
    // kind; thread-safe on their own.
    LogRateLimiter mDenialLog;    // operations 1 to 3 refused
    LogRateLimiter mNullTextLog;  // a null C string
    LogRateLimiter mRefusalLog;   // an unknown id, stream, usage or volume source
    LogRateLimiter mDumpLog;      // a dump given up
    LogRateLimiter mFilterLog;    // an audio-loss report the audio state filters out
};

static_assert(MONITOR_EVENT_TYPES == VyMediaMonitorService::EVENT_VIDEO_CATON_VAGUE + 1,
              "one statistics name per event type, and one for any other");

}  // namespace android

#endif
