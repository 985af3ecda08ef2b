// Permission checks. On a host, root (uid 0) and system (1000) hold every
// permission, shell (2000) holds "android.permission.DUMP", others none.
#ifndef HOST_BINDER_PERMISSION_CACHE_H
#define HOST_BINDER_PERMISSION_CACHE_H

#include <stdint.h>
#include <sys/types.h>

#include <utils/String16.h>

namespace android {

class PermissionCache {
public:
    // Of the caller of the current transaction (IPCThreadState).
    static bool checkCallingPermission(const String16& permission);
    static bool checkCallingPermission(const String16& permission, int32_t* outPid,
                                       int32_t* outUid);
    static bool checkPermission(const String16& permission, pid_t pid, uid_t uid);
};

}  // namespace android

#endif
