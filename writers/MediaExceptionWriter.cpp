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

enum : uint8_t {
    OP_SHORT = 1,   // the short form's arguments
    OP_LONG = 2,    // the long form's arguments
    OP_RECORD = 3,  // a record as held
    OP_PRIOR = 4,   // the level of the last report kept
};

void PutTable(const DefaultKeyedVector<String8, int>& table, StateWriter* op) {
    op->Put32(static_cast<int32_t>(table.size()));
    for (size_t i = 0; i < table.size(); ++i) {
        op->PutText(table.keyAt(i));
        op->Put32(table.valueAt(i));
    }
}

void GetTable(StateReader& op, DefaultKeyedVector<String8, int>* table) {
    const int32_t size = op.Get32();
    for (int32_t i = 0; i < size && !op.Failed(); ++i) {
        const String8 key = op.GetText();
        table->add(key, op.Get32());
    }
}

void PutShortForm(uint8_t kind, int eventId, int eventLevel, int subType, const String8& reason,
                  const String8& callingApp, StateWriter* op) {
    op->PutU8(kind);
    op->Put32(eventId);
    op->Put32(eventLevel);
    op->Put32(subType);
    op->PutText(reason);
    op->PutText(callingApp);
}

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
    StateWriter& op = NewOp();
    PutShortForm(OP_SHORT, eventId, eventLevel, subType, reason, callingApp, &op);
    Journal(op);
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
    StateWriter& op = NewOp();
    PutShortForm(OP_LONG, eventId, eventLevel, subType, reason, callingApp, &op);
    op.Put32(paraInt);
    op.PutText(paraChar);
    op.Put32(associatedEventId);
    Journal(op);
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
        mCounters.Refused(REFUSED_CAP);
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
    if (record->count > 0) {
        mCounters.Merged();
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
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    BeginUpload();
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
        mCounters.Sent();
    }
    AdvanceLastSendTime();
    ResetLogMem();
    EndUpload();
    mCounters.Uploaded(start);
    return true;
}

void MediaExceptionWriter::EncodeState(StateWriter* out) {
    for (size_t i = 0; i < mExceptions.size(); ++i) {
        const MediaException& record = mExceptions[i];
        StateWriter op;
        op.PutU8(OP_RECORD);
        op.Put32(record.eventId);
        op.PutU8(record.simple ? 1 : 0);
        op.Put32(record.eventLevel);
        op.Put32(record.subType);
        PutTable(record.reason, &op);
        PutTable(record.callingApp, &op);
        op.Put32(record.count);
        op.Put32(record.paraInt);
        PutTable(record.paraChar, &op);
        op.Put32(record.associatedEventId);
        out->PutItem(op.Bytes());
    }
    StateWriter prior;
    prior.PutU8(OP_PRIOR);
    prior.Put32(mPrior);
    out->PutItem(prior.Bytes());
}

bool MediaExceptionWriter::ApplyOperation(uint8_t kind, StateReader& op) {
    if (kind == OP_SHORT || kind == OP_LONG) {
        const int eventId = op.Get32();
        const int eventLevel = op.Get32();
        const int subType = op.Get32();
        const String8 reason = op.GetText();
        const String8 callingApp = op.GetText();
        if (kind == OP_SHORT && !op.Failed()) {
            WriteException(-1, eventId, eventLevel, subType, reason, callingApp);
        }
        const int paraInt = op.Get32();
        const String8 paraChar = op.GetText();
        const int associatedEventId = op.Get32();
        if (kind == OP_LONG && !op.Failed()) {
            WriteException(-1, eventId, eventLevel, subType, reason, callingApp, paraInt,
                           paraChar, associatedEventId);
        }
        return true;
    }
    Mutex::Autolock lock(mLock);
    if (kind == OP_PRIOR) {
        mPrior = op.Get32();
        return true;
    }
    if (kind != OP_RECORD) {
        return false;
    }
    MediaException record;
    record.eventId = op.Get32();
    record.simple = op.GetU8() != 0;
    record.eventLevel = op.Get32();
    record.subType = op.Get32();
    GetTable(op, &record.reason);
    GetTable(op, &record.callingApp);
    record.count = op.Get32();
    record.paraInt = op.Get32();
    GetTable(op, &record.paraChar);
    record.associatedEventId = op.Get32();
    if (!op.Failed()) {
        mExceptions.add(record);
    }
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
    StateChanged();
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

WriterStats MediaExceptionWriter::GetStats() {
    Mutex::Autolock lock(mLock);
    WriterStats stats = StatsHolding(mExceptions.size(), MAX_EXCEPTION_LOG_SIZE);
    stats.logSuppressed += mNoRecordLog.Suppressed();
    return stats;
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
