// The service in process, with only the big-data writer switched on: a
// queued call at its entry point, the worker's dispatch into the writer, and
// a caller's latency while the worker is inside a slow upload. Each reports,
// as counters, a baseline measured in the same run and the ratio to it.
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/ThreadDefs.h>
#include <utils/Timers.h>

#include "BenchSupport.h"
#include "BigDataIds.h"
#include "report/VexelProxy.h"
#include "support/TestEnv.h"

using android::sp;
using android::String8;
using vymm_bench::BenchService;
using vymm_bench::Clock;
using vymm_bench::ThreadTime;
using vymm_bench::WorkerHold;
using Service = android::VyMediaMonitorService;

namespace {

using vymm_bench::FillEveryId;
using vymm_bench::kPackage;
using vymm_bench::kQueuedId;
using vymm_bench::Percentile;

// Calls per timed batch. The worker drains each batch before the next, so
// the queue (512 events) never refuses one.
constexpr int kBatch = 256;
constexpr auto kTimeout = std::chrono::seconds(30);

using vymm_bench::Nanos;
using vymm_bench::Seconds;

// The floor of a queued call: an object of the event's size handed to a
// consumer thread under a mutex, with a signal, and taken off the front one
// at a time by a thread of the worker's priority, unless held.
class BareQueue {
public:
    BareQueue() : mConsumer([this] { Consume(); }) {}
    ~BareQueue() {
        {
            android::Mutex::Autolock lock(mLock);
            mStop = true;
            mPushed.signal();
            mReleased.signal();
        }
        mConsumer.join();
    }

    void Push() EXCLUDES(mLock) {
        std::unique_ptr<Event> event = std::make_unique<Event>();
        android::Mutex::Autolock lock(mLock);
        mQueue.push_back(std::move(event));
        mPushed.signal();
    }

    // While held, the consumer takes nothing, and waits for no push.
    void SetHeld(bool held) EXCLUDES(mLock) {
        android::Mutex::Autolock lock(mLock);
        mHeld = held;
        mReleased.signal();
    }

    bool WaitDrained() EXCLUDES(mLock) {
        const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) +
                                 std::chrono::nanoseconds(kTimeout).count();
        android::Mutex::Autolock lock(mLock);
        while (!mQueue.empty()) {
            const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
            if (left <= 0) {
                return false;
            }
            mDrained.waitRelative(mLock, left);
        }
        return true;
    }

private:
    struct Event {
        unsigned char bytes[sizeof(Service::BigDataEvent)];
    };

    void Consume() EXCLUDES(mLock) {
        setpriority(PRIO_PROCESS, gettid(), android::PRIORITY_BACKGROUND);
        for (;;) {
            std::unique_ptr<Event> event;
            {
                android::Mutex::Autolock lock(mLock);
                while (!mStop && (mQueue.empty() || mHeld)) {
                    (mHeld ? mReleased : mPushed).wait(mLock);
                }
                if (mStop) {
                    return;
                }
                event = std::move(mQueue.front());
                mQueue.erase(mQueue.begin());
                if (mQueue.empty()) {
                    mDrained.broadcast();
                }
            }
        }
    }

    android::Mutex mLock;
    android::Condition mPushed;
    android::Condition mReleased;
    android::Condition mDrained;
    std::vector<std::unique_ptr<Event>> mQueue GUARDED_BY(mLock);
    bool mStop GUARDED_BY(mLock) = false;
    bool mHeld GUARDED_BY(mLock) = false;
    std::thread mConsumer;  // last: starts once the members above exist
};

// The calls of a batch meet the worker draining the queue as they go
// (draining:1), or find it held (draining:0), which leaves the hand-off
// alone; the floor's consumer does the same.
void BM_EntryPoint(benchmark::State& state) {
    const bool draining = state.range(0) != 0;
    const sp<BenchService> service = new BenchService;
    BareQueue bare;
    Clock::duration serviceTime{};
    Clock::duration bareTime{};
    for (auto _ : state) {
        std::optional<WorkerHold> hold;
        if (!draining && !hold.emplace(*service).Held()) {
            state.SkipWithError("the worker could not be held");
            return;
        }
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            service->WriteBigData(kQueuedId, kPackage, 1, 0);
        }
        const Clock::duration took = Clock::now() - start;
        state.SetIterationTime(Seconds(took));
        serviceTime += took;
        hold.reset();
        if (!service->Drain(kTimeout)) {
            state.SkipWithError("the worker did not drain the queue");
            return;
        }
        // The floor batch for batch, so that both see the same load.
        bare.SetHeld(!draining);
        const Clock::time_point bareStart = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            bare.Push();
        }
        bareTime += Clock::now() - bareStart;
        bare.SetHeld(false);
        if (!bare.WaitDrained()) {
            state.SkipWithError("the floor's consumer did not drain its queue");
            return;
        }
    }
    const double calls = static_cast<double>(state.iterations()) * kBatch;
    state.counters["call_ns"] = Nanos(serviceTime) / calls;
    state.counters["floor_ns"] = Nanos(bareTime) / calls;
    state.counters["x_floor"] = Nanos(serviceTime) / Nanos(bareTime);
}
BENCHMARK(BM_EntryPoint)->ArgName("draining")->Arg(1)->Arg(0)->UseManualTime();

// A store of some 120 counters, a quarter of its cap, and a batch of events
// that each add to one of them, so the store keeps its size. The batch is
// the backlog that the worker finds waiting.
constexpr int kWarmCounters = 120;

void BM_WorkerDispatch(benchmark::State& state) {
    const int backlog = static_cast<int>(state.range(0));
    const sp<BenchService> service = new BenchService;
    std::vector<sp<Service::BigDataEvent>> events;
    for (int k = 0; k < kWarmCounters; ++k) {
        service->WriteBigData(vymm_bench::CounterId(k), vymm_bench::CounterKey(k).c_str(), 1, 0);
    }
    for (int i = 0; i < backlog; ++i) {
        const int k = i % kWarmCounters;
        events.push_back(new Service::BigDataEvent(Service::EVENT_BIGDATA, vymm_bench::CounterId(k),
                                                   vymm_bench::CounterKey(k), 1, 0));
    }
    if (!service->Drain(kTimeout)) {
        state.SkipWithError("the worker did not warm the store");
        return;
    }
    android::MediaBigDataWriter& writer = *service->mBigDataWriter;
    // The worker runs at background priority: under load its clock time
    // runs far ahead of its CPU time.
    Clock::duration workerWall{};
    std::chrono::nanoseconds workerCpu{};
    std::chrono::nanoseconds directCpu{};
    for (auto _ : state) {
        WorkerHold hold(*service);
        if (!hold.Held()) {
            state.SkipWithError("the worker could not be held");
            return;
        }
        for (const sp<Service::BigDataEvent>& event : events) {
            service->Queue(event);
        }
        std::future<ThreadTime> done = service->QueueMarker();
        hold.Open();
        if (done.wait_for(kTimeout) != std::future_status::ready) {
            state.SkipWithError("the worker did not dispatch the batch");
            return;
        }
        // Both taken on the worker: its wake-up is not counted.
        const ThreadTime start = hold.Resumed().get();
        const ThreadTime end = done.get();
        state.SetIterationTime(Seconds(end.wall - start.wall));
        workerWall += end.wall - start.wall;
        workerCpu += end.cpu - start.cpu;
        // The same events straight into the writer's recorder.
        const ThreadTime directStart = ThreadTime::Now();
        for (const sp<Service::BigDataEvent>& e : events) {
            writer.WriteBigData(e->eventId, e->subType, e->ext1, e->ext2);
        }
        directCpu += ThreadTime::Now().cpu - directStart.cpu;
    }
    const double dispatched = static_cast<double>(state.iterations()) * backlog;
    state.counters["events_per_s"] = dispatched / Seconds(workerWall);
    state.counters["events_per_cpu_s"] = dispatched / Seconds(workerCpu);
    state.counters["direct_per_cpu_s"] = dispatched / Seconds(directCpu);
    state.counters["x_direct"] = Nanos(workerCpu) / Nanos(directCpu);
}
BENCHMARK(BM_WorkerDispatch)->ArgName("backlog")->Arg(16)->Arg(500)->UseManualTime();

// The caller makes one call per period, as a client with a steady trickle
// of statistics would. An upload of the 21 ids at 1 ms a send lasts some
// 210 periods, and a cap on the calls per upload keeps the queue from
// filling however long it takes.
constexpr auto kCallPeriod = std::chrono::microseconds(100);
constexpr char kSendDelayUs[] = "1000";
constexpr size_t kMaxCallsPerUpload = 400;

// Calls while more(), one per period; appends each call's latency.
template <typename More>
void PacedCalls(BenchService& service, More more, std::vector<double>* latencies) {
    while (more()) {
        const Clock::time_point start = Clock::now();
        service.WriteBigData(kQueuedId, kPackage, 1, 0);
        latencies->push_back(Nanos(Clock::now() - start));
        std::this_thread::sleep_until(start + kCallPeriod);
    }
}

void BM_CallerDuringUpload(benchmark::State& state) {
    setenv("VEXEL_SEND_DELAY_US", kSendDelayUs, 1);
    std::vector<double> busy;
    std::vector<double> idle;
    Clock::duration uploadTime{};
    {
        const sp<BenchService> service = new BenchService;
        for (auto _ : state) {
            FillEveryId(*service);
            std::future<ThreadTime> started = service->QueueMarker();
            service->Queue(new Service::LogSrvEvent(Service::EVENT_FORCE_SEND, 0, -1, String8(),
                                                    false));
            std::future<ThreadTime> ended = service->QueueMarker();
            if (started.wait_for(kTimeout) != std::future_status::ready) {
                state.SkipWithError("the upload did not start");
                break;
            }
            size_t calls = 0;
            PacedCalls(
                    *service,
                    [&] {
                        return ended.wait_for(std::chrono::seconds(0)) !=
                                       std::future_status::ready &&
                               calls++ < kMaxCallsPerUpload;
                    },
                    &busy);
            if (ended.wait_for(kTimeout) != std::future_status::ready) {
                state.SkipWithError("the upload did not end");
                break;
            }
            const Clock::duration took = ended.get().wall - started.get().wall;
            state.SetIterationTime(Seconds(took));
            uploadTime += took;
            service->Drain(kTimeout);
        }
        // The same caller, as many calls, with the worker idle.
        size_t calls = 0;
        PacedCalls(*service, [&] { return calls++ < busy.size(); }, &idle);
        service->Drain(kTimeout);
    }
    unsetenv("VEXEL_SEND_DELAY_US");
    if (!android::VexelProxy::IsAvailable()) {
        state.SkipWithError("the host libvexel.so was not found: nothing was slow");
        return;
    }
    std::sort(busy.begin(), busy.end());
    std::sort(idle.begin(), idle.end());
    const double sends = static_cast<double>(state.iterations()) *
                         (std::size(vymm_bench::kCounterIds) + std::size(vymm_bench::kRecordIds));
    state.counters["send_ms"] = Seconds(uploadTime) * 1000 / sends;
    state.counters["calls"] = static_cast<double>(busy.size());
    state.counters["busy_p50_us"] = Percentile(busy, 0.5) / 1000;
    state.counters["busy_p99_us"] = Percentile(busy, 0.99) / 1000;
    state.counters["idle_p50_us"] = Percentile(idle, 0.5) / 1000;
    state.counters["idle_p99_us"] = Percentile(idle, 0.99) / 1000;
    state.counters["x_idle_p99"] = Percentile(busy, 0.99) / Percentile(idle, 0.99);
}
BENCHMARK(BM_CallerDuringUpload)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    vymm_bench::SetServiceProperties({"bigdata"});
    const TempWorkDir scratch;
    return vymm_bench::RunBenchmarks(argc, argv);
}
