#define LOG_TAG "Vymedia_monitor"
#define ATRACE_TAG ATRACE_TAG_AUDIO

#include "writers/MediaMonitorPolicy.h"

#include <sys/stat.h>

#include <log/log.h>
#include <utils/Timers.h>
#include <utils/Trace.h>

namespace android {

namespace {

constexpr char kExceptionDue[] = "need to send log for exception, exceed max time limit";
constexpr char kKpiDue[] = "need to send log for kpi, exceed max time limit";
constexpr char kBigDataDue[] = "need to send log for bigdata, exceed max time limit";

}  // namespace

MediaMonitorPolicy::MediaMonitorPolicy() = default;

MediaMonitorPolicy::~MediaMonitorPolicy() = default;

bool MediaMonitorPolicy::TriggerLogSendPolicy(const sp<MediaLogBase>& writer) {
    {
        Mutex::Autolock lock(mLock);
        mLogBase = writer;
    }
    if (writer == nullptr) {
        return false;
    }
    const int32_t type = writer->mWriterType;
    if ((type == LOG_TYPE_EXCEPTION_LOG || type == LOG_TYPE_BD_FLOW ||
         type == LOG_TYPE_BD_COUNT) &&
        IsNeedWriteToFile(writer)) {
        if (writer->mDebuggable) {
            ALOGD("MediaMonitorPolicy::WriteToFile");
        }
        WriteToFile(writer);
    }
    if (!IsNeedSendLog(writer)) {
        return false;
    }
    if (writer->mDebuggable) {
        ALOGD("MediaMonitorPolicy::DoSendMediaLog");
    }
    ATRACE_NAME("Vymedia.monitor upload");
    return writer->DoSendMediaLog();
}

sp<MediaLogBase> MediaMonitorPolicy::CurrentWriter() {
    Mutex::Autolock lock(mLock);
    return mLogBase.promote();
}

bool MediaMonitorPolicy::IsNeedSendLog() {
    const sp<MediaLogBase> writer = CurrentWriter();
    return writer != nullptr && IsNeedSendLog(writer);
}

bool MediaMonitorPolicy::IsNeedWriteToFile() {
    const sp<MediaLogBase> writer = CurrentWriter();
    return writer != nullptr && IsNeedWriteToFile(writer);
}

void MediaMonitorPolicy::WriteToFile() {
    const sp<MediaLogBase> writer = CurrentWriter();
    if (writer != nullptr) {
        WriteToFile(writer);
    }
}

bool MediaMonitorPolicy::DoSendMediaLog() {
    const sp<MediaLogBase> writer = CurrentWriter();
    return writer != nullptr && writer->DoSendMediaLog();
}

bool MediaMonitorPolicy::IsExceptionNeedSend(long lastTime, long cycle) {
    const sp<MediaLogBase> writer = CurrentWriter();
    return writer != nullptr && IsExceptionNeedSend(writer, lastTime, cycle);
}

bool MediaMonitorPolicy::IsBDNeedSend(long lastTime, long cycle) {
    const sp<MediaLogBase> writer = CurrentWriter();
    return writer != nullptr && IsBDNeedSend(writer, lastTime, cycle);
}

bool MediaMonitorPolicy::IsExceptionLogNeedSend(long lastTime, long cycle) {
    return IsCycleElapsed(CurrentWriter(), lastTime, cycle, kExceptionDue);
}

bool MediaMonitorPolicy::IsKpiNeedSend(long lastTime, long cycle) {
    return IsCycleElapsed(CurrentWriter(), lastTime, cycle, kKpiDue);
}

bool MediaMonitorPolicy::IsBigDataNeedSend(long lastTime, long cycle) {
    return IsCycleElapsed(CurrentWriter(), lastTime, cycle, kBigDataDue);
}

bool MediaMonitorPolicy::IsNeedSendLog(const sp<MediaLogBase>& writer) {
    const int32_t type = writer->mWriterType;
    long lastTime = -1;
    long cycle = -1;
    writer->GetLastTime(&lastTime, &cycle);
    switch (type) {
        case LOG_TYPE_EXCEPTION_LOG:
            return IsExceptionNeedSend(writer, lastTime, cycle);
        case LOG_TYPE_BD_FLOW:
        case LOG_TYPE_BD_COUNT:
            return IsBDNeedSend(writer, lastTime, cycle);
        case LOG_TYPE_EXCEPTION:
            return IsCycleElapsed(writer, lastTime, cycle, kExceptionDue);
        case LOG_TYPE_KPI:
            return IsCycleElapsed(writer, lastTime, cycle, kKpiDue);
        case LOG_TYPE_BIGDATA:
            return IsCycleElapsed(writer, lastTime, cycle, kBigDataDue);
        default:
            if (writer->mDebuggable) {
                ALOGI("cant't be: bad writer type received");
            }
            return false;
    }
}

bool MediaMonitorPolicy::IsNeedWriteToFile(const sp<MediaLogBase>& writer) {
    int cur = 0;
    int max = 0;
    writer->GetMemInfos(&cur, &max);
    return cur >= max;
}

void MediaMonitorPolicy::WriteToFile(const sp<MediaLogBase>& writer) {
    writer->WriteToFile();
    writer->ResetLogMem();
}

bool MediaMonitorPolicy::IsExceptionNeedSend(const sp<MediaLogBase>& writer, long lastTime,
                                             long cycle) {
    int cur = 0;
    int max = 0;
    writer->GetMemInfos(&cur, &max);
    if (cur == 0) {
        return false;
    }
    int prior = -1;
    writer->GetLogPrior(&prior);
    if (prior == 4) {
        return true;  // an urgent message is pending
    }
    if (lastTime != -1) {
        return systemTime(SYSTEM_TIME_MONOTONIC) - lastTime >= cycle;
    }
    if (cur < max) {
        return false;
    }
    if (writer->mDebuggable) {
        ALOGD("IsNeedSendLog, exceed max size limit");
    }
    return true;
}

bool MediaMonitorPolicy::IsBDNeedSend(const sp<MediaLogBase>& writer, long lastTime, long cycle) {
    const char* path = writer->GetFilePath();
    int cur = 0;
    int max = 0;
    writer->GetMemInfos(&cur, &max);
    int fileMax = 0;
    writer->GetFileInfos(&fileMax);

    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) {
        return false;
    }
    long size = st.st_size;
    writer->SetCurFileSize(&size);
    if (size >= static_cast<long>(fileMax)) {
        return true;
    }
    if (size == 0 && cur == 0) {
        return false;
    }
    if (lastTime == -1) {
        return false;
    }
    return systemTime(SYSTEM_TIME_MONOTONIC) - lastTime >= cycle;
}

bool MediaMonitorPolicy::IsCycleElapsed(const sp<MediaLogBase>& writer, long lastTime, long cycle,
                                        const char* dueMessage) {
    if (lastTime == -1 || systemTime(SYSTEM_TIME_MONOTONIC) - lastTime < cycle) {
        return false;
    }
    if (writer != nullptr && writer->mDebuggable) {
        ALOGD("%s", dueMessage);
    }
    return true;
}

}  // namespace android
