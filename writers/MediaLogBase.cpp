#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaLogBase.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include <bounds_checked.h>
#include <cutils/properties.h>
#include <log/log.h>

#include "writers/MediaMonitorPolicy.h"
#include "writers/OwnFile.h"

namespace android {

namespace {

constexpr nsecs_t kNanosPerSecond = 1000000000LL;
constexpr nsecs_t kDefaultCycle = 86400 * kNanosPerSecond;
constexpr size_t kProcPathSize = 256;
constexpr size_t kCmdlineSize = 256;
constexpr size_t kTimeTextSize = 64;

}  // namespace

MediaLogBase::MediaLogBase(const sp<MediaMonitorPolicy>& policy)
    : globalMediaLogCycleDuration(kDefaultCycle),
      mDebuggable(false),
      mNewLine("\n"),
      mSemicolon(";"),
      mAt("@"),
      mRadarHead("Package:app-media\nAPK version:1.0\nBug type: 100\nScene def: 1900"),
      mLogMemSize(0),
      mLastSendTime(0),
      mWriterType(0),
      mCurFileSize(0),
      mPolicy(policy) {
    GetDefault();
}

MediaLogBase::~MediaLogBase() = default;

void MediaLogBase::GetDefault() {
    char value[PROPERTY_VALUE_MAX] = {};
    mDebuggable = false;
    property_get("ro.media.debuggable", value, "false");
    // Only the first four bytes count: any value beginning with "true" is on.
    if (strncmp(value, "true", 4) == 0) {
        mDebuggable = true;
    }

    globalMediaLogCycleDuration = kDefaultCycle;
    memset_s(value, sizeof(value), 0, sizeof(value));
    property_get("ro.media.uploadduration", value, "-1");
    const int seconds = atoi(value);
    if (seconds >= 1) {
        globalMediaLogCycleDuration = static_cast<nsecs_t>(static_cast<uint32_t>(seconds)) *
                                      kNanosPerSecond;
    }
    if (mDebuggable) {
        ALOGD("MediaLogBase globalMediaLogCycleDuration = %dS",
              static_cast<int>(globalMediaLogCycleDuration / kNanosPerSecond));
    }
}

void MediaLogBase::GetMediaLogbody(int fd) {
    if (mLogMemSize != 0) {
        WriteToFile();
        struct stat st;
        if (fstat(fd, &st) == 0) {
            mCurFileSize = st.st_size;
        }
    }
    if (mCurFileSize < 1) {
        return;
    }
    close(fd);
    AppendRecordFile();
}

void MediaLogBase::AppendRecordFile() {
    const char* path = mWriterType == LOG_TYPE_BD_FLOW ? BD_FLOW_FILE : BD_COUNT_FILE;
    const int fd = OpenRecordPath(path, O_RDONLY | O_CREAT, 0664);
    if (fd < 0) {
        return;
    }
    // One spare zero byte so the append stops where the read did.
    char buffer[MAX_RECORD_FILE_READ + 1];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    const size_t size = std::min(static_cast<size_t>(mCurFileSize), MAX_RECORD_FILE_READ);
    if (read(fd, buffer, size) >= 0) {
        mLogBody.append(buffer);
    }
    close(fd);
}

status_t MediaLogBase::WriteLogExceptionMsg(const char* a, int /*b*/, const char* c,
                                            const char* d) {
    if (c == nullptr || a == nullptr || d == nullptr) {
        return UNKNOWN_ERROR;
    }
    return OK;
}

status_t MediaLogBase::WriteLogExceptionMsg(const char* a, int /*b*/, const char* /*c*/,
                                            const char* d, const char* e) {
    if (d == nullptr || a == nullptr || e == nullptr) {
        return UNKNOWN_ERROR;
    }
    return OK;
}

status_t MediaLogBase::WriteLogExceptionCmd(const char* a, const char* b) {
    if (b == nullptr || a == nullptr) {
        return UNKNOWN_ERROR;
    }
    return OK;
}

String8 MediaLogBase::GetFormattedCurrentTime() {
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) {
        if (mDebuggable) {
            ALOGD("MediaLogBase::GetFormattedCurrentTime localTime is null");
        }
        return String8();
    }
    char text[kTimeTextSize] = {};
    strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local);
    return String8(text);
}

String8 MediaLogBase::GetAppNameByPid(int pid) {
    if (pid == -1) {
        return String8();
    }
    char path[kProcPathSize] = {};
    snprintf_s(path, sizeof(path), sizeof(path) - 1, "/proc/%d/cmdline", pid);
    path[sizeof(path) - 1] = '\0';

    char cmdline[kCmdlineSize] = {};
    FILE* file = fopen(path, "re");
    if (file != nullptr) {
        if (fgets(cmdline, sizeof(cmdline), file) == nullptr) {
            cmdline[0] = '\0';
        }
        fclose(file);
    }
    cmdline[sizeof(cmdline) - 1] = '\0';
    // The command line's first NUL ends the process name.
    return cmdline[0] != '\0' ? String8(cmdline) : String8("Unknow App");
}

void MediaLogBase::SetCurFileSize(long* size) {
    if (size == nullptr) {
        ALOGW("MediaLogBase::SetCurFileSize fail, ptr is null");
        return;
    }
    if (mDebuggable) {
        ALOGD("MediaLogBase::SetCurFileSize:%ld", *size);
    }
    mCurFileSize = *size;
}

bool MediaLogBase::AnyNullPtr(const char* tag, const char* where,
                              std::initializer_list<const void*> ptrs) {
    for (const void* ptr : ptrs) {
        if (ptr == nullptr) {
            __android_log_print(ANDROID_LOG_WARN, tag, "%s fail, ptr is null", where);
            return true;
        }
    }
    return false;
}

void MediaLogBase::ReportMemInfos(const char* tag, const char* where, int* cur, int* max,
                                  size_t cap) {
    if (AnyNullPtr(tag, where, {cur, max})) {
        return;
    }
    *cur = static_cast<int>(mLogMemSize);
    *max = static_cast<int>(cap);
}

void MediaLogBase::ReportLastTime(const char* tag, const char* where, long* lastTime,
                                  long* cycle) {
    if (AnyNullPtr(tag, where, {lastTime, cycle})) {
        return;
    }
    *lastTime = mLastSendTime;
    *cycle = globalMediaLogCycleDuration;
}

void MediaLogBase::Dump(int fd) {
    const String8 text = DumpText();
    if (fd >= 0 && !text.isEmpty()) {
        WriteText(fd, text);
    }
}

ssize_t MediaLogBase::WriteText(int fd, const String8& text) {
    return write(fd, text.string(), text.length());
}

WriterStats MediaLogBase::StatsHolding(size_t records, size_t cap, size_t bytes,
                                       size_t byteLimit) const {
    WriterStats stats;
    stats.records = records;
    stats.charge = mLogMemSize;
    stats.cap = cap;
    stats.bytes = bytes;
    stats.byteLimit = byteLimit;
    mCounters.CopyTo(&stats);
    stats.logSuppressed = mRecordPathLog.Suppressed() + mClockLog.Suppressed();
    if (mStore != nullptr) {
        const StoreCounters& store = mStore->Counters();
        stats.journalBytes = store.journalBytes.Get();
        stats.snapshots = store.snapshots.Get();
        stats.damagedDropped += store.damaged.Get();
        stats.persistFailures = store.writeFailures.Get();
        stats.logSuppressed += mStore->LogSuppressed();
    }
    return stats;
}

int MediaLogBase::OpenRecordPath(const char* path, int flags, mode_t mode) {
    OwnFileFound found;
    const int fd = OpenOwnFile(path, flags, mode, &found);
    if (found == OwnFileFound::REPLACED) {
        mCounters.ReplacedPath();
        ALOG_LIMITED(mRecordPathLog, ANDROID_LOG_WARN,
                     "record file %s was not a file of ours: replaced", path);
    } else if (found == OwnFileFound::NOT_REPLACEABLE) {
        mCounters.SkippedPath();
        ALOG_LIMITED(mRecordPathLog, ANDROID_LOG_ERROR,
                     "record file %s is not a file of ours and cannot be replaced: skipped",
                     path);
    }
    return fd;
}

void MediaLogBase::AdvanceLastSendTime() {
    if (__builtin_add_overflow(mLastSendTime, globalMediaLogCycleDuration, &mLastSendTime)) {
        mLastSendTime = std::numeric_limits<nsecs_t>::max();
    }
}

namespace {

constexpr uint8_t kUploadBegun = 0;  // operation kind of the journal's upload marker
constexpr int64_t kNoTime = -1;

nsecs_t WallNow() { return systemTime(SYSTEM_TIME_REALTIME); }
nsecs_t MonotonicNow() { return systemTime(SYSTEM_TIME_MONOTONIC); }

}  // namespace

void MediaLogBase::Recover(const WriterStore::Contents& contents) {
    {
        Mutex::Autolock lock(WriterLock());
        // What the files hold stays the writer's state unless the replay
        // changes it otherwise (an upload, a flush) or drops part of it.
        mRecoveryDiffers = !contents.hasSnapshot;
    }
    int64_t fileSizeThen = kNoTime;
    uint64_t records = 0;
    if (contents.hasSnapshot) {
        StateReader payload(contents.snapshot);
        const int64_t wallNs = payload.Get64();
        fileSizeThen = payload.Get64();
        const int64_t charge = payload.Get64();
        StateReader op(nullptr, 0);
        while (payload.GetItem(&op)) {
            const uint8_t kind = op.GetU8();
            if (ApplyOperation(kind, op) && !op.Failed()) {
                ++records;
            } else {
                mCounters.DroppedDamaged();
                DiffersFromFiles();
            }
        }
        // The charge of some writers depends on the order things arrived in,
        // which the records do not keep.
        Mutex::Autolock lock(WriterLock());
        RestoreLastSendTime(wallNs);
        mLogMemSize = static_cast<size_t>(charge);
    }
    mCounters.Recovered(records, 0);
    ReplayJournal(contents, fileSizeThen);
}

void MediaLogBase::ReplayJournal(const WriterStore::Contents& contents, int64_t fileSizeThen) {
    int64_t fileSizeNow;
    {
        Mutex::Autolock lock(WriterLock());
        fileSizeNow = RecordFileSize();
    }
    if (fileSizeNow != fileSizeThen && !contents.operations.empty()) {
        // The records were flushed to the record file (or uploaded from it)
        // after the snapshot, which the death kept from being replaced.
        ALOGW("writer %d: record file changed since its snapshot; %zu journalled events are in it",
              mWriterType, contents.operations.size());
        DiffersFromFiles();
        return;
    }
    uint64_t events = 0;
    for (const std::string& bytes : contents.operations) {
        StateReader op(bytes);
        const uint8_t kind = op.GetU8();
        if (kind == kUploadBegun) {
            mCounters.UploadInDoubt();
            ALOGW("writer %d: an upload began and was not recorded as done; what it held is "
                  "kept and may be uploaded twice", mWriterType);
        } else if (ApplyOperation(kind, op) && !op.Failed()) {
            ++events;
        } else {
            mCounters.DroppedDamaged();
            DiffersFromFiles();
        }
    }
    mCounters.Recovered(0, events);
}

void MediaLogBase::DiffersFromFiles() {
    Mutex::Autolock lock(WriterLock());
    mRecoveryDiffers = true;
}

void MediaLogBase::RestoreLastSendTime(int64_t wallNs) {
    if (wallNs == kNoTime) {
        mLastSendTime = kNoTime;
        return;
    }
    const nsecs_t elapsed = WallNow() - wallNs;
    const nsecs_t now = MonotonicNow();
    if (elapsed < 0 || elapsed / 2 > globalMediaLogCycleDuration) {
        ALOG_LIMITED(mClockLog, ANDROID_LOG_WARN,
                     "writer %d: wall clock moved by %lld s since the last upload: due now",
                     mWriterType, static_cast<long long>(elapsed / 1000000000LL));
        mLastSendTime = now - globalMediaLogCycleDuration;
    } else {
        mLastSendTime = now - elapsed;
    }
    if (mLastSendTime == kNoTime) {
        mLastSendTime = kNoTime - 1;  // -1 would mean "never due"
    }
}

std::string MediaLogBase::EncodePayload() {
    StateWriter out;
    const bool timed = mLastSendTime != kNoTime;
    out.Put64(timed ? WallNow() - (MonotonicNow() - mLastSendTime) : kNoTime);
    out.Put64(RecordFileSize());
    out.Put64(static_cast<int64_t>(mLogMemSize));
    EncodeState(&out);
    return std::move(out.Bytes());
}

void MediaLogBase::AttachStore(WriterStore* store) {
    Mutex::Autolock lock(WriterLock());
    mStore = store;
    // A clean load goes on in the same generation: no snapshot to write.
    mSnapshotDue = mRecoveryDiffers;
}

MediaLogBase::PersistWork MediaLogBase::TakePersistWork() {
    PersistWork work;
    Mutex::Autolock lock(WriterLock());
    if (mSnapshotDue) {
        work.snapshot = true;
        work.bytes = EncodePayload();
    } else {
        work.bytes.swap(mPendingOps);
    }
    mSnapshotDue = false;
    mPendingOps.clear();
    return work;
}

void MediaLogBase::RequestSnapshot() {
    Mutex::Autolock lock(WriterLock());
    mSnapshotDue = mStore != nullptr;
}

StateWriter& MediaLogBase::NewOp() {
    mOp.Clear();
    return mOp;
}

void MediaLogBase::Journal(const StateWriter& op) {
    if (mStore == nullptr || mSnapshotDue) {
        return;  // a snapshot will hold it
    }
    // A flood between two batches is bounded like a journal: it is folded
    // into the snapshot instead.
    if (mPendingOps.size() + op.Bytes().size() > WriterStore::MAX_JOURNAL_BYTES / 2) {
        StateChanged();
        return;
    }
    AppendItem(&mPendingOps, op.Bytes());
}

void MediaLogBase::StateChanged() {
    mRecoveryDiffers = true;
    if (mStore != nullptr) {
        mSnapshotDue = true;
        mPendingOps.clear();
    }
}

void MediaLogBase::BeginUpload() {
    if (mStore == nullptr) {
        return;
    }
    StateWriter marker;
    marker.PutU8(kUploadBegun);
    std::string records = mSnapshotDue ? std::string() : std::move(mPendingOps);
    StateWriter framed;
    framed.PutItem(marker.Bytes());
    records.append(framed.Bytes());
    mPendingOps.clear();
    mStore->Append(records);
}

void MediaLogBase::EndUpload() {
    if (mStore == nullptr) {
        return;
    }
    mPendingOps.clear();
    mSnapshotDue = !mStore->WriteSnapshot(EncodePayload());
}

void MediaLogBase::TriggerLogStrategy() {
    if (mDebuggable) {
        ALOGD("MediaLogBase::TriggerLogStrategy");
    }
    if (mPolicy == nullptr) {
        return;
    }
    sp<MediaLogBase> self(this);
    mPolicy->TriggerLogSendPolicy(self);
}

}  // namespace android
