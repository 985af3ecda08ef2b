// The Binder state of the process: its thread pool, which serves the calls
// that other processes make to the services this process published.
// Safe to call from any thread.
#ifndef HOST_BINDER_PROCESS_STATE_H
#define HOST_BINDER_PROCESS_STATE_H

#include <stddef.h>

#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class BinderPool;

class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();

    // Starts serving: calls from different clients run concurrently on up
    // to the maximum number of pool threads (at least one, even with a
    // maximum of 0), spawned as calls need them, plus the threads that
    // joined the pool; the calls of one client thread run one after the
    // other, in order.
    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);

    // Host only: stops serving, joins every pool thread and waits for the
    // joined threads to leave; closes the open connections and drops the
    // calls not yet started, which their clients send again. Published
    // services stay, and startThreadPool serves them again. Every caller,
    // also one that comes while another is stopping the pool, returns once
    // the pool's threads are gone. Must not be called from a pool thread.
    void stopThreadPool();

private:
    friend class IPCThreadState;
    friend class HostServiceManager;

    ProcessState();
    ~ProcessState() override;

    BinderPool* const mPool;
};

}  // namespace android

#endif
