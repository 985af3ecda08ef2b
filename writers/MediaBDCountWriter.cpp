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
    if (mLogMemSize >= MAX_LOG_MEM_SIZE) {
        return;
    }
    // pid -1 has the empty name, so it is counted as an application.
    const bool saturated = appName == "Unknow App" ? UpdateAndCheckTypeCounter(pid, type)
                                                   : UpdateAndCheckBigDataCounter(appName, type);
    if (!saturated) {
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
