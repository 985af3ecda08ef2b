// The Binder state of one thread: who the caller of the transaction it runs
// is. Each thread has its own; self() never returns null.
#ifndef HOST_BINDER_IPC_THREAD_STATE_H
#define HOST_BINDER_IPC_THREAD_STATE_H

#include <stdint.h>
#include <sys/types.h>

namespace android {

class IPCThreadState {
public:
    static IPCThreadState* self();

    // During a call from another process, its pid and real uid as the
    // kernel reports them for the message that carried this call (an
    // unprivileged sender cannot choose them), whoever opened the
    // connection; otherwise this process's own, unless an identity was
    // restored.
    pid_t getCallingPid() const { return mCallingPid; }
    uid_t getCallingUid() const { return mCallingUid; }

    // The token holds the uid in its high 32 bits and the pid in the low 32.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    // Serves incoming calls on this thread until the pool is stopped.
    void joinThreadPool(bool isMain = true);
    // Calls are sent as they are made; nothing is queued.
    void flushCommands() {}

private:
    friend class BinderPool;

    IPCThreadState();

    pid_t mCallingPid;
    uid_t mCallingUid;
};

}  // namespace android

#endif
