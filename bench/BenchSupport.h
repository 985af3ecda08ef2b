// What the benchmarks share. The service as they drive it in-process, with
// its worker running: a benchmark queues events as the entry points do,
// waits until the worker has dispatched them, and can hold the worker
// between two events.
//
// Markers and holds are events of a type the service does not know, which
// the worker dispatches as nothing; they act when the worker lets go of them,
// after their dispatch and outside every lock. They need room in the queue: a
// marker dropped at a full queue would end its wait at once.
#ifndef VYMM_BENCH_BENCH_SUPPORT_H
#define VYMM_BENCH_BENCH_SUPPORT_H

#include <chrono>
#include <future>
#include <initializer_list>
#include <vector>

#include "service/VyMediaMonitorService.h"

namespace vymm_bench {

using Clock = std::chrono::steady_clock;

// When a thread reached a point: the clock, and the CPU time the thread had
// used by then. The worker runs at background priority, so under load the
// two part.
struct ThreadTime {
    Clock::time_point wall;
    std::chrono::nanoseconds cpu;

    static ThreadTime Now();
};

// Any thread may call it; markers and holds are taken and let go of by the
// worker, in queue order.
class BenchService : public android::VyMediaMonitorService {
public:
    // Queues event as an entry point does.
    void Queue(const android::sp<LogSrvEvent>& event) EXCLUDES(mLock);

    // Queues a marker: the future gives the time at which the worker let go
    // of it, after everything queued before.
    std::future<ThreadTime> QueueMarker();

    // Waits until the worker has dispatched everything queued before; false
    // when timeout passed first.
    bool Drain(std::chrono::milliseconds timeout = std::chrono::seconds(30));

    using VyMediaMonitorService::mBigDataWriter;
};

// Holds the worker between two events until Open() (or destruction): what is
// queued meanwhile waits. Held() is false when the worker did not reach the
// hold within the timeout. Used by one thread; the worker waits inside it.
class WorkerHold {
public:
    explicit WorkerHold(BenchService& service,
                        std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~WorkerHold() { Open(); }
    WorkerHold(const WorkerHold&) = delete;
    WorkerHold& operator=(const WorkerHold&) = delete;

    bool Held() const { return mHeld; }
    void Open();
    // The time at which the worker went on after Open().
    std::future<ThreadTime>& Resumed() { return mResumed; }

private:
    std::promise<void> mOpen;
    std::future<ThreadTime> mResumed;
    bool mOpened = false;
    bool mHeld = false;
};

// Sets the properties of a service for the benchmarks: no debug lines, and
// of the writers only those named are switched on ("radar", "bdflow",
// "bdcount", "exception", "kpi", "bigdata").
void SetServiceProperties(std::initializer_list<const char*> writersOn);

// What the benchmarks call, queued by the big-data writer.
constexpr int kQueuedId = 916019101;
constexpr char kPackage[] = "com.example.player";

inline double Nanos(Clock::duration d) {
    return std::chrono::duration<double, std::nano>(d).count();
}
inline double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Nearest rank; values is sorted.
double Percentile(const std::vector<double>& values, double p);

// Gives every id the big-data writer uploads a record, so that the next
// upload sends each of them.
void FillEveryId(android::VyMediaMonitorService& service);

// Runs the benchmarks that the arguments select, uploads going nowhere
// unless VEXEL_EVENT_LOG names a file; the exit status.
int RunBenchmarks(int argc, char** argv);

}  // namespace vymm_bench

#endif
