// The monitor service as a test drives it in-process: a caller's identity,
// events described as text, and a service whose queue the test reads.
#ifndef VYMM_TESTS_MONITOR_HARNESS_H
#define VYMM_TESTS_MONITOR_HARNESS_H

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

#include <json/value.h>

#include "support/ServiceProbe.h"

// Makes this thread's calls come from uid and pid.
void ActAs(uid_t uid, pid_t pid = 4321);

// What `dump --stats --json` gives a caller of uid 1013, parsed (the
// thread's own identity is kept); null, failing the test, when not JSON.
Json::Value StatsOf(android::VyMediaMonitorService& service);

// "<type>:<eventId> s=<texts> i=<numbers>", the fields in declaration order
// (an exception's pid, level and sub-type among its numbers, a plain event's
// pid, prior and sub-type); a video event by its plain fields only.
std::string Describe(const android::sp<android::VyMediaMonitorService::LogSrvEvent>& event);

// A service whose worker never runs: what the entry points queue stays for
// the test to take. It records the play-status calls made on itself.
class MonitorHarness : public ServiceProbe {
public:
    MonitorHarness();
    ~MonitorHarness() override;

    // Takes what was queued since the last take, oldest first.
    std::vector<android::sp<LogSrvEvent>> TakeQueuedEvents();
    std::vector<std::string> TakeQueued();
    // What the flush ahead of an audio exception queues, taken.
    std::vector<std::string> Flush();
    // Arguments of each four-string WriteBigData call, joined with "|".
    std::vector<std::string> StatusCalls();

    using VyMediaMonitorService::WriteBigData;
    void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                      const char* s4) override;

private:
    android::sp<HeldQueue> mHeldQueue;
    std::mutex mStatusMutex;
    std::vector<std::string> mStatusCalls;  // guarded by mStatusMutex
};

#endif
