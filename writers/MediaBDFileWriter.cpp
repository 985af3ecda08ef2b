#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaBDFileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log/log.h>
#include <utils/Timers.h>

namespace android {

MediaBDFileWriter::MediaBDFileWriter(const sp<MediaMonitorPolicy>& policy, int32_t writerType,
                                     const char* className, const char* path)
    : MediaLogBase(policy),
      mFd(-1),
      mPath(path),
      mMemInfosWhere(String8::format("%s::GetMemInfos", className)),
      mFileInfosWhere(String8::format("%s::GetFileInfos", className)),
      mLastTimeWhere(String8::format("%s::GetLastTime", className)) {
    mLastSendTime = 0;
    mWriterType = writerType;
}

MediaBDFileWriter::~MediaBDFileWriter() {
    if (mFd >= 0) {
        close(mFd);
    }
}

int MediaBDFileWriter::OpenRecordFile(const char* createLog, const char* existsLog) {
    struct stat st;
    if (stat(mPath, &st) != 0) {
        if (mDebuggable && createLog != nullptr) {
            ALOGD(createLog, mPath);
        }
        Reopen(O_TRUNC, 0640);
    } else {
        if (mDebuggable) {
            ALOGD(existsLog, mPath);
        }
        Reopen(0, 0664);
    }
    return mFd;
}

void MediaBDFileWriter::Reopen(int extraFlags, mode_t mode) {
    if (mFd >= 0) {
        close(mFd);
    }
    mFd = OpenRecordPath(mPath, O_RDWR | O_CREAT | O_APPEND | extraFlags, mode);
}

void MediaBDFileWriter::FlushToFile() {
    Mutex::Autolock lock(mLock);
    WriteToFile();
}

bool MediaBDFileWriter::SendMediaLog() {
    Mutex::Autolock lock(mLock);
    return DoSendMediaLog();
}

String8 MediaBDFileWriter::DumpText() {
    Mutex::Autolock lock(mLock);
    return FormatRecords(true);
}

void MediaBDFileWriter::WriteToFile() {
    // Once the file is removed, mFd points at an unlinked copy: write nothing
    // until the next upload recreates the file.
    struct stat st;
    if (stat(mPath, &st) == 0) {
        const ssize_t written = WriteText(mFd, FormatRecords(false));
        mCounters.WroteFile(written > 0 ? static_cast<uint64_t>(written) : 0);
        StateChanged();
    } else if (mLogMemSize != 0) {
        mCounters.Refused(REFUSED_FILE_MISSING);
    }
}

bool MediaBDFileWriter::DoSendMediaLog() {
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    GetMediaLogbody(mFd);
    // GetMediaLogbody has closed mFd exactly when the file had content.
    // Closing it twice could close a descriptor another thread just opened.
    if (mCurFileSize >= 1) {
        mFd = -1;
    }

    if (mDebuggable) {
        ALOGI("DoSendMediaLog: %s, time: %ld", mLogBody.string(),
              static_cast<long>(systemTime(SYSTEM_TIME_MONOTONIC)));
    }
    String8 head(mRadarHead);
    head.appendFormat("\nTime: %s\n", GetFormattedCurrentTime().string());
    WriteLogExceptionMsg("app-media", 65, head.string(), mLogBody.string());

    mLastSendTime = systemTime(SYSTEM_TIME_MONOTONIC);
    ResetLogMem();
    Reopen(O_TRUNC, 0664);
    mCounters.TruncatedFile();
    mCurFileSize = 0;
    // The hand-off above keeps nothing, so the text need not outlive it.
    mLogBody.clear();
    mCounters.Uploaded(start);
    return true;
}

WriterStats MediaBDFileWriter::GetStats() {
    Mutex::Autolock lock(mLock);
    return StatsHolding(HeldRecords(), MAX_LOG_MEM_SIZE);
}

const char* MediaBDFileWriter::GetFilePath() { return mPath; }

int64_t MediaBDFileWriter::RecordFileSize() {
    struct stat st;
    return stat(mPath, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

void MediaBDFileWriter::GetMemInfos(int* cur, int* max) {
    ReportMemInfos(LOG_TAG, mMemInfosWhere.string(), cur, max, MAX_LOG_MEM_SIZE);
}

void MediaBDFileWriter::GetFileInfos(int* max) {
    if (AnyNullPtr(LOG_TAG, mFileInfosWhere.string(), {max})) {
        return;
    }
    *max = static_cast<int>(MAX_FILE_SIZE);
}

void MediaBDFileWriter::GetLastTime(long* lastTime, long* cycle) {
    ReportLastTime(LOG_TAG, mLastTimeWhere.string(), lastTime, cycle);
}

}  // namespace android
