// binder_test_peer: the other process of the tests.
//   binder_test_peer
//     the Binder runtime's peer, driven one command a line (see BinderPeer.h)
//   binder_test_peer client SERVICE USER
//     as USER (a uid, or "-" to keep the user): prints its pid, calls the 21
//     operations, then MonitorVolumeIndex(thread, call, 0) 50 times on each
//     of 4 threads, then dumps with "-a" "x y" to standard output and to a
//     pipe whose reader is closed, printing that dump's status
//   binder_test_peer calls SERVICE USER COUNT
//     as USER, makes COUNT exception reports and COUNT volume changes
//   binder_test_peer stall SERVICE
//     prints its pid, then dumps the service to a socket it never reads; the
//     test kills it in the middle of that call
//   binder_test_peer dumps SERVICE USER COUNT
//     as USER, fills a pipe that it never reads, prints "dumping", makes
//     COUNT dumps into it at once, then prints "quick N": the dumps answered
//     within a second
// The programs exit 0 when every call went through.
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "support/BinderPeer.h"
#include "support/RecordingMonitorService.h"

using namespace android;

namespace {

// One write per line, so that lines of several threads never mix.
void Say(const std::string& line) {
    const std::string text = line + "\n";
    (void)!write(STDOUT_FILENO, text.data(), text.size());
}

std::string Calls(const sp<IBinder>& binder, int count) {
    std::atomic<int> answered{0};
    std::atomic<int> failure{0};
    std::atomic<int> uid{-1};
    std::atomic<int> pid{-1};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            Parcel data;
            Parcel reply;
            const status_t status = binder->transact(EchoBinder::ECHO, data, &reply);
            if (status == NO_ERROR) {
                uid = reply.readInt32();
                pid = reply.readInt32();
                ++answered;
            } else {
                int none = 0;
                failure.compare_exchange_strong(none, status);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::ostringstream out;
    out << answered << " " << failure << " " << uid << " " << pid;
    return out.str();
}

// One-way calls until count went or one failed: "sent failure -1 -1".
// Numbered across commands, so that the service sees any call overtaking
// another.
std::string OnewayCalls(const sp<IBinder>& binder, int count) {
    static int32_t next = 1;
    int sent = 0;
    status_t status = NO_ERROR;
    while (sent < count) {
        Parcel data;
        data.writeInt32(next);
        status = binder->transact(EchoBinder::ECHO, data, nullptr, IBinder::FLAG_ONEWAY);
        if (status != NO_ERROR) {
            break;
        }
        ++next;
        ++sent;
    }
    return std::to_string(sent) + " " + std::to_string(status) + " -1 -1";
}

// "-" keeps the user; a number drops to that uid and gid (root only). False
// when the drop failed.
bool BecomeUser(const char* user) {
    if (strcmp(user, "-") == 0) {
        return true;
    }
    const uid_t uid = static_cast<uid_t>(atoi(user));
    if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
        perror("dropping to uid");
        return false;
    }
    // Changing credentials made the process undumpable, which the
    // sanitizers' leak check cannot work with.
    prctl(PR_SET_DUMPABLE, 1);
    return true;
}

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

int Client(const sp<IBinder>& binder) {
    dprintf(STDOUT_FILENO, "%d\n", getpid());
    const sp<IVyMediaMonitorService> service = interface_cast<IVyMediaMonitorService>(binder);
    CallEveryOperation(service.get());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&service, t] {
            for (int i = 0; i < 50; ++i) {
                service->MonitorVolumeIndex(t, i, 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Vector<String16> args;
    args.add(String16("-a"));
    args.add(String16("x y"));
    int fds[2];
    if (binder->dump(STDOUT_FILENO, args) != NO_ERROR || pipe(fds) != 0) {
        return 1;
    }
    close(fds[0]);
    printf("%d\n", binder->dump(fds[1], args));
    return binder->isBinderAlive() ? 0 : 1;
}

// Makes count exception reports and volume changes, then a two-way ping that
// waits behind them.
int FewCalls(const sp<IBinder>& binder, int calls) {
    const sp<IVyMediaMonitorService> service = interface_cast<IVyMediaMonitorService>(binder);
    for (int call = 0; call < calls; ++call) {
        service->WriteLogMsg(916000101, 1, 0, String8("timeout"), String8("calls"));
        service->MonitorVolumeIndex(1, call % 10, 1);
    }
    return gWarnings == 0 && binder->pingBinder() == NO_ERROR ? 0 : 1;
}

int Stall(const sp<IBinder>& binder) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return 4;
    }
    printf("%d\n", getpid());
    fflush(stdout);
    binder->dump(fds[0], Vector<String16>());
    return 1;  // the test was to kill us first
}

int Dumps(const sp<IBinder>& binder, int count) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
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

// One of the programs of the monitor service's tests.
int RunProgram(int argc, char** argv) {
    const std::string program = argv[1];
    const bool client = argc == 4 && program == "client";
    const bool calls = argc == 5 && program == "calls";
    const bool dumps = argc == 5 && program == "dumps";
    if (!client && !calls && !dumps && !(argc == 3 && program == "stall")) {
        return 2;
    }
    __android_log_set_logger(CountWarnings);
    if (argc > 3 && !BecomeUser(argv[3])) {
        return 3;
    }
    const sp<IBinder> binder = GetService(argv[2]);
    if (binder == nullptr) {
        return 4;
    }
    if (client) {
        return Client(binder);
    }
    if (dumps) {
        return Dumps(binder, atoi(argv[4]));
    }
    return calls ? FewCalls(binder, atoi(argv[4])) : Stall(binder);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return RunProgram(argc, argv);
    }
    sp<IBinder> binder;
    bool serving = false;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        std::string arg;
        in >> command >> arg;
        if (command == "get") {
            binder = GetService(arg.c_str());
            Say(binder != nullptr ? "ok" : "null");
        } else if (command == "calls") {
            Say(Calls(binder, atoi(arg.c_str())));
        } else if (command == "oneway") {
            Say(OnewayCalls(binder, atoi(arg.c_str())));
        } else if (command == "publish") {
            Say(std::to_string(defaultServiceManager()->addService(String16(arg.c_str()),
                                                                   new EchoBinder)));
            ProcessState::self()->startThreadPool();
            serving = true;
        } else if (command == "as") {
            Say(BecomeUser(arg.c_str()) ? "ok" : "failed");
        } else if (command == "await") {
            Say("ready");
            char byte;
            (void)!read(atoi(arg.c_str()), &byte, 1);
        } else {
            Say("unknown command " + command);
        }
    }
    if (serving) {
        ProcessState::self()->stopThreadPool();
    }
    return 0;
}
