// The service with its protected state in reach, for in-process tests.
#ifndef VYMM_TESTS_SERVICE_PROBE_H
#define VYMM_TESTS_SERVICE_PROBE_H

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "service/VyMediaMonitorService.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

using MonitorEvent = android::sp<android::VyMediaMonitorService::LogSrvEvent>;

// An event of type without fields of its own; a file message's value is its
// pid, any other's its priority.
inline MonitorEvent Plain(int32_t type, int value = -1, int subType = -1, const char* msg = "") {
    using S = android::VyMediaMonitorService;
    const bool fileMessage = type == S::EVENT_BD_FLOW_MSG || type == S::EVENT_BD_COUNT_MSG ||
                             type == S::EVENT_BD_FLOW_COUNT_MSG;
    return new S::LogSrvEvent(static_cast<S::EventType>(type), value, subType,
                              android::String8(msg), fileMessage);
}

inline MonitorEvent Exception(int eventId) {
    using S = android::VyMediaMonitorService;
    return new S::ExceptionEvent(S::EVENT_EXCEPTION, 1, eventId, 1, 2, android::String8("timeout"),
                                 android::String8("AudioTrack"));
}

class ServiceProbe : public android::VyMediaMonitorService {
public:
    using VyMediaMonitorService::mBDCountWriter;
    using VyMediaMonitorService::mBDFlowWriter;
    using VyMediaMonitorService::mBigDataWriter;
    using VyMediaMonitorService::mDispatchLock;
    using VyMediaMonitorService::mExceptionLogWriter;
    using VyMediaMonitorService::mExceptionWriter;
    using VyMediaMonitorService::mKpiWriter;
    using VyMediaMonitorService::mLogSendThread;
    using VyMediaMonitorService::mPolicy;
    using VyMediaMonitorService::mStaticTypeFlags;

    // True once the worker has taken everything queued, within the usual
    // deadline; with mDispatchLock held by the caller it then waits there.
    bool WorkerTookQueue() {
        return Eventually([&] {
            android::MonitorStats stats;
            mLogSendThread->CopyStatsTo(&stats);
            return stats.depth == 0;
        });
    }

    // Queues event as an entry point does.
    void Queue(const android::sp<LogSrvEvent>& event) {
        android::Mutex::Autolock lock(mLock);
        SendLogEventLogSrv(event);
    }

    // Waits until the worker has dispatched everything queued before: queues
    // an event of a type of its own, again while a full queue refuses it (the
    // worker may be in a long batch), and waits for the line that reports it
    // unknown. Needs ro.media.debuggable "true".
    bool Drain(const LogCapture& log,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        static std::atomic<int32_t> nextType{1000000};
        const int32_t type = nextType++;
        const auto queued = [&] {
            const size_t refusals = log.CountContaining("Vymedia_monitor", "eventQueue full");
            Queue(Plain(type));
            return log.CountContaining("Vymedia_monitor", "eventQueue full") == refusals;
        };
        return Eventually(queued, timeout) &&
               log.WaitFor("Vymedia_monitor",
                           "OnSrvEvent unknown event type " + std::to_string(type), timeout);
    }
};

// A send thread that never runs, put in place of a service's worker: what
// the service queues stays there, in order, until taken.
class HeldQueue : public android::VyMediaMonitorService::LogSendThread {
public:
    using Event = MonitorEvent;

    explicit HeldQueue(android::VyMediaMonitorService* service)
        : LogSendThread(service) {}

    // What was queued since the last take, oldest first.
    std::vector<Event> Take() {
        android::Mutex::Autolock lock(mQueueLock);
        std::vector<Event> events(mEventQueue.begin(), mEventQueue.end());
        mEventQueue.clear();
        mQueueBytes = 0;
        return events;
    }

protected:
    void onFirstRef() override {}
};

#endif
