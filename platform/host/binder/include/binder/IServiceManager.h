// The directory of published services. On a host, a service published by
// one process is reached from others through a Unix-domain socket named
// after it in the runtime folder: $HOST_BINDER_DIR, else /tmp/host-binder.
// Every folder on its path must belong to this process's user or to root
// and be writable by nobody else (a sticky folder of root, such as /tmp,
// excepted); any other folder is refused, with a log line naming the
// folder at fault. Only publishing creates the runtime folder. Safe to call
// from any thread.
#ifndef HOST_BINDER_ISERVICE_MANAGER_H
#define HOST_BINDER_ISERVICE_MANAGER_H

#include <sys/types.h>

#include <binder/IInterface.h>
#include <utils/Vector.h>

namespace android {

class IServiceManager : public IInterface {
public:
    enum {
        DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0,
        DUMP_FLAG_PRIORITY_HIGH = 1 << 1,
        DUMP_FLAG_PRIORITY_NORMAL = 1 << 2,
        DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3,
        DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                                 DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT,
        DUMP_FLAG_PROTO = 1 << 4,
    };

    // A service of this process is answered with the local object itself.
    // getService waits a few seconds for the service to appear;
    // checkService answers at once. Null when not found.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // service must be a local object. Requests reach it once this process
    // runs its thread pool. ALREADY_EXISTS when a live process, or this
    // one, already publishes name: of processes publishing a name at once,
    // exactly one succeeds. PERMISSION_DENIED when the runtime folder is
    // refused.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
    // This process's services of the given priorities; services of other
    // processes, whose priority is not known here, only for all priorities.
    virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;

    // Host only: stops publishing name, a service of this process, so that
    // a launcher can release the name when asked to stop (not from a signal
    // handler): removes its socket, closes its connections once no call
    // holds them and drops the reference to the service. Proxies held by
    // other processes are dead from then on. NAME_NOT_FOUND when this
    // process does not publish name.
    virtual status_t removeService(const String16& name) = 0;
};

sp<IServiceManager> defaultServiceManager();

template <typename INTERFACE>
status_t getService(const String16& name, sp<INTERFACE>* outService) {
    const sp<IServiceManager> sm = defaultServiceManager();
    if (sm != nullptr) {
        *outService = interface_cast<INTERFACE>(sm->getService(name));
        if (*outService != nullptr) {
            return NO_ERROR;
        }
    }
    return NAME_NOT_FOUND;
}

bool checkCallingPermission(const String16& permission);
bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid);
bool checkPermission(const String16& permission, pid_t pid, uid_t uid);

}  // namespace android

#endif
