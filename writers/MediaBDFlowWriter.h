// Keeps big-data messages in arrival order (time, application, pid, type,
// text) and appends them, one line each, to "data/log/mediaBDflow.log" when
// the send policy flushes or uploads them.
//
// WriteBigDataMsg and the other public operations take mLock; the worker
// thread writes, Binder threads dump. The message list is guarded by mLock.
#ifndef VYMM_WRITERS_MEDIA_BD_FLOW_WRITER_H
#define VYMM_WRITERS_MEDIA_BD_FLOW_WRITER_H

#include <utils/String8.h>
#include <utils/Vector.h>

#include "writers/MediaBDFileWriter.h"

namespace android {

class MediaBDFlowWriter : public MediaBDFileWriter {
public:
    explicit MediaBDFlowWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaBDFlowWriter() override;

    // Opens the flow file (see OpenRecordFile) and returns mFd, -1 on failure.
    int GetBDFlowFd() EXCLUDES(mLock);
    // Records one message unless memory is full; triggers the policy either way.
    void WriteBigDataMsg(int pid, int type, String8 msg) EXCLUDES(mLock);

    void ResetLogMem() override REQUIRES(mLock);

protected:
    String8 FormatRecords(bool forDump) override REQUIRES(mLock);
    size_t HeldRecords() override REQUIRES(mLock) { return mBigDatas.size(); }
    void EncodeState(StateWriter* out) override REQUIRES(mLock);
    bool ApplyOperation(uint8_t kind, StateReader& op) override;

    // Each message charges the lengths of its three texts plus 8.
    Vector<MediaLogBase::BigData> mBigDatas GUARDED_BY(mLock);

private:
    // Keeps record unless memory is full, then consults the policy.
    void AddRecord(const BigData& record) REQUIRES(mLock);
    static void EncodeRecord(const BigData& record, StateWriter* op);
};

}  // namespace android

#endif
