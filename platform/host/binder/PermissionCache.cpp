#include <binder/PermissionCache.h>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>

namespace android {

namespace {

constexpr uid_t AID_ROOT = 0;
constexpr uid_t AID_SYSTEM = 1000;
constexpr uid_t AID_SHELL = 2000;

}  // namespace

bool PermissionCache::checkPermission(const String16& permission, pid_t /*pid*/, uid_t uid) {
    static const String16* const kDump = new String16("android.permission.DUMP");
    return uid == AID_ROOT || uid == AID_SYSTEM || (uid == AID_SHELL && permission == *kDump);
}

bool PermissionCache::checkCallingPermission(const String16& permission, int32_t* outPid,
                                             int32_t* outUid) {
    const IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    if (outPid != nullptr) {
        *outPid = pid;
    }
    if (outUid != nullptr) {
        *outUid = static_cast<int32_t>(uid);
    }
    return checkPermission(permission, pid, uid);
}

bool PermissionCache::checkCallingPermission(const String16& permission) {
    return checkCallingPermission(permission, nullptr, nullptr);
}

bool checkCallingPermission(const String16& permission) {
    return PermissionCache::checkCallingPermission(permission);
}

bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid) {
    return PermissionCache::checkCallingPermission(permission, outPid, outUid);
}

bool checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    return PermissionCache::checkPermission(permission, pid, uid);
}

}  // namespace android
