// What the two big-data file writers share: their record file, kept open in
// append mode, the flush of their records to it, the upload step that reads
// the file back and starts it anew, and the getters that the send policy reads.
//
// Public operations take mLock for their whole body and may run on the worker
// or a Binder thread. The policy's call-backs (WriteToFile, DoSendMediaLog,
// ResetLogMem, the getters) run with mLock already held and never take it.
#ifndef VYMM_WRITERS_MEDIA_BD_FILE_WRITER_H
#define VYMM_WRITERS_MEDIA_BD_FILE_WRITER_H

#include <stddef.h>
#include <sys/types.h>

#include <utils/Mutex.h>
#include <utils/String8.h>

#include "writers/MediaLogBase.h"

namespace android {

class MediaBDFileWriter : public MediaLogBase {
public:
    // Memory cap, in the writer's own unit, and record file cap in bytes.
    static constexpr size_t MAX_LOG_MEM_SIZE = 512;
    static constexpr size_t MAX_FILE_SIZE = MAX_RECORD_FILE_SIZE;

    ~MediaBDFileWriter() override;

    // Locked forms of the call-backs, for the service: a flush of memory to
    // the file (memory is kept) and a forced upload.
    void FlushToFile() EXCLUDES(mLock);
    bool SendMediaLog() EXCLUDES(mLock);
    String8 DumpText() override EXCLUDES(mLock);
    WriterStats GetStats() override EXCLUDES(mLock);

    // Appends the records held to the file, unless the file has been removed.
    void WriteToFile() override REQUIRES(mLock);
    // Hands the file's text to the radar check, then empties memory and file.
    bool DoSendMediaLog() override REQUIRES(mLock);
    const char* GetFilePath() override REQUIRES(mLock);
    void GetMemInfos(int* cur, int* max) override REQUIRES(mLock);
    void GetFileInfos(int* max) override REQUIRES(mLock);
    void GetLastTime(long* lastTime, long* cycle) override REQUIRES(mLock);

protected:
    // className names the writer in the getters' null-pointer lines.
    MediaBDFileWriter(const sp<MediaMonitorPolicy>& policy, int32_t writerType,
                      const char* className, const char* path);

    // Opens the record file, keeping an existing one; closes the previous
    // descriptor. The debug lines take the path; createLog may be null.
    int OpenRecordFile(const char* createLog, const char* existsLog) REQUIRES(mLock);

    // The records held, as the file takes them or, for a dump, with the
    // dump's heading and layout.
    virtual String8 FormatRecords(bool forDump) REQUIRES(mLock) = 0;
    virtual size_t HeldRecords() REQUIRES(mLock) = 0;
    int64_t RecordFileSize() override REQUIRES(mLock);

    // -1 while the file cannot be opened.
    int mFd GUARDED_BY(mLock);

private:
    // Closes mFd if open, then opens the file read-write in append mode.
    void Reopen(int extraFlags, mode_t mode) REQUIRES(mLock);

    const char* const mPath;
    const String8 mMemInfosWhere;
    const String8 mFileInfosWhere;
    const String8 mLastTimeWhere;
};

}  // namespace android

#endif
