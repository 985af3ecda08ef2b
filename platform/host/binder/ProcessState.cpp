#include <binder/ProcessState.h>

#include <unistd.h>

#include <binder/IPCThreadState.h>

#include "BinderPool.h"

namespace android {

sp<ProcessState> ProcessState::self() {
    // Never destroyed: pool threads may outlive static destruction.
    static ProcessState* const gProcess = [] {
        ProcessState* process = new ProcessState;
        process->incStrong(nullptr);
        return process;
    }();
    return gProcess;
}

ProcessState::ProcessState() : mPool(new BinderPool) {}

ProcessState::~ProcessState() { delete mPool; }

void ProcessState::startThreadPool() { mPool->Start(); }

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    mPool->SetMaxThreads(maxThreads);
    return NO_ERROR;
}

void ProcessState::stopThreadPool() { mPool->Stop(); }

IPCThreadState* IPCThreadState::self() {
    static thread_local IPCThreadState state;
    return &state;
}

IPCThreadState::IPCThreadState() : mCallingPid(getpid()), mCallingUid(getuid()) {}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token =
            (static_cast<int64_t>(mCallingUid) << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = getpid();
    mCallingUid = getuid();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(static_cast<uint64_t>(token) >> 32);
    mCallingPid = static_cast<pid_t>(static_cast<uint32_t>(token));
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) { ProcessState::self()->mPool->Join(); }

}  // namespace android
