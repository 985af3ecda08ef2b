#include "BenchSupport.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>
#include <utility>

#include <android-base/properties.h>
#include <benchmark/benchmark.h>

#include "BigDataIds.h"

namespace vymm_bench {

using android::String8;
using Service = android::VyMediaMonitorService;

namespace {

// A type the service never produces, dispatched as nothing.
constexpr auto kBenchEventType = static_cast<Service::EventType>(0);

class MarkerEvent : public Service::LogSrvEvent {
public:
    MarkerEvent() : LogSrvEvent(kBenchEventType, -1, -1, String8(), false) {}
    ~MarkerEvent() override { mReleased.set_value(ThreadTime::Now()); }

    std::future<ThreadTime> Released() { return mReleased.get_future(); }

private:
    std::promise<ThreadTime> mReleased;
};

// Waits, when the worker lets go of it, until opened, then tells when it
// went on. Let go first by the thread that queued it, the worker having been
// quicker, it does not wait and reports so.
class HoldEvent : public Service::LogSrvEvent {
public:
    HoldEvent(std::shared_future<void> open, std::chrono::milliseconds timeout)
        : LogSrvEvent(kBenchEventType, -1, -1, String8(), false),
          mOpen(std::move(open)),
          mTimeout(timeout),
          mQueuedBy(std::this_thread::get_id()) {}
    ~HoldEvent() override {
        const bool onWorker = std::this_thread::get_id() != mQueuedBy;
        mReached.set_value(onWorker);
        if (onWorker) {
            mOpen.wait_for(mTimeout);
        }
        mResumed.set_value(ThreadTime::Now());
    }

    std::future<bool> Reached() { return mReached.get_future(); }
    std::future<ThreadTime> Resumed() { return mResumed.get_future(); }

private:
    const std::shared_future<void> mOpen;
    const std::chrono::milliseconds mTimeout;
    const std::thread::id mQueuedBy;
    std::promise<bool> mReached;
    std::promise<ThreadTime> mResumed;
};

}  // namespace

ThreadTime ThreadTime::Now() {
    timespec cpu = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    return {Clock::now(), std::chrono::seconds(cpu.tv_sec) + std::chrono::nanoseconds(cpu.tv_nsec)};
}

void BenchService::Queue(const android::sp<LogSrvEvent>& event) {
    android::Mutex::Autolock lock(mLock);
    SendLogEventLogSrv(event);
}

std::future<ThreadTime> BenchService::QueueMarker() {
    const android::sp<MarkerEvent> marker = new MarkerEvent;
    std::future<ThreadTime> released = marker->Released();
    Queue(marker);
    return released;
}

bool BenchService::Drain(std::chrono::milliseconds timeout) {
    return QueueMarker().wait_for(timeout) == std::future_status::ready;
}

WorkerHold::WorkerHold(BenchService& service, std::chrono::milliseconds timeout) {
    const std::shared_future<void> open = mOpen.get_future().share();
    const Clock::time_point deadline = Clock::now() + timeout;
    while (!mHeld && Clock::now() < deadline) {
        android::sp<HoldEvent> hold = new HoldEvent(open, timeout);
        std::future<bool> onWorker = hold->Reached();
        mResumed = hold->Resumed();
        service.Queue(hold);
        hold.clear();
        mHeld = onWorker.wait_until(deadline) == std::future_status::ready && onWorker.get();
    }
}

void WorkerHold::Open() {
    if (!mOpened) {
        mOpened = true;
        mOpen.set_value();
    }
}

void SetServiceProperties(std::initializer_list<const char*> writersOn) {
    android::base::SetProperty("ro.media.debuggable", "false");
    for (const char* writer : {"radar", "bdflow", "bdcount", "exception", "kpi", "bigdata"}) {
        const bool on = std::any_of(writersOn.begin(), writersOn.end(),
                                    [writer](const char* name) { return strcmp(name, writer) == 0; });
        android::base::SetProperty(std::string("ro.media.") + writer, on ? "1" : "0");
    }
}

double Percentile(const std::vector<double>& values, double p) {
    if (values.empty()) {
        return 0;
    }
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::max<size_t>(rank, 1) - 1];
}

void FillEveryId(android::VyMediaMonitorService& service) {
    for (const int id : kCounterIds) {
        service.WriteBigData(id, kPackage, 1, 1);
    }
    for (const int id : kRecordIds) {
        service.WriteBigData(id, kPackage, 1, 1);
    }
}

int RunBenchmarks(int argc, char** argv) {
    setenv("VEXEL_EVENT_LOG", "/dev/null", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace vymm_bench
