#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaExceptionLogWriter.h"

#include <log/log.h>
#include <utils/Timers.h>

#include "writers/ClientText.h"

namespace android {

namespace {

constexpr int kUrgentPrior = 4;
// Only these message types reach a report or a dump.
constexpr int kFirstReadType = 0;
constexpr int kLastReadType = 15;

}  // namespace

MediaExceptionLogWriter::MediaExceptionLogWriter(const sp<MediaMonitorPolicy>& policy)
    : MediaLogBase(policy), mLogMsgs(String8()) {
    ResetLogMem();
    mWriterType = LOG_TYPE_EXCEPTION_LOG;
    mLastSendTime = -1;
}

MediaExceptionLogWriter::~MediaExceptionLogWriter() { MediaExceptionLogWriter::ResetLogMem(); }

void MediaExceptionLogWriter::WriteLogMsg(int prior, int type, String8 msg) {
    Mutex::Autolock lock(mLock);
    if (prior == kUrgentPrior || mLogMemSize < MAX_LOG_MEM_SIZE) {
        const ssize_t index = mLogMsgs.indexOfKey(type);
        if (index < 0) {
            mLogMsgs.add(type, msg);
            mLogMemSize += msg.length();
            if (mDebuggable) {
                ALOGD("WriteLogMsg add, type: %d, msg: %s", type, ClientTextForLog(msg).string());
            }
        } else {
            String8 text = mLogMsgs.valueAt(static_cast<size_t>(index));
            if (!text.isEmpty()) {
                mLogMemSize -= text.length();
                text.append(mSemicolon);
            }
            text.append(msg);
            mLogMsgs.replaceValueAt(static_cast<size_t>(index), text);
            mLogMemSize += text.length();
            if (mDebuggable) {
                ALOGD("WriteLogMsg append, type: %d, value: %s", type,
                      ClientTextForLog(text).string());
            }
        }
    } else if (mDebuggable) {
        ALOGD("WriteLogMsg, radar already full, drop this msg!");
    }
    mPrior = prior;
    TriggerLogStrategy();
}

void MediaExceptionLogWriter::ForceLogSend(int /*type*/) {
    Mutex::Autolock lock(mLock);
    if (mLogMemSize == 0) {
        return;
    }
    if (mDebuggable) {
        ALOGD("ForceLogSend!");
    }
    DoSendMediaLog();
}

void MediaExceptionLogWriter::SendMediaLog() {
    Mutex::Autolock lock(mLock);
    DoSendMediaLog();
}

bool MediaExceptionLogWriter::IsRemoveMediaLogKey(int type) {
    Mutex::Autolock lock(mLock);
    return mLogMsgs.removeItem(type) >= 0;
}

void MediaExceptionLogWriter::GetMediaLogbody(int /*fd*/) {
    mLogBody = String8();
    for (int type = kFirstReadType; type <= kLastReadType; ++type) {
        const ssize_t index = mLogMsgs.indexOfKey(type);
        if (index >= 0) {
            mLogBody.appendFormat("%zu:", static_cast<size_t>(type));
            mLogBody.append(mLogMsgs.valueAt(static_cast<size_t>(index)));
            mLogBody.append(mNewLine);
        }
    }
}

bool MediaExceptionLogWriter::DoSendMediaLog() {
    GetMediaLogbody(-1);
    const String8 now = GetFormattedCurrentTime();
    if (mDebuggable) {
        ALOGI("DoSendMediaLog: %s, time: %s", mLogBody.string(), now.string());
    }
    String8 head(mRadarHead);
    head.appendFormat("\nTime: %s\n", now.string());
    // Validation only: the radar report is composed but not handed on.
    WriteLogExceptionMsg("app-media", 65, head.string(), mLogBody.string());
    mLastSendTime = systemTime(SYSTEM_TIME_MONOTONIC);
    ResetLogMem();
    return true;
}

void MediaExceptionLogWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mLogMsgs.clear();
    mLogMemSize = 0;
    mLogBody = String8();
}

String8 MediaExceptionLogWriter::DumpText() {
    Mutex::Autolock lock(mLock);
    String8 text(EXCEPTION_LOG_DUMP_HEAD);
    for (int type = kFirstReadType; type <= kLastReadType; ++type) {
        const String8& msg = mLogMsgs.valueFor(type);
        if (!msg.isEmpty()) {
            text.appendFormat("\n%zu:%s\n", static_cast<size_t>(type),
                              EscapeClientText(msg).string());
        }
    }
    return text;
}

void MediaExceptionLogWriter::GetMemInfos(int* cur, int* max) {
    ReportMemInfos(LOG_TAG, "MediaExceptionLogWriter::GetMemInfos", cur, max, MAX_LOG_MEM_SIZE);
}

void MediaExceptionLogWriter::GetLastTime(long* lastTime, long* cycle) {
    ReportLastTime(LOG_TAG, "MediaExceptionLogWriter::GetLastTime", lastTime, cycle);
}

void MediaExceptionLogWriter::GetLogPrior(int* prior) {
    if (AnyNullPtr(LOG_TAG, "MediaExceptionLogWriter::GetLogPrior", {prior})) {
        return;
    }
    *prior = mPrior;
}

}  // namespace android
