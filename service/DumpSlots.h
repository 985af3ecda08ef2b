// The dump's slots, shared fairly: a caller (uid) holds at most one at a
// time, and one is kept for root and the system uid, so that a bug report's
// dump is never told "busy" because an application's dumps wait on pipes
// nobody reads. Any thread; mLock is taken alone and only for a moment.
#ifndef VYMM_SERVICE_DUMP_SLOTS_H
#define VYMM_SERVICE_DUMP_SLOTS_H

#include <stddef.h>
#include <sys/types.h>

#include <private/android_filesystem_config.h>
#include <utils/Mutex.h>

namespace android {

class DumpSlots {
public:
    // Dumps that may run at once; slot 0 is the one kept for root and system.
    static constexpr int SLOTS = 2;

    // A slot for a dump by uid, or -1 when none is free to it.
    int Take(uid_t uid) EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        for (const long holder : mHolders) {
            if (holder == static_cast<long>(uid)) {
                return -1;
            }
        }
        const bool privileged = uid == AID_ROOT || uid == AID_SYSTEM;
        for (int slot = privileged ? 0 : 1; slot < SLOTS; ++slot) {
            if (mHolders[slot] == kFree) {
                mHolders[slot] = static_cast<long>(uid);
                return slot;
            }
        }
        return -1;
    }

    // Gives back a slot that Take returned.
    void Give(int slot) EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        mHolders[slot] = kFree;
    }

private:
    static constexpr long kFree = -1;

    Mutex mLock;
    long mHolders[SLOTS] GUARDED_BY(mLock) = {kFree, kFree};  // uids
};

}  // namespace android

#endif
