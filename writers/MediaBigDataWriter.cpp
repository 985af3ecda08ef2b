// The store, its upload and its dump.
#define LOG_TAG "Vymedia_monitor_bigdata"

#include "writers/MediaBigDataWriter.h"

#include <log/log.h>
#include <utils/Timers.h>

#include "writers/ClientText.h"
#include "writers/ReportEvent.h"

namespace android {

namespace {

constexpr int kBigDataReserve = 20;
constexpr size_t kIntKeyCharge = 4;
constexpr size_t kTextCharge = 8;

// Counted and dumped here, but uploaded by no one on purpose.
bool IsNeverUploaded(int eventId) {
    return (eventId >= 916219001 && eventId <= 916219004) || eventId == 916019401;
}

void SetParams(ReportEvent& event, const DefaultKeyedVector<String8, int>& values) {
    for (size_t i = 0; i < values.size(); ++i) {
        event.SetInt(values.keyAt(i).string(), values.valueAt(i));
    }
}

void SetParams(ReportEvent& event, const DefaultKeyedVector<String8, String8>& values) {
    for (size_t i = 0; i < values.size(); ++i) {
        event.SetString(values.keyAt(i).string(), values.valueAt(i));
    }
}

void SetParams(ReportEvent& event, const BigDataKeyValuesVector& record) {
    SetParams(event, record.intValues);
    SetParams(event, record.strValues);
}

// A text for the dump. A HAPPEN_TIME text ends in the line break of its
// time stamp, which the dump has always shown; any other is escaped.
String8 DumpValue(const String8& text) {
    if (!text.isEmpty() && text.string()[text.length() - 1] == '\n') {
        String8 shown = EscapeClientText(String8(text.string(), text.length() - 1));
        shown.append("\n");
        return shown;
    }
    return EscapeClientText(text);
}

// One report event per entry of table, in ascending id order; an id that the
// library refuses is logged as "Unknown <what> eventId(<id>)" and dropped.
// Returns the events sent.
template <typename Value>
size_t Upload(const DefaultKeyedVector<int, Value>& table, const char* what, bool skipReserved) {
    size_t sent = 0;
    for (size_t i = 0; i < table.size(); ++i) {
        const int eventId = table.keyAt(i);
        if (skipReserved && IsNeverUploaded(eventId)) {
            continue;
        }
        ReportEvent event(eventId);
        if (!event.IsCreated()) {
            ALOGE("Unknown %s eventId(%d)", what, eventId);
            continue;
        }
        SetParams(event, table.valueAt(i));
        event.Send();
        ++sent;
    }
    return sent;
}

}  // namespace

MediaBigDataWriter::MediaBigDataWriter(const sp<MediaMonitorPolicy>& policy)
    : MediaLogBase(policy),
      mStoreBytes(0),
      mMaxBigDataSize(MAX_BIGDATA_SIZE),
      mBigDataReserve(kBigDataReserve) {
    ResetLogMem();
    mLastSendTime = systemTime(SYSTEM_TIME_MONOTONIC);
    mWriterType = LOG_TYPE_BIGDATA;
}

MediaBigDataWriter::~MediaBigDataWriter() { ResetLogMem(); }

// Edited in place rather than copied and written back.
template <typename Value>
Value& MediaBigDataWriter::EntryFor(DefaultKeyedVector<int, Value>& table, int eventId) {
    ssize_t index = table.indexOfKey(eventId);
    if (index < 0) {
        index = table.add(eventId, Value());
        mStoreBytes += BIGDATA_ENTRY_BYTES;
    }
    return table.editValueAt(static_cast<size_t>(index));
}

void MediaBigDataWriter::UpdateInt(DefaultKeyedVector<String8, int>& table, const String8& key,
                                   int delta) {
    const ssize_t index = table.indexOfKey(key);
    if (index < 0) {
        table.add(key, delta);
        mStoreBytes += key.length() + BIGDATA_ENTRY_BYTES;
        mLogMemSize += kIntKeyCharge;
        return;
    }
    int sum = 0;
    if (__builtin_add_overflow(table.valueAt(index), delta, &sum) || sum < 0) {
        return;
    }
    table.editValueAt(static_cast<size_t>(index)) = sum;
}

void MediaBigDataWriter::UpdateStr(DefaultKeyedVector<String8, String8>& table, const String8& key,
                                   const String8& value) {
    const ssize_t index = table.indexOfKey(key);
    if (index < 0) {
        table.add(key, value);
        mStoreBytes += key.length() + value.length() + BIGDATA_ENTRY_BYTES;
    } else if (table.valueAt(index) != value) {
        String8& stored = table.editValueAt(static_cast<size_t>(index));
        mStoreBytes = mStoreBytes - stored.length() + value.length();
        stored = value;
    } else {
        ALOGD("Already exists.");
        return;
    }
    mLogMemSize = kTextCharge;
}

void MediaBigDataWriter::UpdateBigData(DefaultKeyedVector<String8, int>& table, String8 key,
                                       int delta) {
    UpdateInt(table, key, delta);
}

void MediaBigDataWriter::UpdateBigDataKeyValuesTypeInt(DefaultKeyedVector<String8, int>& table,
                                                       String8 key, int delta) {
    UpdateInt(table, key, delta);
}

void MediaBigDataWriter::UpdateBigDataString(DefaultKeyedVector<String8, String8>& table,
                                             String8 key, String8 value) {
    UpdateStr(table, key, value);
}

void MediaBigDataWriter::UpdateBigDataKeyValuesTypeStr(DefaultKeyedVector<String8, String8>& table,
                                                       String8 key, String8 value) {
    UpdateStr(table, key, value);
}

void MediaBigDataWriter::UpdateBigDatas(int eventId, String8 key, int delta) {
    JournalUpdate(OP_COUNT, eventId, key, String8(), delta);
    UpdateBigData(EntryFor(mBigDataCounts, eventId), key, delta);
}

void MediaBigDataWriter::UpdateBigDataStringValues(int eventId, String8 key, String8 value) {
    JournalUpdate(OP_TEXT, eventId, key, value, 0);
    UpdateBigDataString(EntryFor(mBigDataStrings, eventId), key, value);
}

void MediaBigDataWriter::UpdateBigDataKeyValuesnfos(int eventId, String8 key, String8 strValue,
                                                    int intValue) {
    // Neither a text nor a number: a new id must not get an empty record.
    if (strValue.isEmpty() && intValue == -1) {
        return;
    }
    JournalUpdate(OP_KEY_VALUE, eventId, key, strValue, intValue);
    BigDataKeyValuesVector& record = EntryFor(mBigDataKeyValues, eventId);
    if (!strValue.isEmpty()) {
        UpdateBigDataKeyValuesTypeStr(record.strValues, key, strValue);
    }
    if (intValue != -1) {
        UpdateBigDataKeyValuesTypeInt(record.intValues, key, intValue);
    }
}

WriterStats MediaBigDataWriter::GetStats() {
    Mutex::Autolock lock(mBigDataLock);
    WriterStats stats = StatsHolding(
            mBigDataCounts.size() + mBigDataStrings.size() + mBigDataKeyValues.size(),
            mMaxBigDataSize, mStoreBytes, MAX_BIGDATA_BYTES);
    stats.logSuppressed += mStoreFullLog.Suppressed() + mUnknownTypeLog.Suppressed();
    return stats;
}

void MediaBigDataWriter::GetMemInfos(int* curSize, int* maxSize) {
    ReportMemInfos(LOG_TAG, "MediaBigDataWriter::GetMemInfos", curSize, maxSize, mMaxBigDataSize);
}

void MediaBigDataWriter::GetLastTime(long* lastTime, long* period) {
    ReportLastTime(LOG_TAG, "MediaBigDataWriter::GetLastTime", lastTime, period);
}

bool MediaBigDataWriter::DoSendMediaLog() {
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    BeginUpload();
    mCounters.Sent(Upload(mBigDataCounts, "bigdata", true));
    mCounters.Sent(Upload(mBigDataStrings, "bigDataStr", false));
    DoSendMediaLogNew();
    AdvanceLastSendTime();
    ResetLogMem();
    EndUpload();
    mCounters.Uploaded(start);
    return true;
}

void MediaBigDataWriter::DoSendMediaLogNew() {
    mCounters.Sent(Upload(mBigDataKeyValues, "bigdata", false));
}

void MediaBigDataWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mBigDataKeyValues.clear();
    mBigDataStrings.clear();
    mBigDataCounts.clear();
    mStoreBytes = 0;
    mLogMemSize = 0;
    StateChanged();
}

// The journal and the snapshot hold the store's primitive updates, which every
// recorder goes through: replayed, they rebuild the tables exactly.
void MediaBigDataWriter::JournalUpdate(uint8_t kind, int eventId, const String8& key,
                                       const String8& text, int number) {
    StateWriter& op = NewOp();
    EncodeUpdate(kind, eventId, key, text, number, &op);
    Journal(op);
}

void MediaBigDataWriter::EncodeUpdate(uint8_t kind, int eventId, const String8& key,
                                      const String8& text, int number, StateWriter* op) {
    op->PutU8(kind);
    op->Put32(eventId);
    op->PutText(key);
    op->PutText(text);
    op->Put32(number);
}

void MediaBigDataWriter::EncodeState(StateWriter* out) {
    auto put = [out](uint8_t kind, int eventId, const String8& key, const String8& text,
                     int number) {
        StateWriter op;
        EncodeUpdate(kind, eventId, key, text, number, &op);
        out->PutItem(op.Bytes());
    };
    for (size_t i = 0; i < mBigDataCounts.size(); ++i) {
        const DefaultKeyedVector<String8, int>& counts = mBigDataCounts.valueAt(i);
        for (size_t j = 0; j < counts.size(); ++j) {
            put(OP_COUNT, mBigDataCounts.keyAt(i), counts.keyAt(j), String8(), counts.valueAt(j));
        }
    }
    for (size_t i = 0; i < mBigDataStrings.size(); ++i) {
        const DefaultKeyedVector<String8, String8>& texts = mBigDataStrings.valueAt(i);
        for (size_t j = 0; j < texts.size(); ++j) {
            put(OP_TEXT, mBigDataStrings.keyAt(i), texts.keyAt(j), texts.valueAt(j), 0);
        }
    }
    for (size_t i = 0; i < mBigDataKeyValues.size(); ++i) {
        const BigDataKeyValuesVector& record = mBigDataKeyValues.valueAt(i);
        const int eventId = mBigDataKeyValues.keyAt(i);
        for (size_t j = 0; j < record.strValues.size(); ++j) {
            put(OP_KEY_VALUE, eventId, record.strValues.keyAt(j), record.strValues.valueAt(j), -1);
        }
        for (size_t j = 0; j < record.intValues.size(); ++j) {
            put(OP_KEY_VALUE, eventId, record.intValues.keyAt(j), String8(),
                record.intValues.valueAt(j));
        }
    }
}

bool MediaBigDataWriter::ApplyOperation(uint8_t kind, StateReader& op) {
    const int eventId = op.Get32();
    const String8 key = op.GetText();
    const String8 text = op.GetText();
    const int number = op.Get32();
    if (op.Failed()) {
        return false;
    }
    Mutex::Autolock lock(mBigDataLock);
    // Within the byte limit, as a recorder would have kept it.
    if (mStoreBytes + key.length() + text.length() + 2 * BIGDATA_ENTRY_BYTES > MAX_BIGDATA_BYTES) {
        mCounters.Refused(REFUSED_BYTE_LIMIT);
        return true;
    }
    switch (kind) {
        case OP_COUNT:
            UpdateBigDatas(eventId, key, number);
            return true;
        case OP_TEXT:
            UpdateBigDataStringValues(eventId, key, text);
            return true;
        case OP_KEY_VALUE:
            UpdateBigDataKeyValuesnfos(eventId, key, text, number);
            return true;
        default:
            return false;
    }
}

void MediaBigDataWriter::SendMediaLog() {
    Mutex::Autolock lock(mBigDataLock);
    DoSendMediaLog();
}

void MediaBigDataWriter::TriggerLog() {
    Mutex::Autolock lock(mBigDataLock);
    TriggerLogStrategy();
}

String8 MediaBigDataWriter::DumpText() {
    Mutex::Autolock lock(mBigDataLock);
    String8 text("\n\n---------BigData Record Begin---------\n\n");
    for (size_t i = 0; i < mBigDataCounts.size(); ++i) {
        text.appendFormat("eventId: %d\n", mBigDataCounts.keyAt(i));
        const DefaultKeyedVector<String8, int>& counts = mBigDataCounts.valueAt(i);
        for (size_t j = 0; j < counts.size(); ++j) {
            text.appendFormat("type: %s, value: %d\n", EscapeClientText(counts.keyAt(j)).string(),
                              counts.valueAt(j));
        }
    }
    for (size_t i = 0; i < mBigDataStrings.size(); ++i) {
        text.appendFormat("eventId: %d\n", mBigDataStrings.keyAt(i));
        const DefaultKeyedVector<String8, String8>& texts = mBigDataStrings.valueAt(i);
        for (size_t j = 0; j < texts.size(); ++j) {
            text.appendFormat("type: %s, valueStr: %s\n", EscapeClientText(texts.keyAt(j)).string(),
                              DumpValue(texts.valueAt(j)).string());
        }
    }
    return text;
}

}  // namespace android
