// The worker thread and its queue: the only way from a Binder thread to a
// writer.
#define LOG_TAG "Vymedia_monitor"
#define ATRACE_TAG ATRACE_TAG_AUDIO

#include "service/VyMediaMonitorService.h"

#include <errno.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include <cutils/trace.h>
#include <log/log.h>
#include <utils/ThreadDefs.h>
#include <utils/Timers.h>

#include "service/ServiceProperties.h"

namespace android {

namespace {

constexpr int32_t kQueueLimit = 512;
constexpr char kThreadName[] = "mediaLogSend";
constexpr int64_t kDefaultWriteCheckSeconds = 3600;
// In system traces: the worker's batches, and the queue's depth.
constexpr char kBatchSection[] = "Vymedia.monitor batch";
constexpr char kDepthCounter[] = "Vymedia.monitor queue";

}  // namespace

using Service = VyMediaMonitorService;

Service::LogSendThread::LogSendThread(VyMediaMonitorService* service)
    : Thread(true),
      mQueueLimit(kQueueLimit),
      mService(service),
      mQueueBytes(0),
      mDebuggable(false),
      mWriteCheckDuration(0) {}

Service::LogSendThread::~LogSendThread() {
    Mutex::Autolock lock(mQueueLock);
    mEventQueue.clear();
}

void Service::LogSendThread::onFirstRef() {
    mDebuggable = ReadDebuggable();
    mWriteCheckDuration = seconds_to_nanoseconds(kDefaultWriteCheckSeconds);
    const int32_t seconds = ReadIntProperty("ro.media.checkduration", "-1");
    if (seconds >= 1) {
        mWriteCheckDuration = seconds_to_nanoseconds(static_cast<uint32_t>(seconds));
    }
    if (mDebuggable) {
        ALOGD("LogSendThread mWriteCheckDuration = %dS",
              static_cast<int>(nanoseconds_to_seconds(mWriteCheckDuration)));
    }
    run(kThreadName, PRIORITY_BACKGROUND, 0);
}

status_t Service::LogSendThread::readyToRun() {
    prctl(PR_SET_NAME, kThreadName);
    setpriority(PRIO_PROCESS, gettid(), PRIORITY_BACKGROUND);
    return NO_ERROR;
}

void Service::LogSendThread::SendLogEvent(const sp<LogSrvEvent>& event) {
    const size_t bytes = QueueBytes(*event);
    Mutex::Autolock lock(mQueueLock);
    if (mEventQueue.size() >= static_cast<size_t>(mQueueLimit)) {
        mCounters.droppedFull.Add();
        if (mDebuggable) {
            ALOGE("eventQueue full: too many events blocked!");
        }
        return;
    }
    if (mQueueBytes + bytes > MAX_QUEUE_BYTES) {
        mCounters.droppedBytes.Add();
        if (mQueueBytesLog.Allow()) {
            ALOGE("eventQueue full: %zu bytes waiting, dropping an event of %zu bytes",
                  mQueueBytes, bytes);
        }
        return;
    }
    Push(event, bytes);
    mQueueCond.signal();
}

void Service::LogSendThread::Push(const sp<LogSrvEvent>& event, size_t bytes) {
    mEventQueue.push_back(event);
    mQueueBytes += bytes;
    mCounters.queued[EventTypeSlot(event->type)].Add();
    mCounters.highWater.Raise(mEventQueue.size());
    ATRACE_INT(kDepthCounter, static_cast<int32_t>(mEventQueue.size()));
}

void Service::LogSendThread::Nudge() {
    Mutex::Autolock lock(mQueueLock);
    mNudged = true;
    mQueueCond.signal();
}

void Service::LogSendThread::Exit() {
    {
        Mutex::Autolock lock(mQueueLock);
        requestExit();
        mQueueCond.broadcast();
    }
    // Not under mQueueLock: the thread needs it to leave its timed wait.
    requestExitAndWait();
}

auto Service::LogSendThread::TakeQueue() -> std::deque<sp<LogSrvEvent>> {
    std::deque<sp<LogSrvEvent>> events;
    Mutex::Autolock lock(mQueueLock);
    events.swap(mEventQueue);
    mQueueBytes = 0;
    return events;
}

bool Service::LogSendThread::threadLoop() {
    // Taken off the queue, so no longer counted against its bounds.
    std::deque<sp<LogSrvEvent>> batch;
    size_t ran = 0;  // events of the batch run so far
    while (!exitPending()) {
        if (batch.empty()) {
            if (!TakeBatch(&batch)) {
                break;
            }
            if (batch.empty()) {  // nudged: a writer took something in directly
                mService->PersistBatch();
                continue;
            }
            ATRACE_BEGIN(kBatchSection);
        }
        const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
        mService->OnSrvEvent(batch.front());
        mLongestDispatchNs.Raise(static_cast<uint64_t>(systemTime(SYSTEM_TIME_MONOTONIC) - start));
        ++ran;
        batch.pop_front();
        if (batch.empty()) {
            ATRACE_END();
            FinishBatch(ran);
            ran = 0;
        }
    }
    if (!batch.empty()) {
        // Stopped within a batch: what it still holds goes back to the head
        // of the queue, in order, for the shutdown to dispatch.
        ATRACE_END();
        FinishBatch(ran);
        PutBack(&batch);
    }
    return false;
}

void Service::LogSendThread::FinishBatch(size_t ran) {
    mService->PersistBatch();
    mDispatched.Add(ran);
}

void Service::LogSendThread::PutBack(std::deque<sp<LogSrvEvent>>* batch) {
    Mutex::Autolock lock(mQueueLock);
    // Queued again: counted in the depth, no longer as taken.
    mCounters.taken.Sub(batch->size());
    while (!batch->empty()) {
        mQueueBytes += QueueBytes(*batch->back());
        mEventQueue.push_front(std::move(batch->back()));
        batch->pop_back();
    }
}

bool Service::LogSendThread::TakeBatch(std::deque<sp<LogSrvEvent>>* batch) {
    // Everything waiting at once: the callers meet the worker on mQueueLock
    // once a batch, not once an event.
    Mutex::Autolock lock(mQueueLock);
    if (!WaitForEvent()) {
        return false;
    }
    batch->swap(mEventQueue);
    mQueueBytes = 0;
    mCounters.taken.Add(batch->size());
    ATRACE_INT(kDepthCounter, 0);
    mNudged = false;
    return true;
}

bool Service::LogSendThread::WaitForEvent() {
    while (mEventQueue.empty() && !mNudged) {
        if (exitPending()) {
            return false;
        }
        // The idle period counts from the last wake-up.
        const status_t result = mQueueCond.waitRelative(mQueueLock, mWriteCheckDuration);
        if (result == -ETIMEDOUT && mEventQueue.empty()) {
            const sp<LogSrvEvent> check =
                    new LogSrvEvent(EVENT_WRITE_CHECK, -1, -1, String8(), false);
            Push(check, QueueBytes(*check));
        }
    }
    return !exitPending();
}

void Service::LogSendThread::CopyStatsTo(MonitorStats* stats) {
    Mutex::Autolock lock(mQueueLock);
    for (size_t type = 0; type < MONITOR_EVENT_TYPES; ++type) {
        stats->queued[type] = mCounters.queued[type].Get();
    }
    stats->droppedFull = mCounters.droppedFull.Get();
    stats->droppedBytes = mCounters.droppedBytes.Get();
    stats->depth = mEventQueue.size();
    stats->highWater = mCounters.highWater.Get();
    stats->limit = static_cast<uint64_t>(mQueueLimit);
    stats->bytes = mQueueBytes;
    stats->byteLimit = MAX_QUEUE_BYTES;
    // Taken first: an event dispatched since then is counted in both, never
    // in neither.
    const uint64_t taken = mCounters.taken.Get();
    stats->dispatched = std::min(mDispatched.Get(), taken);
    stats->inHand = taken - stats->dispatched;
    stats->longestDispatchNs = mLongestDispatchNs.Get();
    stats->logSuppressed += mQueueBytesLog.Suppressed();
}

void Service::LogSendThread::ResetStats() {
    Mutex::Autolock lock(mQueueLock);
    mCounters = QueueCounters();
    mCounters.highWater.Raise(mEventQueue.size());
    mDispatched.Reset();
    mLongestDispatchNs.Reset();
}

void Service::SendLogEventLogSrv(const sp<LogSrvEvent>& event) {
    if (mLogSendThread != nullptr && event != nullptr) {
        mLogSendThread->SendLogEvent(event);
        return;
    }
    mCallCounters.DroppedNoWorker();
    if (mDebuggable) {
        ALOGE("SendLogEventLogSrv error");
    }
}

}  // namespace android
