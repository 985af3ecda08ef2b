// The process's one-way sender: one thread that writes out the queues of the
// proxies whose one-way calls the socket could not take at once (see
// BpBinder.h for a worked example). It polls their connections for room,
// writes many queued calls a send, and lets a proxy go once its queue is
// empty. It holds a strong reference to each proxy it watches, so a proxy
// closed with calls queued lives until they are out or
// CLOSED_FLUSH_TIMEOUT_MS passes without room; at a normal exit the process
// waits up to EXIT_FLUSH_TIMEOUT_MS for every queue.
//
// Threads: Watch() from any thread; the sender thread, started on the first
// Watch() of a process, runs Loop() for the life of the process. mLock
// guards the hand-over of proxies; the thread never holds it while it
// flushes, and a proxy's lock is never held while mLock is taken. A forked
// child starts afresh: its parent's proxies stay the parent's.
#ifndef HOST_BINDER_ONEWAY_SENDER_H
#define HOST_BINDER_ONEWAY_SENDER_H

#include <sys/types.h>

#include <vector>

#include <binder/BpBinder.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

namespace android {

class OnewaySender {
public:
    // How long a proxy nobody else holds may wait for room.
    static constexpr int CLOSED_FLUSH_TIMEOUT_MS = 2000;
    // How long a normal exit waits for the queues.
    static constexpr int EXIT_FLUSH_TIMEOUT_MS = 2000;
    // The pause before another try when no connection could be made, or a
    // caller was writing the queue.
    static constexpr int RETRY_MS = 10;

    static OnewaySender& Get();

    // Writes out proxy's queue from now on, until it is empty.
    void Watch(const sp<BpBinder>& proxy) EXCLUDES(mLock);
    // Waits up to timeoutMs until no proxy has calls queued; false when
    // some still have.
    bool WaitForEmpty(int timeoutMs) EXCLUDES(mLock);

private:
    struct Watched {
        sp<BpBinder> proxy;
        int fd = -1;          // polled for room when waiting
        bool ready = true;    // flush at the next turn
        int64_t closedAtMs = -1;  // since when only the sender holds it, without room
    };

    OnewaySender() = default;
    void StartLocked() REQUIRES(mLock);
    void Loop(int wakeFd);
    // Takes the proxies handed over; records how many the thread holds.
    void TakeIncoming(std::vector<Watched>* watched) EXCLUDES(mLock);
    // Flushes what is ready; the poll timeout the next turn needs.
    static int FlushReady(std::vector<Watched>* watched);
    // Around fork(): a child gets mLock free, and no thread.
    static void BeforeFork() NO_THREAD_SAFETY_ANALYSIS;
    static void AfterForkInParent() NO_THREAD_SAFETY_ANALYSIS;
    static void AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS;

    Mutex mLock;
    Condition mEmptyCond;  // the thread holds no proxy and none is handed over
    int mWakeFd GUARDED_BY(mLock) = -1;  // an eventfd, read by the thread only
    pid_t mOwner GUARDED_BY(mLock) = 0;  // the process whose thread runs, or 0
    std::vector<sp<BpBinder>> mIncoming GUARDED_BY(mLock);
    size_t mHeld GUARDED_BY(mLock) = 0;  // proxies the thread watches
};

}  // namespace android

#endif
