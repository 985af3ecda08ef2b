// What one writer holds and has done, for the statistics dump: the counters
// it bumps under its own mutex (WriterCounters) and the copy a dump takes
// (WriterStats).
#ifndef VYMM_WRITERS_WRITER_STATS_H
#define VYMM_WRITERS_WRITER_STATS_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <initializer_list>

#include <utils/Timers.h>

#include "writers/StatCounter.h"

namespace android {

// Why a writer refused to keep what it was given.
enum WriterRefusal : size_t {
    REFUSED_CAP,           // its charge had reached its cap
    REFUSED_BYTE_LIMIT,    // it would have passed its hard byte limit
    REFUSED_INVALID,       // malformed, or an id it does not know
    REFUSED_SATURATED,     // a counter already at its ceiling
    REFUSED_FILE_MISSING,  // records flushed while the record file was removed
    WRITER_REFUSALS,
};

struct WriterStats {
    // Held now.
    uint64_t records = 0;
    uint64_t charge = 0;  // mLogMemSize, in the writer's own unit
    uint64_t cap = 0;
    uint64_t bytes = 0;      // as the byte limit counts them; 0 without one
    uint64_t byteLimit = 0;  // 0: none
    // Since start or the last reset.
    uint64_t refused[WRITER_REFUSALS] = {};
    uint64_t merged = 0;  // reports folded into a record already held
    uint64_t uploads = 0;
    uint64_t eventsSent = 0;
    int64_t lastUploadTime = 0;  // seconds since the epoch; 0: none
    uint64_t longestUploadNs = 0;
    uint64_t fileBytes = 0;  // appended to the record file
    uint64_t fileTruncations = 0;
    uint64_t pathsReplaced = 0;  // something not ours at the record path, removed
    uint64_t pathsSkipped = 0;   // ... that could not be removed
    uint64_t logSuppressed = 0;  // rate-limited lines held back, since start
    // Durable state, since start.
    uint64_t recoveredRecords = 0;  // from the snapshot
    uint64_t recoveredEvents = 0;   // replayed from the journal
    uint64_t journalBytes = 0;      // in the journal now
    uint64_t snapshots = 0;
    uint64_t damagedDropped = 0;    // short or damaged records, files moved aside
    uint64_t uploadsInDoubt = 0;    // a start-up found an upload begun, not ended
    uint64_t persistFailures = 0;   // writes, syncs or renames that failed
};

class WriterCounters {
public:
    void Refused(WriterRefusal cause) { mRefused[cause].Add(); }
    void Merged() { mMerged.Add(); }
    void Sent(uint64_t events = 1) { mEventsSent.Add(events); }
    // An upload that began at start (monotonic) has ended.
    void Uploaded(nsecs_t start) {
        mUploads.Add();
        mLastUploadTime.Set(static_cast<uint64_t>(time(nullptr)));
        mLongestUploadNs.Raise(static_cast<uint64_t>(systemTime(SYSTEM_TIME_MONOTONIC) - start));
    }
    void WroteFile(uint64_t bytes) { mFileBytes.Add(bytes); }
    void TruncatedFile() { mFileTruncations.Add(); }
    void ReplacedPath() { mPathsReplaced.Add(); }
    void SkippedPath() { mPathsSkipped.Add(); }
    void Recovered(uint64_t records, uint64_t events) {
        mRecoveredRecords.Add(records);
        mRecoveredEvents.Add(events);
    }
    void DroppedDamaged() { mDamaged.Add(); }
    void UploadInDoubt() { mInDoubt.Add(); }

    // Copies the counters into stats, leaving what is held now alone.
    void CopyTo(WriterStats* stats) const {
        for (size_t i = 0; i < WRITER_REFUSALS; ++i) {
            stats->refused[i] = mRefused[i].Get();
        }
        stats->merged = mMerged.Get();
        stats->uploads = mUploads.Get();
        stats->eventsSent = mEventsSent.Get();
        stats->lastUploadTime = static_cast<int64_t>(mLastUploadTime.Get());
        stats->longestUploadNs = mLongestUploadNs.Get();
        stats->fileBytes = mFileBytes.Get();
        stats->fileTruncations = mFileTruncations.Get();
        stats->pathsReplaced = mPathsReplaced.Get();
        stats->pathsSkipped = mPathsSkipped.Get();
        stats->recoveredRecords = mRecoveredRecords.Get();
        stats->recoveredEvents = mRecoveredEvents.Get();
        stats->damagedDropped = mDamaged.Get();
        stats->uploadsInDoubt = mInDoubt.Get();
    }

    void Reset() {
        for (StatCounter* counter : {&mMerged, &mUploads, &mEventsSent, &mLastUploadTime,
                                     &mLongestUploadNs, &mFileBytes, &mFileTruncations,
                                     &mPathsReplaced, &mPathsSkipped}) {
            counter->Reset();
        }
        for (StatCounter& counter : mRefused) {
            counter.Reset();
        }
    }

private:
    StatCounter mRefused[WRITER_REFUSALS];
    StatCounter mMerged;
    StatCounter mUploads;
    StatCounter mEventsSent;
    StatCounter mLastUploadTime;
    StatCounter mLongestUploadNs;
    StatCounter mFileBytes;
    StatCounter mFileTruncations;
    StatCounter mPathsReplaced;
    StatCounter mPathsSkipped;
    // What a start-up found; a reset of the statistics leaves them.
    StatCounter mRecoveredRecords;
    StatCounter mRecoveredEvents;
    StatCounter mDamaged;
    StatCounter mInDoubt;
};

}  // namespace android

#endif
