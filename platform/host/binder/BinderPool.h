// Serves the calls that other processes make to this process's services.
//
// Every idle pool thread waits on one epoll set in which each listener and
// connection is armed one-shot, so exactly one thread takes each event. The
// thread that reads a complete request runs it and sends its reply, then
// reads the connection's next request itself, for a turn of TURN_REQUESTS
// when other connections may be waiting (it then goes to the back of the
// ready ones, so that a flood takes turns with everyone else); the others
// go on watching, and a thread is spawned when none is left to watch, up to
// the maximum but at least one; threads that join the pool serve as extra ones. Only when
// no thread can take over watching does a request wait in a queue for the
// next thread that ends a call. A connection is read again only once its
// request ran, so the calls of one connection run one after the other, in
// order, one-way ones included. A reply that the peer does not take at once,
// and a turn's end with requests read but not run, wait for the connection
// to become writable. Nothing waits on a peer.
// Each call runs as the process that sent its request, which need not be the
// one that opened the connection.
//
// The connections of one uid hold at most UID_THREAD_PERCENT of the
// threads; another of its connections that becomes ready waits, parked,
// until one of them is let go. Then the one parked longest is armed again,
// and before it any that wait only for room to write: their client may
// never make it, and must not keep the wake-up from the others.
//
// Connections are bounded. At the bound, a new connection makes room by
// retiring the least recently used connection that holds no call and is
// not parked, of the uid that holds the most connections; only while every
// connection holds a call do new ones wait, unaccepted, in the listening
// socket's backlog. A retired connection is shut for reading and closed
// once it has run the requests already written to it; clients send again
// on a new connection when an idle one was closed, so excess load waits
// instead of failing, no uid crowds out the others, and no request written
// whole is lost.
//
// Threads: pool threads run Loop(). The public methods may be called from
// any thread; Stop() not from a pool thread. mLock is the only lock, never
// held while a call runs or a thread is joined. A connection is held by one
// thread at a time (in mTable, under mLock); only that thread reads or
// writes it.
#ifndef HOST_BINDER_BINDER_POOL_H
#define HOST_BINDER_BINDER_POOL_H

#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

#include "ConnectionTable.h"
#include "Wire.h"
#include "common/LogRateLimiter.h"

namespace android {

class BinderPool {
public:
    // As on the device.
    static constexpr size_t DEFAULT_MAX_THREADS = 15;
    // Connections open at once, not counting retired ones still running
    // what they were sent.
    static constexpr size_t MAX_CONNECTIONS = 64;
    // Connections accepted from one listener at a time, so that the
    // requests of those accepted are read in between.
    static constexpr size_t ACCEPT_BATCH = 8;
    // Requests a thread runs from one connection in a row while others may
    // be waiting: then the connection goes to the back of the ready ones.
    static constexpr size_t TURN_REQUESTS = 8;
    // Of the pool's threads, the share that the connections of one uid may
    // hold at once, so that a flood from one client leaves threads to the
    // others; the rest of its connections wait their turn, oldest first.
    static constexpr size_t UID_THREAD_PERCENT = 50;
    // Bytes one read of a connection may take, so that one system call
    // brings many requests: at most MAX_CONNECTIONS times this (1 MiB) is
    // held beyond the requests being read.
    static constexpr size_t READ_AHEAD_BYTES = 16 * 1024;

    BinderPool();
    ~BinderPool();

    void SetMaxThreads(size_t maxThreads);
    // Starts the first pool thread, unless the pool runs or is stopping.
    void Start();
    // Serves requests on the calling thread until Stop().
    void Join();
    // Returns once every thread of the pool is gone, even when another
    // caller was already stopping it. Requests still unread are counted
    // and logged as discarded.
    void Stop();

    // Test seam: runs on the accepting thread between accept and the
    // connection's registration, without the lock.
    static void (*sAcceptHook)();

private:
    // A service is served and withdrawn through its publication only.
    friend class Publication;

    // Serves binder on listener, a listening socket, from now on.
    void AddListener(base::unique_fd listener, const sp<IBinder>& binder);
    // Stops serving binder: shuts its listener, takes the connections still
    // in its backlog, also those another thread is accepting, and closes
    // the listener; each connection of binder, busy or not, is shut for
    // reading and closed once it ran what it was sent.
    void RemoveListener(const sp<IBinder>& binder);
    // Returns once binder has no connection left, or at once on a pool
    // thread or while the pool does not run.
    void AwaitClosed(const sp<IBinder>& binder);

    struct Listener {
        base::unique_fd fd;
        sp<IBinder> binder;
        uint64_t id;
        // Under mLock:
        bool removed = false;
        size_t accepting = 0;  // threads between accept and registration
    };

    struct Connection {
        base::unique_fd fd;
        sp<IBinder> binder;
        uint64_t id;
        // Who opened the connection, for the share of connections and the
        // logs; a call runs as the sender of its request.
        pid_t pid;
        uid_t uid;
        FrameReader reader{MAX_FRAME_FDS, READ_AHEAD_BYTES};
        std::vector<uint8_t> out;  // reply bytes not yet sent
        size_t outSent = 0;
    };

    struct Request {
        Connection* conn;
        FrameHeader header;
        ucred sender;
        std::unique_ptr<Parcel> data;
    };

    void Loop();
    // A queued request, else waits for one event and takes its connection
    // or accepts on its listener; false when the pool stops.
    bool Next(Request* request);
    // Reads conn, which this thread holds, unless it sends a reply first;
    // true with a request for this thread to run. Otherwise conn was let
    // go, closed or queued.
    bool ReadFrom(Connection* conn, Request* request);
    // Reads and drops the complete requests left on conn: how many.
    static size_t DiscardUnread(Connection* conn);
    // Whether conn holds bytes nobody ran yet, read or still in the socket.
    static bool HasUnread(const Connection& conn);
    // True when a ready connection may find no thread watching, a request
    // waits in the queue, or a connection of conn's uid waits for its share.
    bool OthersMayWait(const Connection& conn) EXCLUDES(mLock);
    // Connections one uid may hold at once, each with a thread or a queued
    // request.
    size_t UidShare() REQUIRES(mLock);
    // Lets go of conn, which this thread holds, after its reply is sent.
    void Yield(Connection* conn) EXCLUDES(mLock);
    // Sends what the connection's reply has left; false when it failed.
    static bool Flush(Connection* conn);
    // Runs a request and answers it; false when conn was closed.
    bool Serve(Request* request);
    // Accepts up to ACCEPT_BATCH connections on listener (all of them once
    // it is removed), making room for at most one.
    void Accept(const std::shared_ptr<Listener>& listener);
    // After accept failed with errno: true to try again, when listener is
    // being drained and descriptors may come free before deadline.
    bool RetryDrain(const Listener& listener, nsecs_t deadline);
    void Register(std::unique_ptr<Connection> conn, const Listener& listener) EXCLUDES(mLock);
    // The connection to retire for a new one at the bound; null when every
    // connection holds a call.
    Connection* Victim() REQUIRES(mLock);
    Connection* Find(uint64_t id) REQUIRES(mLock);
    // Shuts conn for reading; the connection to close now when it has no
    // request left to run, else null and it runs them first.
    std::unique_ptr<Connection> Retire(Connection* conn) REQUIRES(mLock);
    // Stops holding conn and watches it again.
    void Release(Connection* conn) EXCLUDES(mLock);
    void Close(Connection* conn) EXCLUDES(mLock);
    std::unique_ptr<Connection> Detach(Connection* conn) REQUIRES(mLock);
    void Arm(int fd, uint64_t id, uint32_t events) REQUIRES(mLock);
    // Arms conn, which no thread holds, for its next event; true when that
    // is room to write rather than a request.
    bool Watch(Connection* conn) REQUIRES(mLock);
    // Arms the connection of uid that waited longest for its share, and
    // before it those that wait for room, which may never come.
    void WakeParked(uid_t uid) REQUIRES(mLock);
    void ArmListeners() REQUIRES(mLock);
    bool Full() REQUIRES(mLock);
    void Spawn() REQUIRES(mLock);
    // A request to run when one is queued that this thread may take.
    bool TakeQueued(Request* request) REQUIRES(mLock);
    void LogBadFrame(const Connection& conn, FrameReader::Fault fault);

    // Constant after construction. mWakeFd, level-triggered in the set,
    // wakes every waiting thread while the pool stops.
    const base::unique_fd mEpollFd;
    const base::unique_fd mWakeFd;

    Mutex mLock;
    Condition mLeftCond;     // a joined thread left the pool
    Condition mStoppedCond;  // a Stop() finished
    Condition mClosedCond;   // a connection was closed
    Condition mAcceptedCond; // an accept in progress ended
    size_t mMaxThreads GUARDED_BY(mLock);
    bool mExit GUARDED_BY(mLock);     // a Stop() is in progress
    bool mRunning GUARDED_BY(mLock);  // started and not stopped
    std::vector<std::thread> mThreads GUARDED_BY(mLock);
    size_t mWatching GUARDED_BY(mLock);  // threads waiting for an event
    size_t mJoined GUARDED_BY(mLock);    // threads inside Join()
    uint64_t mNextId GUARDED_BY(mLock);
    std::map<uint64_t, std::shared_ptr<Listener>> mListeners GUARDED_BY(mLock);
    std::map<uint64_t, std::unique_ptr<Connection>> mConnections GUARDED_BY(mLock);
    // Which of mConnections a thread holds (only that thread reads or
    // writes it), which are retired, which makes room.
    ConnectionTable mTable GUARDED_BY(mLock);
    size_t mDiscarded GUARDED_BY(mLock);  // requests read but not run at a stop
    std::deque<Request> mQueue GUARDED_BY(mLock);
    // Listeners are left unarmed while every connection holds a call, and
    // for a while when the process is out of descriptors.
    bool mFull GUARDED_BY(mLock);  // logged once
    bool mAcceptPaused GUARDED_BY(mLock);

    // Any client can send bad frames as fast as it likes: one line a
    // second for each fault, truncated frames and malformed one-way calls.
    struct OnePerSecond : LogRateLimiter {
        OnePerSecond() : LogRateLimiter(1, 1) {}
    };
    OnePerSecond mFaultLog[FrameReader::FAULTS];
    OnePerSecond mTruncatedLog;
    OnePerSecond mMalformedLog;
};

}  // namespace android

#endif
