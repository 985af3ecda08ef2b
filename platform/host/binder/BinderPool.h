// Serves the calls that other processes make to this process's services.
//
// The poll thread accepts connections on the services' sockets and reads
// requests without ever blocking on a peer; a complete request is queued for
// the worker threads and its connection is not read again until the reply
// has left, so the calls of one client connection run in order. Workers are
// spawned as requests wait, up to the maximum but at least one; threads that
// join the pool serve as extra workers. A reply that the peer does not take
// at once is left to the poll thread. Nothing waits on a peer. Each call
// runs as the process that sent its request, which need not be the one
// that opened the connection.
//
// Connections are bounded. At the bound, a new connection makes room by
// closing the least recently used connection that holds no call, of the uid
// that holds the most connections; only while every connection holds a call
// do new ones wait, unaccepted, in the listening socket's backlog. Clients
// send again on a new connection when an idle one was closed, so excess
// load waits instead of failing, and no uid crowds out the others.
//
// Threads: the poll thread runs PollLoop() and alone accepts, reads and
// closes connections and closes listeners; workers and joined threads run
// WorkerLoop() and Serve(). The public methods may be called from any
// thread; Stop() not from a pool thread. mLock is the only lock, never held
// while a call runs or a thread is joined.
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
    // Connections open at once.
    static constexpr size_t MAX_CONNECTIONS = 64;
    // Connections accepted from one listener in a round of the poll thread,
    // so that the requests of those accepted are read in between.
    static constexpr size_t ACCEPT_BATCH = 8;

    BinderPool();
    ~BinderPool();

    // Serves binder on listener, a listening socket, from now on.
    void AddListener(base::unique_fd listener, const sp<IBinder>& binder);
    // Stops serving binder: closes its listener, and each of its connections
    // once no call holds it.
    void RemoveListener(const sp<IBinder>& binder);
    void SetMaxThreads(size_t maxThreads);
    // Starts the poll thread, unless it runs or the pool is stopping.
    void Start();
    // Serves requests on the calling thread until Stop().
    void Join();
    // Returns once every thread of the pool is gone, even when another
    // caller was already stopping it.
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
        // Who opened the connection, for the share of connections and the
        // logs; a call runs as the sender of its request.
        pid_t pid;
        uid_t uid;
        FrameReader reader{MAX_FRAME_FDS};
        uint64_t lastUsed = 0;     // the poll thread's round of its accept or last request
        std::vector<uint8_t> out;  // reply bytes not yet sent
        size_t outSent = 0;
        bool busy = false;     // holds a call; read and written under mLock
        bool closing = false;  // close it once no call holds it; under mLock
    };

    struct Request {
        Connection* conn;
        FrameHeader header;
        ucred sender;
        std::unique_ptr<Parcel> data;
    };

    void PollLoop();
    void WorkerLoop();
    // Accepts up to ACCEPT_BATCH connections on listener, making room for
    // at most one of them a round: a connection just accepted gets a round
    // to be read before it may be chosen to make room.
    void Accept(int listener, const sp<IBinder>& binder, bool* madeRoom);
    // The connection to close for a new one at the bound; null when every
    // connection holds a call.
    Connection* Victim() REQUIRES(mLock);
    std::unique_ptr<Connection> Detach(Connection* conn) REQUIRES(mLock);
    void ReadRequest(Connection* conn);
    // Sends what the connection's reply has left; false when it failed.
    static bool Flush(Connection* conn);
    void Serve(Request* request);
    void Close(Connection* conn) EXCLUDES(mLock);
    void Wake();

    // Constant after construction: wakes the poll thread.
    const base::unique_fd mWakeFd;

    Mutex mLock;
    Condition mWorkCond;     // a request was queued, or the pool is stopping
    Condition mLeftCond;     // a joined thread left the pool
    Condition mStoppedCond;  // a Stop() finished
    size_t mMaxThreads GUARDED_BY(mLock);
    bool mExit GUARDED_BY(mLock);  // a Stop() is in progress
    bool mPolling GUARDED_BY(mLock);
    std::thread mPoller GUARDED_BY(mLock);
    std::vector<std::thread> mWorkers GUARDED_BY(mLock);
    size_t mIdle GUARDED_BY(mLock);    // workers waiting for a request
    size_t mJoined GUARDED_BY(mLock);  // threads inside Join()
    std::vector<Listener> mListeners GUARDED_BY(mLock);
    // Listeners removed, for the poll thread to close: it may be polling them.
    std::vector<base::unique_fd> mRetired GUARDED_BY(mLock);
    std::list<std::unique_ptr<Connection>> mConnections GUARDED_BY(mLock);
    std::deque<Request> mQueue GUARDED_BY(mLock);

    // Touched only by the poll thread. Accepting pauses for a while when the
    // process is out of descriptors, rather than spin on the listener.
    bool mAcceptPaused = false;
    bool mFull = false;  // every connection holds a call; logged once
    uint64_t mRound = 0;
};

}  // namespace android

#endif
