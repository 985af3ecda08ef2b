// The client process of the Binder tests:
//   binder_test_client SERVICE UID COMMAND [ARG...]
// UID "-" keeps the user; a number drops to it first (root only).
// Commands: "every" calls the 21 operations; "threads N M" calls
// MonitorVolumeIndex(thread, call, 0) M times on each of N threads; "dump
// ARG..." dumps to standard output; "dump-to-closed-pipe" prints the dump's
// status; "ping"; "transact CODE" prints "sending", then the status. Exits 0
// when the calls went through.
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <binder/IServiceManager.h>

#include "support/RecordingMonitorService.h"

using namespace android;

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s SERVICE UID COMMAND [ARG...]\n", argv[0]);
        return 2;
    }
    if (strcmp(argv[2], "-") != 0) {
        const uid_t uid = static_cast<uid_t>(atoi(argv[2]));
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
            perror("dropping to uid");
            return 3;
        }
        // Changing credentials made the process undumpable, which the
        // sanitizers' leak check cannot work with.
        prctl(PR_SET_DUMPABLE, 1);
    }
    const sp<IBinder> binder = defaultServiceManager()->getService(String16(argv[1]));
    if (binder == nullptr) {
        return 4;
    }
    const std::string command = argv[3];
    if (command == "every") {
        CallEveryOperation(interface_cast<IVyMediaMonitorService>(binder).get());
    } else if (command == "threads" && argc == 6) {
        const sp<IVyMediaMonitorService> service = interface_cast<IVyMediaMonitorService>(binder);
        std::vector<std::thread> threads;
        for (int t = 0; t < atoi(argv[4]); ++t) {
            threads.emplace_back([&service, t, calls = atoi(argv[5])] {
                for (int i = 0; i < calls; ++i) {
                    service->MonitorVolumeIndex(t, i, 0);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    } else if (command == "dump") {
        Vector<String16> args;
        for (int i = 4; i < argc; ++i) {
            args.add(String16(argv[i]));
        }
        return binder->dump(STDOUT_FILENO, args) == NO_ERROR ? 0 : 1;
    } else if (command == "dump-to-closed-pipe") {
        int fds[2];
        if (pipe(fds) != 0) {
            return 1;
        }
        close(fds[0]);
        printf("%d\n", binder->dump(fds[1], Vector<String16>()));
        close(fds[1]);
    } else if (command == "ping") {
        return binder->pingBinder() == NO_ERROR ? 0 : 1;
    } else if (command == "transact" && argc == 5) {
        printf("sending\n");
        fflush(stdout);
        Parcel data;
        Parcel reply;
        printf("%d\n", binder->transact(static_cast<uint32_t>(atoi(argv[4])), data, &reply));
    } else {
        fprintf(stderr, "unknown command %s\n", command.c_str());
        return 2;
    }
    return binder->isBinderAlive() ? 0 : 1;
}
