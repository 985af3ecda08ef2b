// The worker thread and its queue: the only way from a Binder thread to a
// writer.
#define LOG_TAG "Vymedia_monitor"

#include "service/VyMediaMonitorService.h"

#include <errno.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <log/log.h>
#include <utils/ThreadDefs.h>
#include <utils/Timers.h>

#include "service/ServiceProperties.h"

namespace android {

namespace {

constexpr int32_t kQueueLimit = 512;
constexpr char kThreadName[] = "mediaLogSend";
constexpr int64_t kDefaultWriteCheckSeconds = 3600;

}  // namespace

using Service = VyMediaMonitorService;

Service::LogSendThread::LogSendThread(const wp<VyMediaMonitorService>& service)
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
    mThreadTid = gettid();
    prctl(PR_SET_NAME, kThreadName);
    setpriority(PRIO_PROCESS, gettid(), PRIORITY_BACKGROUND);
    return NO_ERROR;
}

void Service::LogSendThread::SendLogEvent(const sp<LogSrvEvent>& event) {
    const size_t bytes = QueueBytes(*event);
    Mutex::Autolock lock(mQueueLock);
    if (mEventQueue.size() >= static_cast<size_t>(mQueueLimit)) {
        if (mDebuggable) {
            ALOGE("eventQueue full: too many events blocked!");
        }
        return;
    }
    if (mQueueBytes + bytes > MAX_QUEUE_BYTES) {
        if (mQueueBytesLog.Allow()) {
            ALOGE("eventQueue full: %zu bytes waiting, dropping an event of %zu bytes",
                  mQueueBytes, bytes);
        }
        return;
    }
    mEventQueue.push_back(event);
    mQueueBytes += bytes;
    mQueueCond.signal();
}

void Service::LogSendThread::Exit() {
    {
        Mutex::Autolock lock(mQueueLock);
        requestExit();
        mQueueCond.broadcast();
    }
    // Not under mQueueLock: the thread needs it to leave its timed wait.
    if (gettid() != mThreadTid) {
        requestExitAndWait();
    }
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
    while (!exitPending()) {
        if (batch.empty()) {
            // Everything waiting at once: the callers meet the worker on
            // mQueueLock once a batch, not once an event.
            Mutex::Autolock lock(mQueueLock);
            if (!WaitForEvent()) {
                break;
            }
            batch.swap(mEventQueue);
            mQueueBytes = 0;
        }
        const sp<LogSrvEvent> event = std::move(batch.front());
        batch.pop_front();
        // Dropping the last reference here may destroy the service on this
        // thread; its shutdown then stops this loop without waiting for it.
        const sp<VyMediaMonitorService> service = mService.promote();
        if (service != nullptr) {
            service->OnSrvEvent(event);
        }
    }
    return false;
}

bool Service::LogSendThread::WaitForEvent() {
    while (mEventQueue.empty()) {
        if (exitPending()) {
            return false;
        }
        // The idle period counts from the last wake-up.
        const status_t result = mQueueCond.waitRelative(mQueueLock, mWriteCheckDuration);
        if (result == -ETIMEDOUT && mEventQueue.empty()) {
            const sp<LogSrvEvent> check =
                    new LogSrvEvent(EVENT_WRITE_CHECK, -1, -1, String8(), false);
            mEventQueue.push_back(check);
            mQueueBytes += QueueBytes(*check);
        }
    }
    return !exitPending();
}

void Service::SendLogEventLogSrv(const sp<LogSrvEvent>& event) {
    if (mLogSendThread != nullptr && event != nullptr) {
        mLogSendThread->SendLogEvent(event);
    } else if (mDebuggable) {
        ALOGE("SendLogEventLogSrv error");
    }
}

}  // namespace android
