#define LOG_TAG "Vymedia_monitor"

#include "writers/MediaBDFlowWriter.h"

#include <log/log.h>

#include "writers/ClientText.h"

namespace android {

namespace {

constexpr size_t kRecordCharge = 8;
constexpr uint8_t OP_RECORD = 1;  // one message as it was recorded

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
    const BigData record{pid, type, 0, GetFormattedCurrentTime(), GetAppNameByPid(pid), msg};
    StateWriter& op = NewOp();
    EncodeRecord(record, &op);
    Journal(op);
    AddRecord(record);
}

void MediaBDFlowWriter::EncodeRecord(const BigData& record, StateWriter* op) {
    op->PutU8(OP_RECORD);
    op->Put32(record.pid);
    op->Put32(record.type);
    op->PutText(record.time);
    op->PutText(record.appName);
    op->PutText(record.msg);
}

void MediaBDFlowWriter::EncodeState(StateWriter* out) {
    for (size_t i = 0; i < mBigDatas.size(); ++i) {
        StateWriter op;
        EncodeRecord(mBigDatas[i], &op);
        out->PutItem(op.Bytes());
    }
}

bool MediaBDFlowWriter::ApplyOperation(uint8_t kind, StateReader& op) {
    if (kind != OP_RECORD) {
        return false;
    }
    BigData record{};
    record.pid = op.Get32();
    record.type = op.Get32();
    record.time = op.GetText();
    record.appName = op.GetText();
    record.msg = op.GetText();
    if (!op.Failed()) {
        Mutex::Autolock lock(mLock);
        AddRecord(record);
    }
    return true;
}

void MediaBDFlowWriter::AddRecord(const BigData& record) {
    if (mLogMemSize < MAX_LOG_MEM_SIZE) {
        mLogMemSize +=
                record.msg.length() + record.appName.length() + record.time.length() + kRecordCharge;
        mBigDatas.push_back(record);
    } else {
        mCounters.Refused(REFUSED_CAP);
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
    StateChanged();
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
