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

// Kinds of the operations that journal and snapshot hold.
enum : uint8_t {
    OP_WRITE = 1,     // WriteLogMsg(prior, type, msg)
    OP_RESTORE = 2,   // the text held for a type
    OP_PRIOR = 3,     // the last priority offered
};

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
    StateWriter& op = NewOp();
    op.PutU8(OP_WRITE);
    op.Put32(prior);
    op.Put32(type);
    op.PutText(msg);
    Journal(op);
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
    } else {
        mCounters.Refused(REFUSED_CAP);
        if (mDebuggable) {
            ALOGD("WriteLogMsg, radar already full, drop this msg!");
        }
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
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
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
    mCounters.Uploaded(start);
    return true;
}

void MediaExceptionLogWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mLogMsgs.clear();
    mLogMemSize = 0;
    mLogBody = String8();
    StateChanged();
}

void MediaExceptionLogWriter::EncodeState(StateWriter* out) {
    for (size_t i = 0; i < mLogMsgs.size(); ++i) {
        StateWriter op;
        op.PutU8(OP_RESTORE);
        op.Put32(mLogMsgs.keyAt(i));
        op.PutText(mLogMsgs.valueAt(i));
        out->PutItem(op.Bytes());
    }
    StateWriter prior;
    prior.PutU8(OP_PRIOR);
    prior.Put32(mPrior);
    out->PutItem(prior.Bytes());
}

bool MediaExceptionLogWriter::ApplyOperation(uint8_t kind, StateReader& op) {
    if (kind == OP_WRITE) {
        const int prior = op.Get32();
        const int type = op.Get32();
        const String8 msg = op.GetText();
        if (!op.Failed()) {
            WriteLogMsg(prior, type, msg);
        }
        return true;
    }
    Mutex::Autolock lock(mLock);
    if (kind == OP_RESTORE) {
        const int type = op.Get32();
        const String8 text = op.GetText();
        mLogMsgs.add(type, text);
        return true;
    }
    if (kind == OP_PRIOR) {
        mPrior = op.Get32();
        return true;
    }
    return false;
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

WriterStats MediaExceptionLogWriter::GetStats() {
    Mutex::Autolock lock(mLock);
    return StatsHolding(mLogMsgs.size(), MAX_LOG_MEM_SIZE);
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
