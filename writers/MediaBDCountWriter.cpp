#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaBDCountWriter.h"

#include <log/log.h>

#include "writers/ClientText.h"

namespace android {

namespace {

using Counters = DefaultKeyedVector<int, unsigned int>;

// One below the largest value, so a saturated counter is never mistaken for a
// wrapped one.
constexpr unsigned int kCounterCeiling = 4294967294u;
constexpr size_t kPairCharge = 4;

enum : uint8_t {
    OP_COUNT = 1,      // one message: named (1) or not, name, pid, type
    OP_COUNTERS = 2,   // a counter as held: named or not, name, pid, type, value
};

// Counts one message of type under key; true when saturated (nothing counted).
template <typename Key>
bool CountMessage(KeyedVector<Key, Counters>* table, const Key& key, int type,
                  size_t* memSize) {
    const ssize_t keyIndex = table->indexOfKey(key);
    if (keyIndex < 0) {
        Counters counters(0);
        counters.add(type, 1);
        table->add(key, counters);
        *memSize += kPairCharge;
        return false;
    }
    Counters& counters = table->editValueAt(keyIndex);
    const ssize_t typeIndex = counters.indexOfKey(type);
    if (typeIndex < 0) {
        counters.add(type, 1);
        *memSize += kPairCharge;
    } else if (counters.valueAt(typeIndex) == kCounterCeiling) {
        return true;
    } else {
        counters.editValueAt(typeIndex)++;
    }
    return false;
}

void AppendCounters(String8* text, const Counters& counters) {
    for (size_t i = 0; i < counters.size(); ++i) {
        text->appendFormat("\t%d:%u\n", counters.keyAt(i), counters.valueAt(i));
    }
}

}  // namespace

MediaBDCountWriter::MediaBDCountWriter(const sp<MediaMonitorPolicy>& policy)
    : MediaBDFileWriter(policy, LOG_TYPE_BD_COUNT, "MediaBDCountWriter", BD_COUNT_FILE) {
    ResetLogMem();
    GetBDCountFd();
}

MediaBDCountWriter::~MediaBDCountWriter() { ResetLogMem(); }

int MediaBDCountWriter::GetBDCountFd() {
    Mutex::Autolock lock(mLock);
    return OpenRecordFile("MediaBDCountWriter, gona to create %s",
                          "MediaBDCountWriter stat() success for %s");
}

void MediaBDCountWriter::WriteBigDataMsg(int pid, int type) {
    Mutex::Autolock lock(mLock);
    const String8 appName = GetAppNameByPid(pid);
    if (mDebuggable) {
        ALOGI("MediaBDCountWriter::WriteBigDataMsg,pid:%d, type:%d,appName:%s", pid, type,
              appName.string());
    }
    // pid -1 has the empty name, so it is counted as an application.
    const bool named = appName != "Unknow App";
    StateWriter& op = NewOp();
    op.PutU8(OP_COUNT);
    EncodeKey(named, appName, pid, type, &op);
    Journal(op);
    Count(named, appName, pid, type);
}

void MediaBDCountWriter::EncodeKey(bool named, const String8& appName, int pid, int type,
                                   StateWriter* op) {
    op->PutU8(named ? 1 : 0);
    op->PutText(named ? appName : String8());
    op->Put32(pid);
    op->Put32(type);
}

void MediaBDCountWriter::Count(bool named, const String8& appName, int pid, int type) {
    if (mLogMemSize >= MAX_LOG_MEM_SIZE) {
        mCounters.Refused(REFUSED_CAP);
        return;
    }
    const bool saturated = named ? UpdateAndCheckBigDataCounter(appName, type)
                                 : UpdateAndCheckTypeCounter(pid, type);
    if (saturated) {
        mCounters.Refused(REFUSED_SATURATED);
    } else {
        TriggerLogStrategy();
    }
}

bool MediaBDCountWriter::UpdateAndCheckBigDataCounter(String8 appName, int type) {
    return CountMessage(&mAppCounters, appName, type, &mLogMemSize);
}

bool MediaBDCountWriter::UpdateAndCheckTypeCounter(int pid, int type) {
    return CountMessage(&mPidCounters, pid, type, &mLogMemSize);
}

void MediaBDCountWriter::ResetLogMem() {
    mAppCounters.clear();
    mPidCounters.clear();
    mLogMemSize = 0;
    StateChanged();
}

void MediaBDCountWriter::EncodeState(StateWriter* out) {
    auto encode = [out](bool named, const String8& name, int pid, const TypeCounters& counters) {
        for (size_t i = 0; i < counters.size(); ++i) {
            StateWriter op;
            op.PutU8(OP_COUNTERS);
            EncodeKey(named, name, pid, counters.keyAt(i), &op);
            op.Put32(static_cast<int32_t>(counters.valueAt(i)));
            out->PutItem(op.Bytes());
        }
    };
    for (size_t i = 0; i < mAppCounters.size(); ++i) {
        encode(true, mAppCounters.keyAt(i), 0, mAppCounters.valueAt(i));
    }
    for (size_t i = 0; i < mPidCounters.size(); ++i) {
        encode(false, String8(), mPidCounters.keyAt(i), mPidCounters.valueAt(i));
    }
}

bool MediaBDCountWriter::ApplyOperation(uint8_t kind, StateReader& op) {
    if (kind != OP_COUNT && kind != OP_COUNTERS) {
        return false;
    }
    const bool named = op.GetU8() != 0;
    const String8 appName = op.GetText();
    const int pid = op.Get32();
    const int type = op.Get32();
    const unsigned int value = kind == OP_COUNTERS ? static_cast<uint32_t>(op.Get32()) : 1;
    if (op.Failed() || value == 0 || value > kCounterCeiling) {
        return false;
    }
    Mutex::Autolock lock(mLock);
    if (kind == OP_COUNT) {
        Count(named, appName, pid, type);
        return true;
    }
    // The first message makes the pair and charges it; the rest is its count.
    named ? UpdateAndCheckBigDataCounter(appName, type) : UpdateAndCheckTypeCounter(pid, type);
    if (named) {
        mAppCounters.editValueFor(appName).editValueFor(type) = value;
    } else {
        mPidCounters.editValueFor(pid).editValueFor(type) = value;
    }
    return true;
}

void MediaBDCountWriter::GetMemInfos(int* cur, int* max) {
    MediaBDFileWriter::GetMemInfos(cur, max);
    if (cur == nullptr || max == nullptr) {
        return;
    }
    ALOGD("MediaBDCountWriter::GetMemInfos: mLogMemSize:%zu,MAX_LOG_MEM_SIZE:%zu", mLogMemSize,
          MAX_LOG_MEM_SIZE);
}

String8 MediaBDCountWriter::FormatRecords(bool forDump) {
    String8 text(forDump ? "\n\n---------bigData Count Record Begin---------\n\n"
                         : "---------New Record Begin---------\n\n");
    for (size_t i = 0; i < mAppCounters.size(); ++i) {
        text.append(EscapeClientText(mAppCounters.keyAt(i)));
        text.append(":\n");
        AppendCounters(&text, mAppCounters.valueAt(i));
    }
    for (size_t i = 0; i < mPidCounters.size(); ++i) {
        text.appendFormat("Unknow App@%d:\n", mPidCounters.keyAt(i));
        AppendCounters(&text, mPidCounters.valueAt(i));
    }
    return text;
}

}  // namespace android
