// The client process of the stress tests.
//   binder_stress_client load SERVICE USER THREADS CALLS
//     makes CALLS calls of the load mix from THREADS threads as USER (a uid,
//     or "-" to keep the user) and prints how many of each kind it made, one
//     "kind count" line each.
//   binder_stress_client stall SERVICE
//     prints its pid, then dumps the service to a socket it never reads; the
//     test kills it in the middle of that call.
//   binder_stress_client dumps SERVICE USER COUNT
//     as USER, fills a pipe that it never reads, prints "dumping", makes
//     COUNT dumps into it at once, then prints "quick N": the dumps answered
//     within a second.
// Exits 0 when every call went through.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <binder/IServiceManager.h>

#include "support/ClientUser.h"
#include "support/LoadMix.h"

using namespace android;

namespace {

constexpr int kCallsPerPing = 256;

// The proxy and the runtime warn about each call that did not go through.
std::atomic<int> gWarnings{0};

void CountWarnings(const struct __android_logger_data* data, const char* message) {
    if (data->priority >= ANDROID_LOG_WARN) {
        ++gWarnings;
    }
    __android_log_stderr_logger(data, message);
}

sp<IBinder> GetService(const char* name) {
    return defaultServiceManager()->getService(String16(name));
}

int Load(const char* name, int threads, int calls) {
    const sp<IBinder> binder = GetService(name);
    if (binder == nullptr || threads < 1) {
        return 4;
    }
    const sp<IVyMediaMonitorService> service = interface_cast<IVyMediaMonitorService>(binder);
    std::vector<std::array<long, LOAD_KINDS>> made(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        made[t].fill(0);
        workers.emplace_back([&binder, &service, &made, threads, calls, t] {
            for (int call = t; call < calls; call += threads) {
                // A one-way call fails rather than wait for a service that
                // is behind: the two-way ping waits for it now and then.
                if (call % kCallsPerPing == t) {
                    binder->pingBinder();
                }
                ++made[t][MakeMixedCall(service.get(), t, call)];
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    binder->pingBinder();
    for (int kind = 0; kind < LOAD_KINDS; ++kind) {
        long total = 0;
        for (const auto& counts : made) {
            total += counts[kind];
        }
        printf("%s %ld\n", kLoadKindNames[kind], total);
    }
    return gWarnings == 0 && binder->isBinderAlive() ? 0 : 1;
}

int Stall(const char* name) {
    const sp<IBinder> binder = GetService(name);
    int fds[2];
    if (binder == nullptr || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return 4;
    }
    printf("%d\n", getpid());
    fflush(stdout);
    binder->dump(fds[0], Vector<String16>());
    return 1;  // the test was to kill us first
}

int Dumps(const char* name, int count) {
    const sp<IBinder> binder = GetService(name);
    int fds[2];
    if (binder == nullptr || pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return 4;
    }
    const std::string page(4096, 'x');
    while (write(fds[1], page.data(), page.size()) > 0) {
    }
    fcntl(fds[1], F_SETFL, 0);
    printf("dumping\n");
    fflush(stdout);
    std::atomic<int> quick{0};
    std::vector<std::thread> dumps;
    for (int i = 0; i < count; ++i) {
        dumps.emplace_back([&] {
            const auto start = std::chrono::steady_clock::now();
            binder->dump(fds[1], Vector<String16>());
            quick += std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
        });
    }
    for (std::thread& dump : dumps) {
        dump.join();
    }
    printf("quick %d\n", quick.load());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    __android_log_set_logger(CountWarnings);
    if (argc == 6 && strcmp(argv[1], "load") == 0) {
        if (!BecomeUser(argv[3])) {
            return 3;
        }
        return Load(argv[2], atoi(argv[4]), atoi(argv[5]));
    }
    if (argc == 5 && strcmp(argv[1], "dumps") == 0) {
        return BecomeUser(argv[3]) ? Dumps(argv[2], atoi(argv[4])) : 3;
    }
    if (argc == 3 && strcmp(argv[1], "stall") == 0) {
        return Stall(argv[2]);
    }
    return 2;
}
