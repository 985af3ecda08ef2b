// Serves the calls that other processes make to this process's services.
//
// The poll thread accepts connections on the services' sockets and reads
// requests without ever blocking on a peer; a complete request is queued for
// the worker threads and its connection is not read again until the reply
// has left, so the calls of one client connection run in order. Workers are
// spawned as requests wait, up to the maximum; threads that join the pool
// serve as extra workers. A reply that the peer does not take at once is
// left to the poll thread. Nothing waits on a peer, so a stalled or hostile
// client holds at most one connection slot.
//
// All public methods may be called from any thread; Stop() must not be
// called from a pool thread.
#ifndef HOST_BINDER_BINDER_POOL_H
#define HOST_BINDER_BINDER_POOL_H

#include <sys/types.h>

#include <deque>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include "Wire.h"

namespace android {

class BinderPool {
public:
    // As on the device.
    static constexpr size_t DEFAULT_MAX_THREADS = 15;
    // Connections served at once; a connection beyond it is closed at once.
    static constexpr size_t MAX_CONNECTIONS = 64;

    BinderPool();
    ~BinderPool();

    // Serves binder on listener, a listening socket, from now on.
    void AddListener(base::unique_fd listener, const sp<IBinder>& binder);
    void SetMaxThreads(size_t maxThreads);
    // Starts the poll thread, unless it runs or the pool is stopping.
    void Start();
    // Serves requests on the calling thread until Stop().
    void Join();
    void Stop();

private:
    struct Listener {
        base::unique_fd fd;
        sp<IBinder> binder;
    };

    // Owned by the poll thread while idle, and by the worker that runs its
    // request while busy; the hand-over happens under mLock.
    struct Connection {
        base::unique_fd fd;
        sp<IBinder> binder;
        pid_t pid;
        uid_t uid;
        FrameReader reader{MAX_FRAME_FDS};
        std::vector<uint8_t> out;  // reply bytes not yet sent
        size_t outSent = 0;
        bool busy = false;    // read and written under mLock
        bool broken = false;  // the worker could not send; close it
    };

    struct Request {
        Connection* conn;
        FrameHeader header;
        std::unique_ptr<Parcel> data;
    };

    void PollLoop();
    void WorkerLoop();
    void Accept(int listener, const sp<IBinder>& binder);
    void ReadRequest(Connection* conn);
    // Sends what the connection's reply has left; false when it failed.
    static bool Flush(Connection* conn);
    void Serve(Request* request);
    void Close(Connection* conn) EXCLUDES(mLock);
    void Wake();

    // Constant after construction: wakes the poll thread.
    const base::unique_fd mWakeFd;

    Mutex mLock;
    Condition mWorkCond;  // a request was queued, or the pool is stopping
    Condition mLeftCond;  // a joined thread left the pool
    size_t mMaxThreads GUARDED_BY(mLock);
    bool mExit GUARDED_BY(mLock);
    bool mPolling GUARDED_BY(mLock);
    std::thread mPoller GUARDED_BY(mLock);
    std::vector<std::thread> mWorkers GUARDED_BY(mLock);
    size_t mIdle GUARDED_BY(mLock);    // workers waiting for a request
    size_t mJoined GUARDED_BY(mLock);  // threads inside Join()
    std::vector<Listener> mListeners GUARDED_BY(mLock);
    std::list<std::unique_ptr<Connection>> mConnections GUARDED_BY(mLock);
    std::deque<Request> mQueue GUARDED_BY(mLock);

    // Touched only by the poll thread: accepting pauses for a while when the
    // process is out of descriptors, rather than spin on the listener.
    bool mAcceptPaused = false;
};

}  // namespace android

#endif
