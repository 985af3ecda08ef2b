// One queued operation through the host Binder transport from another
// process, against a raw ping-pong of the same bytes over a Unix-domain
// socket pair between two processes, from 1 and from 4 client threads.
//
// Before any thread starts, this process forks the service's process (the
// service published in a fresh runtime folder) and an echo process that
// answers on one socket pair per client thread; both end when their end of
// a pipe or socket closes.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
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

using android::IVyMediaMonitorService;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using vymm_bench::Clock;

namespace {

constexpr char kServiceName[] = "vymm.bench.monitor";
constexpr int kMaxClients = 4;
constexpr int kCallsPerThread = 200;

void Call(IVyMediaMonitorService& service) {
    service.WriteBigData(916019101, "com.example.player", 1, 0);
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

// The service's process: serves until stopFd reads its end.
int ServeUntilClosed(int stopFd) {
    const TempWorkDir scratch;
    vymm_bench::SetServiceProperties({"bigdata"});
    const sp<android::VyMediaMonitorService> service = new android::VyMediaMonitorService;
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
    android::ProcessState::self()->stopThreadPool();
    return 0;
}

// The echo process: answers each request with a reply, on every socket.
int EchoUntilClosed(const std::vector<int>& sockets, CallBytes bytes) {
    std::vector<std::thread> threads;
    for (const int fd : sockets) {
        threads.emplace_back([fd, bytes] {
            std::vector<char> request(bytes.request);
            const std::vector<char> reply(bytes.reply);
            while (ReadFully(fd, &request) && WriteFully(fd, reply)) {
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
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
sp<IVyMediaMonitorService> gService;
std::vector<int> gEchoSockets;  // one per client thread

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

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void BM_RemoteCall(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    if (gService == nullptr) {
        state.SkipWithError("the service was not found");
        return;
    }
    Clock::duration binderTime{};
    Clock::duration socketTime{};
    for (auto _ : state) {
        const Clock::duration binder = RunOnThreads(threads, [](int) {
            for (int i = 0; i < kCallsPerThread; ++i) {
                Call(*gService);
            }
        });
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
    if (!IVyMediaMonitorService::asBinder(gService)->isBinderAlive()) {
        state.SkipWithError("the service's process went away");
        return;
    }
    const double calls = static_cast<double>(state.iterations()) * threads * kCallsPerThread;
    state.counters["calls_per_s"] = calls / Seconds(binderTime);
    state.counters["socket_calls_per_s"] = calls / Seconds(socketTime);
    state.counters["x_socket"] = Seconds(binderTime) / Seconds(socketTime);
    state.counters["request_bytes"] = static_cast<double>(gBytes.request);
    state.counters["reply_bytes"] = static_cast<double>(gBytes.reply);
}
BENCHMARK(BM_RemoteCall)->ArgName("clients")->Arg(1)->Arg(kMaxClients)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    const ScopedBinderDir binderDir;
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
    const pid_t echo = fork();
    if (echo == 0) {
        close(stop[1]);
        for (const int fd : gEchoSockets) {
            close(fd);
        }
        _exit(EchoUntilClosed(echoEnds, gBytes));
    }
    for (const int fd : echoEnds) {
        close(fd);
    }

    gService = android::interface_cast<IVyMediaMonitorService>(
            android::defaultServiceManager()->getService(String16(kServiceName)));
    const int status = vymm_bench::RunBenchmarks(argc, argv);
    gService.clear();

    close(stop[1]);
    for (const int fd : gEchoSockets) {
        close(fd);
    }
    Reap(server);
    Reap(echo);
    return status;
}
