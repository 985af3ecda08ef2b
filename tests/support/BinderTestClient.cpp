// The client process of the interface test: binder_test_client SERVICE UID
// UID "-" keeps the user; a number drops to it first (root only). Prints its
// pid, calls the 21 operations, then MonitorVolumeIndex(thread, call, 0) 50
// times on each of 4 threads, then dumps with "-a" "x y" to standard output
// and to a pipe whose reader is closed, printing that dump's status. Exits 0
// when the calls went through.
#include <stdio.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include <binder/IServiceManager.h>

#include "support/ClientUser.h"
#include "support/RecordingMonitorService.h"

using namespace android;

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    if (!BecomeUser(argv[2])) {
        return 3;
    }
    const sp<IBinder> binder = defaultServiceManager()->getService(String16(argv[1]));
    if (binder == nullptr) {
        return 4;
    }
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
