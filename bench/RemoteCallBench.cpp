// Calls through the host Binder transport from another process:
// - a two-way call against a raw ping-pong of the same bytes over a
//   Unix-domain socket pair between two processes, from 1 and 4 threads;
// - a one-way call's cost at the caller against a bare send of its bytes;
// - one-way against two-way throughput into the service with its worker
//   draining, counting that the service received every call sent;
// - bursts of one-way calls far above what the socket holds: the calls
//   refused, and the caller's cost against a bare send of the same bytes;
// - one-way throughput in such bursts, every call counted as queued by the
//   service;
// - a one-way caller's p99 while the worker is in an upload at 1 ms a send,
//   against its p99 with the worker idle;
// - a two-way call while another uid floods 40 connections with one-way
//   calls, against the same call with no flood.
//
// Before any thread starts, this process forks the service's process (the
// service published in a fresh runtime folder) and an echo process that
// answers on one socket pair per client thread and drains one more; both
// end when their end of a pipe or socket closes. VYMM_BENCH_SERVER_CPU=N
// pins both to CPU N (pin this process with taskset). A third child, the
// flooder, runs as uid 10001 when this process is root (else as itself).
#include <errno.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "BenchSupport.h"
#include "Wire.h"
#include "support/TestEnv.h"

using android::IBinder;
using android::IVyMediaMonitorService;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using vymm_bench::Clock;
using vymm_bench::Nanos;
using vymm_bench::Percentile;
using vymm_bench::Seconds;

namespace {

constexpr char kServiceName[] = "vymm.bench.monitor";
constexpr int kMaxClients = 4;
constexpr int kCallsPerThread = 200;
// One-way calls between two waits for the service: fewer than its queue
// (512 events) and than a socket buffer holds.
constexpr int kOnewayBatch = 150;
// A device driver's burst: far above what a socket holds.
constexpr int kBurst = 2000;
constexpr auto kTimeout = std::chrono::seconds(30);
// The paced caller, as in service_bench: one call each period, 15 ms of
// them within an upload of the 21 ids at 1 ms a send.
constexpr auto kCallPeriod = std::chrono::microseconds(100);
constexpr char kSendDelayUs[] = "1000";
constexpr size_t kCallsDuringUpload = 150;

// The flood: connections of one uid, each sent one-way pings without pause.
constexpr int kFloodConnections = 40;
constexpr int kFloodPingsPerSend = 64;
constexpr uid_t kFloodUid = 10001;

// Control transactions of the service's process.
enum : uint32_t {
    RECEIVED = 0x00f00001,  // replies the calls it received
    UPLOAD,                 // starts an upload; replies once it began
    UPLOADED,               // replies once that upload ended
};

void Call(IVyMediaMonitorService& service) {
    service.WriteBigData(vymm_bench::kQueuedId, vymm_bench::kPackage, 1, 0);
}

// The request of Call, to send it by hand.
void WriteCall(Parcel* data) {
    data->writeInterfaceToken(IVyMediaMonitorService::descriptor);
    data->writeInt32(vymm_bench::kQueuedId);
    data->writeInt32(1);
    data->writeCString(vymm_bench::kPackage);
    data->writeInt32(1);
    data->writeInt32(0);
}

// The bytes of one call's frames on the wire.
struct CallBytes {
    size_t request;
    size_t reply;
};

// Records the size of the transaction it receives.
class SizeProbe : public android::BBinder {
public:
    size_t dataSize = 0;

protected:
    status_t onTransact(uint32_t /*code*/, const Parcel& data, Parcel* /*reply*/,
                        uint32_t /*flags*/) override {
        dataSize = data.dataSize();
        return android::NO_ERROR;
    }
};

CallBytes MeasureCallBytes() {
    const sp<SizeProbe> probe = new SizeProbe;
    Call(*android::interface_cast<IVyMediaMonitorService>(probe));
    // The reply of an operation without results is a header with its status.
    return {sizeof(android::FrameHeader) + probe->dataSize, sizeof(android::FrameHeader)};
}

bool ReadFully(int fd, std::vector<char>* buffer) {
    for (size_t got = 0; got < buffer->size();) {
        const ssize_t n = read(fd, buffer->data() + got, buffer->size() - got);
        if (n <= 0 && !(n < 0 && errno == EINTR)) {
            return false;
        }
        got += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

bool WriteFully(int fd, const std::vector<char>& buffer) {
    for (size_t sent = 0; sent < buffer.size();) {
        const ssize_t n = write(fd, buffer.data() + sent, buffer.size() - sent);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        sent += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

// The service as its process serves it, counting the calls it receives
// and starting uploads when asked.
class RemoteBenchService : public vymm_bench::BenchService {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        switch (code) {
            case RECEIVED: {
                // The calls received, and those the service's queue dropped.
                const android::MonitorStats stats = GetStats();
                reply->writeInt64(mReceived);
                return reply->writeInt64(static_cast<int64_t>(stats.droppedFull +
                                                              stats.droppedBytes));
            }
            case UPLOAD:
                return StartUpload() ? android::NO_ERROR : android::TIMED_OUT;
            case UPLOADED:
                return mEnded.has_value() && mEnded->wait_for(kTimeout) == std::future_status::ready
                               ? android::NO_ERROR
                               : android::TIMED_OUT;
            case WRITE_BIG_DATA_S_I_I:
                ++mReceived;
                break;
        }
        return BenchService::onTransact(code, data, reply, flags);
    }

private:
    bool StartUpload() {
        vymm_bench::FillEveryId(*this);
        std::future<vymm_bench::ThreadTime> started = QueueMarker();
        Queue(new LogSrvEvent(EVENT_FORCE_SEND, 0, -1, android::String8(), false));
        mEnded = QueueMarker();
        return started.wait_for(kTimeout) == std::future_status::ready;
    }

    std::atomic<int64_t> mReceived{0};
    // Control calls come one at a time.
    std::optional<std::future<vymm_bench::ThreadTime>> mEnded;
};

void PinToServerCpu() {
    const char* cpu = getenv("VYMM_BENCH_SERVER_CPU");
    if (cpu == nullptr) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(atoi(cpu), &set);
    sched_setaffinity(0, sizeof(set), &set);
}

// The service's process: serves until stopFd reads its end.
int ServeUntilClosed(int stopFd) {
    PinToServerCpu();
    const TempWorkDir scratch;
    // Where the service keeps its state, as on the device.
    mkdir("data", 0755);
    mkdir("data/log", 0755);
    vymm_bench::SetServiceProperties({"bigdata"});
    setenv("VEXEL_SEND_DELAY_US", kSendDelayUs, 1);
    const sp<RemoteBenchService> service = new RemoteBenchService;
    if (android::defaultServiceManager()->addService(String16(kServiceName), service) !=
        android::NO_ERROR) {
        return 1;
    }
    android::ProcessState::self()->startThreadPool();
    char byte;
    ssize_t n;
    do {
        n = read(stopFd, &byte, 1);
    } while (n > 0 || (n < 0 && errno == EINTR));
    // The service ends before its folder goes: its shutdown writes there.
    android::defaultServiceManager()->removeService(String16(kServiceName));
    android::ProcessState::self()->stopThreadPool();
    return 0;
}

// The echo process: answers each request with a reply on every socket of
// echo, and reads and drops what comes on sink.
int EchoUntilClosed(const std::vector<int>& echo, int sink, CallBytes bytes) {
    PinToServerCpu();
    std::vector<std::thread> threads;
    for (const int fd : echo) {
        threads.emplace_back([fd, bytes] {
            std::vector<char> request(bytes.request);
            const std::vector<char> reply(bytes.reply);
            while (ReadFully(fd, &request) && WriteFully(fd, reply)) {
            }
        });
    }
    threads.emplace_back([sink] {
        std::vector<char> buffer(1 << 16);
        while (read(sink, buffer.data(), buffer.size()) > 0) {
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}

// A connection of the flood: pings until flooding ends, then one two-way
// ping, whose reply comes once every ping before it ran.
void FloodOne(const std::string& path, const std::atomic<bool>& flooding,
              std::atomic<int>* started) {
    const android::base::unique_fd conn(android::HostWire::Connect(path));
    // Wakes a send blocked on a full socket to look at flooding again.
    const timeval recheck = {0, 100000};
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &recheck, sizeof(recheck));
    android::FrameHeader ping = {android::FRAME_MAGIC, IBinder::PING_TRANSACTION,
                                 IBinder::FLAG_ONEWAY, 0, 0};
    const std::vector<android::FrameHeader> pings(kFloodPingsPerSend, ping);
    const char* bytes = reinterpret_cast<const char*>(pings.data());
    const size_t size = pings.size() * sizeof(ping);
    // Where the next send starts: a send cut short by the timeout leaves
    // the rest of its frame to the next one.
    size_t at = 0;
    bool counted = conn.get() < 0;
    if (counted) {
        ++*started;
    }
    while (flooding && conn.get() >= 0) {
        const ssize_t sent = send(conn.get(), bytes + at, size - at, MSG_NOSIGNAL);
        at = (at + static_cast<size_t>(std::max<ssize_t>(sent, 0))) % size;
        if (!counted && sent > 0) {
            counted = true;
            ++*started;
        }
    }
    const timeval never = {0, 0};
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &never, sizeof(never));
    const size_t partial = at % sizeof(ping);
    const size_t rest = partial > 0 ? sizeof(ping) - partial : 0;
    std::vector<char> request(bytes + at, bytes + at + rest);
    ping.flags = 0;
    request.insert(request.end(), reinterpret_cast<const char*>(&ping),
                   reinterpret_cast<const char*>(&ping + 1));
    std::vector<char> reply(sizeof(android::FrameHeader));
    (void)(WriteFully(conn.get(), request) && ReadFully(conn.get(), &reply));
}

// The flooder's process: floods while its control reads '1', stops and
// answers once the service ran what it was sent at '0', ends at the end.
int FloodUntilClosed(int control, const std::string& path) {
    PinToServerCpu();
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(kFloodUid) != 0 ||
                           setuid(kFloodUid) != 0)) {
        return 1;
    }
    char command;
    while (read(control, &command, 1) == 1) {
        std::atomic<bool> flooding{command == '1'};
        std::atomic<int> started{0};
        std::vector<std::thread> flood;
        for (int i = 0; i < kFloodConnections && flooding; ++i) {
            flood.emplace_back(FloodOne, path, std::cref(flooding), &started);
        }
        while (flooding && started < kFloodConnections) {
            std::this_thread::yield();
        }
        // Flooding: answered once every connection has sent.
        if (write(control, &command, 1) != 1 || read(control, &command, 1) != 1) {
            return 1;
        }
        flooding = false;
        for (std::thread& thread : flood) {
            thread.join();
        }
        if (write(control, &command, 1) != 1) {
            return 1;
        }
    }
    return 0;
}

// Waits for child to end, killing it after a while.
void Reap(pid_t child) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (waitpid(child, nullptr, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

CallBytes gBytes;
sp<IBinder> gBinder;
sp<IVyMediaMonitorService> gService;
std::vector<int> gEchoSockets;  // one per client thread
int gSinkSocket = -1;
int gFloodControl = -1;

// Runs body(i) on threads threads at once: the time from their common start
// to the end of the last.
Clock::duration RunOnThreads(int threads, const std::function<void(int)>& body) {
    std::promise<void> go;
    const std::shared_future<void> started = go.get_future().share();
    std::vector<std::promise<void>> ready(static_cast<size_t>(threads));
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i) {
        pool.emplace_back([&, i] {
            ready[static_cast<size_t>(i)].set_value();
            started.wait();
            body(i);
        });
    }
    for (std::promise<void>& each : ready) {
        each.get_future().wait();
    }
    const Clock::time_point start = Clock::now();
    go.set_value();
    for (std::thread& thread : pool) {
        thread.join();
    }
    return Clock::now() - start;
}

status_t Control(uint32_t code, Parcel* reply) { return gBinder->transact(code, Parcel(), reply); }

// The calls the service received and those its queue dropped.
struct Received {
    int64_t calls = -1;
    int64_t dropped = -1;
};

Received ReceivedNow() {
    Parcel reply;
    Received received;
    if (Control(RECEIVED, &reply) == android::NO_ERROR) {
        received.calls = reply.readInt64();
        received.dropped = reply.readInt64();
    }
    return received;
}

// Two-way calls, each sent by hand with the operation's bytes.
void TwoWayCalls(int count) {
    Parcel data;
    WriteCall(&data);
    for (int i = 0; i < count; ++i) {
        Parcel reply;
        gBinder->transact(IVyMediaMonitorService::WRITE_BIG_DATA_S_I_I, data, &reply);
    }
}

bool Usable(benchmark::State& state) {
    if (gService == nullptr) {
        state.SkipWithError("the service was not found");
        return false;
    }
    return true;
}

bool StillAlive(benchmark::State& state) {
    if (!gBinder->isBinderAlive()) {
        state.SkipWithError("the service's process went away");
        return false;
    }
    return true;
}

void BM_TwoWayCall(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    if (!Usable(state)) {
        return;
    }
    Clock::duration binderTime{};
    Clock::duration socketTime{};
    for (auto _ : state) {
        const Clock::duration binder =
                RunOnThreads(threads, [](int) { TwoWayCalls(kCallsPerThread); });
        const Clock::duration socket = RunOnThreads(threads, [](int thread) {
            const int fd = gEchoSockets[static_cast<size_t>(thread)];
            const std::vector<char> request(gBytes.request);
            std::vector<char> reply(gBytes.reply);
            for (int i = 0; i < kCallsPerThread && WriteFully(fd, request) &&
                            ReadFully(fd, &reply);
                 ++i) {
            }
        });
        state.SetIterationTime(Seconds(binder));
        binderTime += binder;
        socketTime += socket;
    }
    if (!StillAlive(state)) {
        return;
    }
    const double calls = static_cast<double>(state.iterations()) * threads * kCallsPerThread;
    state.counters["calls_per_s"] = calls / Seconds(binderTime);
    state.counters["socket_calls_per_s"] = calls / Seconds(socketTime);
    state.counters["x_socket"] = Seconds(binderTime) / Seconds(socketTime);
    state.counters["request_bytes"] = static_cast<double>(gBytes.request);
    state.counters["reply_bytes"] = static_cast<double>(gBytes.reply);
}
BENCHMARK(BM_TwoWayCall)->ArgName("clients")->Arg(1)->Arg(kMaxClients)->UseManualTime();

// Times makeCalls (count one-way calls) against count bare sends of the same
// bytes to a sink, in wall and in this thread's CPU time (which a loaded
// machine does not inflate); the service is waited for between rounds,
// untimed. False when the service died on the way.
template <typename MakeCalls>
bool CallsAgainstSends(benchmark::State& state, int count, MakeCalls makeCalls) {
    const std::vector<char> request(gBytes.request);
    Clock::duration callTime{};
    Clock::duration sendTime{};
    std::chrono::nanoseconds callCpu{};
    std::chrono::nanoseconds sendCpu{};
    for (auto _ : state) {
        vymm_bench::ThreadTime start = vymm_bench::ThreadTime::Now();
        makeCalls();
        vymm_bench::ThreadTime end = vymm_bench::ThreadTime::Now();
        const Clock::duration call = end.wall - start.wall;
        callCpu += end.cpu - start.cpu;
        gBinder->pingBinder();
        start = vymm_bench::ThreadTime::Now();
        for (int i = 0; i < count; ++i) {
            (void)!send(gSinkSocket, request.data(), request.size(), MSG_NOSIGNAL);
        }
        end = vymm_bench::ThreadTime::Now();
        sendTime += end.wall - start.wall;
        sendCpu += end.cpu - start.cpu;
        state.SetIterationTime(Seconds(call));
        callTime += call;
    }
    if (!StillAlive(state)) {
        return false;
    }
    const double calls = static_cast<double>(state.iterations()) * count;
    state.counters["call_ns"] = Nanos(callTime) / calls;
    state.counters["send_ns"] = Nanos(sendTime) / calls;
    state.counters["x_send"] = Nanos(callTime) / Nanos(sendTime);
    state.counters["call_cpu_ns"] = Nanos(callCpu) / calls;
    state.counters["x_send_cpu"] = Nanos(callCpu) / Nanos(sendCpu);
    return true;
}

// The caller's cost only: the service is waited for between batches, untimed.
void BM_OneWayCall(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    CallsAgainstSends(state, kOnewayBatch, [] {
        for (int i = 0; i < kOnewayBatch; ++i) {
            Call(*gService);
        }
    });
}
BENCHMARK(BM_OneWayCall)->UseManualTime();

// Through to the service: a batch of one-way calls and the wait until the
// service ran them, against as many two-way calls.
void BM_OneWayThroughput(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    Parcel data;
    WriteCall(&data);
    const int64_t receivedBefore = ReceivedNow().calls;
    int64_t sent = 0;
    int64_t twoWay = 0;
    Clock::duration onewayTime{};
    Clock::duration twoWayTime{};
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        for (int i = 0; i < kOnewayBatch; ++i) {
            sent += gBinder->transact(IVyMediaMonitorService::WRITE_BIG_DATA_S_I_I, data,
                                      nullptr, IBinder::FLAG_ONEWAY) == android::NO_ERROR;
        }
        gBinder->pingBinder();
        const Clock::duration oneway = Clock::now() - start;
        start = Clock::now();
        TwoWayCalls(kOnewayBatch);
        twoWayTime += Clock::now() - start;
        twoWay += kOnewayBatch;
        state.SetIterationTime(Seconds(oneway));
        onewayTime += oneway;
    }
    if (!StillAlive(state)) {
        return;
    }
    const double calls = static_cast<double>(state.iterations()) * kOnewayBatch;
    state.counters["oneway_per_s"] = calls / Seconds(onewayTime);
    state.counters["twoway_per_s"] = calls / Seconds(twoWayTime);
    state.counters["x_twoway"] = Seconds(twoWayTime) / Seconds(onewayTime);
    state.counters["sent"] = static_cast<double>(sent);
    // Every call sent, one-way or two-way, reached the service.
    state.counters["not_received"] =
            static_cast<double>(sent + twoWay - (ReceivedNow().calls - receivedBefore));
}
BENCHMARK(BM_OneWayThroughput)->UseManualTime();

// One burst of one-way calls from this thread; the calls refused.
int OnewayBurst(const Parcel& data) {
    int refused = 0;
    for (int i = 0; i < kBurst; ++i) {
        refused += gBinder->transact(IVyMediaMonitorService::WRITE_BIG_DATA_S_I_I, data, nullptr,
                                     IBinder::FLAG_ONEWAY) != android::NO_ERROR;
    }
    return refused;
}

// The caller's cost over a burst, against a bare send of the same bytes in
// a burst; the service is waited for between bursts, untimed.
void BM_OneWayBurst(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    Parcel data;
    WriteCall(&data);
    int64_t refused = 0;
    if (CallsAgainstSends(state, kBurst, [&] { refused += OnewayBurst(data); })) {
        state.counters["refused"] = static_cast<double>(refused);
    }
}
BENCHMARK(BM_OneWayBurst)->UseManualTime();

// Bursts through to the service: each timed until the service ran it (a
// ping); every call must be received and none dropped by its queue.
void BM_OneWayBurstThroughput(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    Parcel data;
    WriteCall(&data);
    const Received before = ReceivedNow();
    int64_t refused = 0;
    Clock::duration time{};
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        refused += OnewayBurst(data);
        gBinder->pingBinder();
        time += Clock::now() - start;
        state.SetIterationTime(Seconds(Clock::now() - start));
    }
    if (!StillAlive(state)) {
        return;
    }
    const Received after = ReceivedNow();
    const double calls = static_cast<double>(state.iterations()) * kBurst;
    state.counters["calls_per_s"] = calls / Seconds(time);
    state.counters["refused"] = static_cast<double>(refused);
    state.counters["not_received"] = calls - static_cast<double>(refused) -
                                     static_cast<double>(after.calls - before.calls);
    state.counters["queue_dropped"] = static_cast<double>(after.dropped - before.dropped);
}
BENCHMARK(BM_OneWayBurstThroughput)->UseManualTime();

// Calls while more(), one per period; appends each call's latency.
template <typename More>
void PacedCalls(More more, std::vector<double>* latencies) {
    while (more()) {
        const Clock::time_point start = Clock::now();
        Call(*gService);
        latencies->push_back(Nanos(Clock::now() - start));
        std::this_thread::sleep_until(start + kCallPeriod);
    }
}

void BM_OneWayDuringUpload(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    std::vector<double> busy;
    std::vector<double> idle;
    for (auto _ : state) {
        if (Control(UPLOAD, nullptr) != android::NO_ERROR) {
            state.SkipWithError("the upload did not start");
            return;
        }
        const Clock::time_point start = Clock::now();
        size_t calls = 0;
        PacedCalls([&] { return calls++ < kCallsDuringUpload; }, &busy);
        state.SetIterationTime(Seconds(Clock::now() - start));
        if (Control(UPLOADED, nullptr) != android::NO_ERROR) {
            state.SkipWithError("the upload did not end");
            return;
        }
        gBinder->pingBinder();
    }
    size_t calls = 0;
    PacedCalls([&] { return calls++ < busy.size(); }, &idle);
    gBinder->pingBinder();
    if (!StillAlive(state)) {
        return;
    }
    std::sort(busy.begin(), busy.end());
    std::sort(idle.begin(), idle.end());
    state.counters["calls"] = static_cast<double>(busy.size());
    state.counters["busy_p50_us"] = Percentile(busy, 0.5) / 1000;
    state.counters["busy_p99_us"] = Percentile(busy, 0.99) / 1000;
    state.counters["idle_p99_us"] = Percentile(idle, 0.99) / 1000;
    state.counters["x_idle_p99"] = Percentile(busy, 0.99) / Percentile(idle, 0.99);
}
BENCHMARK(BM_OneWayDuringUpload)->UseManualTime()->Unit(benchmark::kMillisecond);

// Two-way calls from one thread, timed without and then with a flood of
// another uid on 40 connections: each round's calls at once, mean per call.
void BM_TwoWayCallUnderFlood(benchmark::State& state) {
    if (!Usable(state)) {
        return;
    }
    Clock::duration idleTime{};
    Clock::duration floodedTime{};
    for (auto _ : state) {
        const Clock::duration idle = RunOnThreads(1, [](int) { TwoWayCalls(kCallsPerThread); });
        char command = '1';
        if (write(gFloodControl, &command, 1) != 1 || read(gFloodControl, &command, 1) != 1) {
            state.SkipWithError("the flooder went away");
            return;
        }
        const Clock::duration flooded =
                RunOnThreads(1, [](int) { TwoWayCalls(kCallsPerThread); });
        command = '0';
        if (write(gFloodControl, &command, 1) != 1 || read(gFloodControl, &command, 1) != 1) {
            state.SkipWithError("the flooder went away");
            return;
        }
        state.SetIterationTime(Seconds(flooded));
        idleTime += idle;
        floodedTime += flooded;
    }
    if (!StillAlive(state)) {
        return;
    }
    const double calls = static_cast<double>(state.iterations()) * kCallsPerThread;
    state.counters["idle_us"] = Seconds(idleTime) * 1e6 / calls;
    state.counters["flooded_us"] = Seconds(floodedTime) * 1e6 / calls;
    state.counters["x_idle"] = Seconds(floodedTime) / Seconds(idleTime);
}
BENCHMARK(BM_TwoWayCallUnderFlood)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    const ScopedBinderDir binderDir;
    // The probe is a service too, with its state kept here.
    const TempWorkDir scratch;
    mkdir("data", 0755);
    mkdir("data/log", 0755);
    gBytes = MeasureCallBytes();

    int stop[2];
    if (pipe(stop) != 0) {
        return 1;
    }
    const pid_t server = fork();
    if (server == 0) {
        close(stop[1]);
        _exit(ServeUntilClosed(stop[0]));
    }
    close(stop[0]);

    std::vector<int> echoEnds;
    for (int i = 0; i < kMaxClients; ++i) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
            return 1;
        }
        gEchoSockets.push_back(pair[0]);
        echoEnds.push_back(pair[1]);
    }
    int sink[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sink) != 0) {
        return 1;
    }
    gSinkSocket = sink[0];
    const pid_t echo = fork();
    if (echo == 0) {
        close(stop[1]);
        for (const int fd : gEchoSockets) {
            close(fd);
        }
        close(gSinkSocket);
        _exit(EchoUntilClosed(echoEnds, sink[1], gBytes));
    }
    for (const int fd : echoEnds) {
        close(fd);
    }
    close(sink[1]);

    int flood[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, flood) != 0) {
        return 1;
    }
    gFloodControl = flood[0];
    const pid_t flooder = fork();
    if (flooder == 0) {
        close(stop[1]);
        close(gFloodControl);
        for (const int fd : gEchoSockets) {
            close(fd);
        }
        close(gSinkSocket);
        _exit(FloodUntilClosed(flood[1], binderDir.path() + "/" + kServiceName));
    }
    close(flood[1]);

    gBinder = android::defaultServiceManager()->getService(String16(kServiceName));
    gService = android::interface_cast<IVyMediaMonitorService>(gBinder);
    const int status = vymm_bench::RunBenchmarks(argc, argv);
    gService.clear();
    gBinder.clear();

    close(stop[1]);
    for (const int fd : gEchoSockets) {
        close(fd);
    }
    close(gSinkSocket);
    close(gFloodControl);
    Reap(server);
    Reap(echo);
    Reap(flooder);
    return status;
}
