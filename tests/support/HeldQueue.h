// A send thread that never runs, put in place of a service's worker: what
// the service queues stays there, in order, until taken.
#ifndef VYMM_TESTS_HELD_QUEUE_H
#define VYMM_TESTS_HELD_QUEUE_H

#include <vector>

#include "service/VyMediaMonitorService.h"

class HeldQueue : public android::VyMediaMonitorService::LogSendThread {
public:
    using Event = android::sp<android::VyMediaMonitorService::LogSrvEvent>;

    explicit HeldQueue(const android::wp<android::VyMediaMonitorService>& service)
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
