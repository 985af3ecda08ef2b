// The service's account of itself: the counters it keeps while it runs and
// the copy of all of them that a statistics dump renders. Every counter is
// cheap on the path it counts: a relaxed atomic, or a plain field under a
// lock that path takes anyway.
#ifndef VYMM_SERVICE_MONITOR_STATS_H
#define VYMM_SERVICE_MONITOR_STATS_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <iterator>

#include <VyMediaMonitorCalls.h>

#include <utils/Mutex.h>

#include "report/VexelProxy.h"
#include "writers/StatCounter.h"
#include "writers/WriterStats.h"

namespace android {

constexpr size_t MONITOR_OPERATIONS = std::size(vymm::kOperationNames);
// Event types 1 to 21 by their number; slot 0 counts any other type.
constexpr size_t MONITOR_EVENT_TYPES = std::size(vymm::kEventTypeNames);
// In the order of the plain dump: exception log, flow file, count file,
// exception, KPI, big data.
constexpr size_t MONITOR_WRITERS = 6;
// Calling uids whose calls dropped before sending are kept apart; the
// calls of more uids are counted together (16 bytes a uid).
constexpr size_t MONITOR_CLIENT_DROP_UIDS = 16;

// One-way calls that a client process refused before sending them (its
// queue to the service was full, or the service was gone), as it reported them.
struct ClientDrops {
    int32_t uid;
    uint64_t calls;
};

inline size_t EventTypeSlot(int32_t type) {
    return type >= 1 && static_cast<size_t>(type) < MONITOR_EVENT_TYPES
                   ? static_cast<size_t>(type)
                   : 0;
}

// One copy of every counter. Taken part by part, so two parts may be a
// moment apart; within the queue's part the figures agree exactly.
struct MonitorStats {
    // Operations by number - 1: remote calls made, and refused by the caller check.
    uint64_t calls[MONITOR_OPERATIONS] = {};
    uint64_t refused[MONITOR_OPERATIONS] = {};
    int32_t lastRefusedUid = -1;
    int32_t lastRefusedPid = -1;
    uint64_t dumpsGivenUp = 0;  // the caller did not take the text in time
    uint64_t dumpsBusy = 0;     // refused: too many dumps at once
    uint64_t logSuppressed = 0;  // the service's and queue's rate-limited lines held back

    uint64_t queued[MONITOR_EVENT_TYPES] = {};  // taken into the queue, by type
    uint64_t droppedFull = 0;
    uint64_t droppedBytes = 0;
    uint64_t droppedNoWorker = 0;
    uint64_t droppedByAudioFilter = 0;  // MUTE/LOW reports the audio state did not call for
    ClientDrops droppedBeforeSending[MONITOR_CLIENT_DROP_UIDS] = {};
    size_t droppedBeforeSendingUids = 0;  // entries used, in order of first report
    uint64_t droppedBeforeSendingOtherUids = 0;
    uint64_t depth = 0;
    uint64_t highWater = 0;
    uint64_t limit = 0;
    uint64_t bytes = 0;
    uint64_t byteLimit = 0;
    uint64_t dispatched = 0;  // run by the worker, the writers' state after them kept
    uint64_t inHand = 0;      // taken off the queue, not yet dispatched
    uint64_t longestDispatchNs = 0;

    // The call capture; all 0 while it is off.
    bool capturing = false;
    uint64_t captureRenameFailures = 0;  // its file could not be moved to ".1"
    uint64_t capturePathsReplaced = 0;   // something not its own at its path, removed

    bool writerPresent[MONITOR_WRITERS] = {};
    WriterStats writers[MONITOR_WRITERS];

    VexelProxy::Stats reporting{};
};

// The remote calls and their caller checks, bumped on Binder threads.
class CallCounters {
public:
    // operation is the operation's number - 1.
    void Called(size_t operation) { mCalls[operation].Add(); }
    void Refused(size_t operation, int uid, int pid) {
        mRefused[operation].Add();
        mLastRefused.store(Pack(uid, pid), std::memory_order_relaxed);
    }
    void DroppedNoWorker() { mDroppedNoWorker.Add(); }
    void DroppedByAudioFilter() { mDroppedByAudioFilter.Add(); }
    // A client's report of calls it dropped before sending.
    void DroppedBeforeSending(int uid, uint64_t calls) EXCLUDES(mClientDropsLock);
    void DumpGivenUp() { mDumpsGivenUp.Add(); }
    void DumpBusy() { mDumpsBusy.Add(); }

    void CopyTo(MonitorStats* stats) const EXCLUDES(mClientDropsLock);
    void Reset() EXCLUDES(mClientDropsLock);

private:
    // uid and pid in one word, so that a dump never pairs one caller's uid
    // with another's pid; all ones (-1, -1) is "none".
    static uint64_t Pack(int uid, int pid) {
        return (uint64_t{static_cast<uint32_t>(uid)} << 32) | static_cast<uint32_t>(pid);
    }

    StatCounter mCalls[MONITOR_OPERATIONS];
    StatCounter mRefused[MONITOR_OPERATIONS];
    StatCounter mDroppedNoWorker;
    StatCounter mDroppedByAudioFilter;
    StatCounter mDumpsGivenUp;
    StatCounter mDumpsBusy;
    std::atomic<uint64_t> mLastRefused{~uint64_t{0}};
    // Reports are rare: one per burst of refusals in a client.
    mutable Mutex mClientDropsLock;
    ClientDrops mClientDrops[MONITOR_CLIENT_DROP_UIDS] GUARDED_BY(mClientDropsLock) = {};
    size_t mClientDropUids GUARDED_BY(mClientDropsLock) = 0;
    uint64_t mClientDropsOtherUids GUARDED_BY(mClientDropsLock) = 0;
};

}  // namespace android

#endif
