#define LOG_TAG "Vymedia_monitor_exception"

#include "writers/MediaExceptionWriter.h"

#include <log/log.h>
#include <utils/Timers.h>

#include "writers/ClientText.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/ReportEvent.h"

namespace android {

namespace {

// An upload string may reach this many characters when a new text is admitted.
constexpr size_t kMaxUploadString = 63;
constexpr size_t kRecordCharge = 12;
constexpr size_t kTextCharge = 3;
constexpr size_t kLongFormCharge = 8;

constexpr char kNewRecordLine[] =
    "new eventId(%d), eventLevel(%d), subType(%d), reason(%s),        callingapp (%s), "
    "count(%d), paraInt(%d), paraChar(%s), associatedEventId(%d)";
constexpr char kSendRecordLine[] =
    "DoSendMediaLog eventId(%d), eventLevel(%d), subType(%d),            reason(%s), "
    "callingapp (%s), count(%d), paraInt(%d), paraChar(%s), associatedEventId(%d)";

}  // namespace

MediaExceptionWriter::MediaExceptionWriter(const sp<MediaMonitorPolicy>& policy)
    : MediaLogBase(policy) {
    ResetLogMem();
    mWriterType = LOG_TYPE_EXCEPTION;
    mLastSendTime = systemTime(SYSTEM_TIME_MONOTONIC);
}

MediaExceptionWriter::~MediaExceptionWriter() { MediaExceptionWriter::ResetLogMem(); }

void MediaExceptionWriter::WriteException(int pid, int eventId, int eventLevel, int subType,
                                          String8 reason, String8 callingApp) {
    Mutex::Autolock lock(mLock);
    if (mDebuggable) {
        ALOGD("WriteException: pid(%d), eventId(%d), eventLevel(%d), subType(%d),        "
              "reason(%s)",
              pid, eventId, eventLevel, subType, reason.string());
    }
    MediaException* record = AddReport(eventId, eventLevel, subType, reason, callingApp, false);
    if (record != nullptr) {
        FinishReport(*record, 0);
    }
}

void MediaExceptionWriter::WriteException(int pid, int eventId, int eventLevel, int subType,
                                          String8 reason, String8 callingApp, int paraInt,
                                          String8 paraChar, int associatedEventId) {
    Mutex::Autolock lock(mLock);
    if (mDebuggable) {
        ALOGD("WriteException: pid(%d), eventId(%d), eventLevel(%d), subType(%d),        "
              "reason(%s), paraInt(%d), paraChar(%s), associatedEventId(%d)",
              pid, eventId, eventLevel, subType, reason.string(), paraInt, paraChar.string(),
              associatedEventId);
    }
    MediaException* record = AddReport(eventId, eventLevel, subType, reason, callingApp, true);
    if (record == nullptr) {
        return;
    }
    record->paraInt = paraInt;
    UpdateStringInfo(record->paraChar, paraChar);
    record->associatedEventId = associatedEventId;
    FinishReport(*record, kLongFormCharge);
}

MediaException* MediaExceptionWriter::AddReport(int eventId, int eventLevel, int subType,
                                                const String8& reason,
                                                const String8& callingApp, bool longForm) {
    if (mLogMemSize >= MAX_EXCEPTION_LOG_SIZE) {
        if (mDebuggable) {
            ALOGD("WriteException: current exception log size(%zu) exceed            "
                  "MAX_EXCEPTION_LOG_SIZE(%zu)",
                  mLogMemSize, MAX_EXCEPTION_LOG_SIZE);
        }
        return nullptr;
    }
    MediaException* record = GetExceptionObj(mExceptions, eventId, eventLevel, subType);
    if (record == nullptr) {
        ALOG_LIMITED(mNoRecordLog, ANDROID_LOG_ERROR,
                     "WriteException: could not get one exceptionObj for %d", eventId);
        return nullptr;
    }
    if (longForm) {
        record->simple = false;
    }
    UpdateStringInfo(record->reason, reason);
    UpdateStringInfo(record->callingApp, callingApp);
    record->count++;
    return record;
}

void MediaExceptionWriter::FinishReport(const MediaException& record, size_t charge) {
    if (mDebuggable) {
        LogRecord(kNewRecordLine, record);
    }
    mPrior = record.eventLevel;
    mLogMemSize += charge;
    TriggerLogStrategy();
}

void MediaExceptionWriter::LogRecord(const char* format, const MediaException& record) {
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, format, record.eventId, record.eventLevel,
                        record.subType, ClientTextForLog(GetUploadString(record.reason)).string(),
                        ClientTextForLog(GetUploadString(record.callingApp)).string(), record.count,
                        record.paraInt, ClientTextForLog(GetUploadString(record.paraChar)).string(),
                        record.associatedEventId);
}

MediaException* MediaExceptionWriter::GetExceptionObj(Vector<MediaException>& list, int eventId,
                                                      int eventLevel, int subType) {
    for (size_t i = 0; i < list.size(); ++i) {
        const MediaException& record = list[i];
        if (record.eventId == eventId && record.eventLevel == eventLevel &&
            record.subType == subType) {
            return &list.editItemAt(i);
        }
    }
    MediaException record;
    record.eventId = eventId;
    record.eventLevel = eventLevel;
    record.subType = subType;
    const ssize_t index = list.add(record);
    if (index < 0) {
        return nullptr;
    }
    mLogMemSize += kRecordCharge;
    return &list.editItemAt(static_cast<size_t>(index));
}

void MediaExceptionWriter::UpdateStringInfo(DefaultKeyedVector<String8, int>& table,
                                            String8 value) {
    if (value.isEmpty()) {
        return;
    }
    const ssize_t index = table.indexOfKey(value);
    if (index >= 0) {
        table.editValueAt(static_cast<size_t>(index))++;
        return;
    }
    // The upload string as it would read with the new text.
    String8 probe = GetUploadString(table);
    probe.appendFormat("%s%s:%d", table.isEmpty() ? "" : ";", value.string(), 1);
    if (probe.length() > kMaxUploadString) {
        if (mDebuggable) {
            ALOGD("exceed the upload size, not upload: %s", value.string());
        }
        return;
    }
    table.add(value, 1);
    mLogMemSize += value.length() + kTextCharge;
}

String8 MediaExceptionWriter::GetUploadString(const DefaultKeyedVector<String8, int>& table) {
    String8 text;
    for (size_t i = 0; i < table.size(); ++i) {
        text.appendFormat("%s%s:%d", i == 0 ? "" : ";", table.keyAt(i).string(),
                          table.valueAt(i));
    }
    return text;
}

bool MediaExceptionWriter::DoSendMediaLog() {
    for (size_t i = 0; i < mExceptions.size(); ++i) {
        const MediaException& record = mExceptions[i];
        if (mDebuggable) {
            LogRecord(kSendRecordLine, record);
        }
        ReportEvent event(record.eventId);
        if (!event.IsCreated()) {
            ALOGE("Unknown exception eventId(%d)", record.eventId);
            continue;
        }
        event.SetInt("EeventLevel", record.eventLevel);
        event.SetInt("SubType", record.subType);
        event.SetStringIfAny("Reason", GetUploadString(record.reason));
        event.SetStringIfAny("CallingApp", GetUploadString(record.callingApp));
        event.SetInt("Count", record.count);
        if (!record.simple) {
            event.SetInt("ParaInt", record.paraInt);
            event.SetStringIfAny("ParaChar", GetUploadString(record.paraChar));
            event.SetInt("AssociatedEeventID", record.associatedEventId);
        }
        event.Send();
    }
    AdvanceLastSendTime();
    ResetLogMem();
    return true;
}

void MediaExceptionWriter::SendMediaLog() {
    Mutex::Autolock lock(mLock);
    DoSendMediaLog();
}

void MediaExceptionWriter::TriggerLog() {
    Mutex::Autolock lock(mLock);
    TriggerLogStrategy();
}

void MediaExceptionWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mExceptions.clear();
    mLogMemSize = 0;
}

String8 MediaExceptionWriter::DumpText() {
    Mutex::Autolock lock(mLock);
    String8 text(EXCEPTION_LOG_DUMP_HEAD);
    for (size_t i = 0; i < mExceptions.size(); ++i) {
        const MediaException& record = mExceptions[i];
        text.appendFormat("eventId:%d\n", record.eventId);
        text.appendFormat("eventLevel:%d\n", record.eventLevel);
        text.appendFormat("reason:%s\n", GetUploadString(record.reason).string());
        text.appendFormat("callingApp:%s\n", GetUploadString(record.callingApp).string());
        text.appendFormat("count:%d\n", record.count);
        text.appendFormat("paraInt:%d\n", record.paraInt);
        text.appendFormat("paraChar:%s\n", GetUploadString(record.paraChar).string());
        text.appendFormat("associatedEventId:%d\n", record.associatedEventId);
    }
    return text;
}

void MediaExceptionWriter::GetMemInfos(int* cur, int* max) {
    ReportMemInfos(LOG_TAG, "MediaExceptionWriter::GetMemInfos", cur, max,
                   MAX_EXCEPTION_LOG_SIZE);
}

void MediaExceptionWriter::GetLastTime(long* lastTime, long* cycle) {
    ReportLastTime(LOG_TAG, "MediaExceptionWriter::GetLastTime", lastTime, cycle);
}

void MediaExceptionWriter::GetLogPrior(int* prior) {
    if (AnyNullPtr(LOG_TAG, "MediaExceptionWriter::GetLogPrior", {prior})) {
        return;
    }
    *prior = mPrior;
}

}  // namespace android
