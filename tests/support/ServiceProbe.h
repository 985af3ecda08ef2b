// The service with its protected state in reach, for in-process tests.
#ifndef VYMM_TESTS_SERVICE_PROBE_H
#define VYMM_TESTS_SERVICE_PROBE_H

#include <atomic>
#include <chrono>
#include <string>

#include "service/VyMediaMonitorService.h"
#include "support/LogCapture.h"

class ServiceProbe : public android::VyMediaMonitorService {
public:
    using VyMediaMonitorService::mBDCount;
    using VyMediaMonitorService::mBDCountWriter;
    using VyMediaMonitorService::mBDFlow;
    using VyMediaMonitorService::mBDFlowWriter;
    using VyMediaMonitorService::mBigData;
    using VyMediaMonitorService::mBigDataWriter;
    using VyMediaMonitorService::mDebuggable;
    using VyMediaMonitorService::mDispatchLock;
    using VyMediaMonitorService::mException;
    using VyMediaMonitorService::mExceptionLogWriter;
    using VyMediaMonitorService::mExceptionWriter;
    using VyMediaMonitorService::mKpi;
    using VyMediaMonitorService::mKpiWriter;
    using VyMediaMonitorService::mLogSendThread;
    using VyMediaMonitorService::mPolicy;
    using VyMediaMonitorService::mRadar;
    using VyMediaMonitorService::mStaticTypeFlags;

    // Queues event as an entry point does.
    void Queue(const android::sp<LogSrvEvent>& event) {
        android::Mutex::Autolock lock(mLock);
        SendLogEventLogSrv(event);
    }

    // Waits until the worker has dispatched everything queued before: queues
    // an event of a type of its own and waits for the line that reports it
    // unknown. Needs ro.media.debuggable "true".
    bool Drain(const LogCapture& log,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        static std::atomic<int32_t> nextType{1000000};
        const int32_t type = nextType++;
        Queue(new LogSrvEvent(static_cast<EventType>(type), -1, -1, android::String8(), false));
        return log.WaitFor("Vymedia_monitor",
                           "OnSrvEvent unknown event type " + std::to_string(type), timeout);
    }
};

#endif
