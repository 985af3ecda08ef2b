#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaBDFlowWriter.h"

#include <log/log.h>

#include "writers/ClientText.h"

namespace android {

namespace {

constexpr size_t kRecordCharge = 8;

}  // namespace

MediaBDFlowWriter::MediaBDFlowWriter(const sp<MediaMonitorPolicy>& policy)
    : MediaBDFileWriter(policy, LOG_TYPE_BD_FLOW, "MediaBDFlowWriter", BD_FLOW_FILE) {
    ResetLogMem();
    GetBDFlowFd();
}

MediaBDFlowWriter::~MediaBDFlowWriter() { ResetLogMem(); }

int MediaBDFlowWriter::GetBDFlowFd() {
    Mutex::Autolock lock(mLock);
    return OpenRecordFile(nullptr, "stat() success for %s");
}

void MediaBDFlowWriter::WriteBigDataMsg(int pid, int type, String8 msg) {
    Mutex::Autolock lock(mLock);
    if (mLogMemSize < MAX_LOG_MEM_SIZE) {
        BigData record{pid, type, 0, GetFormattedCurrentTime(), GetAppNameByPid(pid), msg};
        mLogMemSize +=
                record.msg.length() + record.appName.length() + record.time.length() + kRecordCharge;
        mBigDatas.push_back(record);
    }
    // A full writer still asks the policy, so a due upload is not held back.
    TriggerLogStrategy();
}

void MediaBDFlowWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mBigDatas.clear();
    mLogMemSize = 0;
}

String8 MediaBDFlowWriter::FormatRecords(bool forDump) {
    // The dump puts a blank after the pid and the type; the file does not.
    String8 text(forDump ? "\n\n---------bigData Flow Record Begin---------\n\n" : "");
    for (size_t i = 0; i < mBigDatas.size(); ++i) {
        const BigData& record = mBigDatas[i];
        text.append(mNewLine);
        text.append(record.time);
        text.append("  ");
        text.append(EscapeClientText(record.appName));
        text.append(mAt);
        text.appendFormat(forDump ? "%d: %d, " : "%d:%d,", record.pid, record.type);
        text.append(EscapeClientText(record.msg));
    }
    return text;
}

}  // namespace android
