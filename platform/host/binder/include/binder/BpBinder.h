// A proxy for a Binder object of another process, reached through the
// socket on which that process listens, in the runtime folder the proxy was
// found in. Any thread may call it; a call uses a connection no other call
// is using, so concurrent calls do not wait for each other, and the calls
// of one thread arrive in order.
//
// A call whose connection the service closed before running it (an idle
// connection closed to make room, a pool that stopped) is sent again on a
// new connection, after a bounded back-off when that fails too; a call that
// still cannot be sent fails with FAILED_TRANSACTION. Only once nothing
// listens on the socket any more is the proxy dead: every call then fails
// with DEAD_OBJECT. A child forked from the process that made the proxy
// uses connections of its own and never touches those it inherited.
//
// One-way calls (FLAG_ONEWAY) all go on one connection of the proxy, so the
// service runs them in the order sent, whichever thread sent them. Such a
// call never waits for the service: what the socket does not take at once
// is queued in the proxy, up to MAX_PENDING_ONEWAY_BYTES, and the process's
// one-way sender thread (OnewaySender) writes the queue out as soon as the
// socket has room, many calls a send, also when no further call comes;
// so does each caller that brings the queue to a multiple of
// CALLER_FLUSH_FRAMES, when no other thread is writing it. A call made
// while nothing is queued goes straight to the socket: once it returns,
// its bytes are the service's, which a stop runs. A
// call that finds the queue full, or the service gone, is refused
// (WOULD_BLOCK, DEAD_OBJECT) and counted; the process's count of refused
// calls goes to the service ahead of the next request that goes through,
// as a DROPPED_CALLS_TRANSACTION. A two-way call returns only after the
// one-way calls sent before it through the proxy ran: it queues a ping
// behind them, writes the queue out itself when the socket takes it, and
// waits for the ping's answer.
//
// Example: a codec thread sends 2000 calls while the service is stopped.
// The first few hundred fill the socket; the rest wait in this proxy
// (under 200 KiB with their bookkeeping) and each call returns NO_ERROR;
// every CALLER_FLUSH_FRAMES-th tries one send of the queue and finds no
// room. The proxy hands itself to the sender thread, which polls the
// socket for room. When the service reads again, the sender writes up to
// MAX_SEND_FRAMES queued calls with each sendmsg until the queue is empty,
// then lets the proxy go. A call made meanwhile joins the queue's end; once the queue is
// empty, calls go straight to the socket again. A proxy whose last user
// lets go is kept by the sender until its queue is out, or
// CLOSED_FLUSH_TIMEOUT_MS without room; a process that exits normally waits
// up to EXIT_FLUSH_TIMEOUT_MS for every queue to go out.
//
// When the service closes the one-way connection, the queue goes on a new
// one, a frame cut short again from its start; what went whole on the old
// one is the service's to run. The sender gives up, counting the calls as
// refused, once nothing listens or after MAX_SEND_FAILURES tries.
//
// A one-way call that passes descriptors first writes out what is queued;
// it is sent only when the queue is then empty and the socket takes its
// first bytes; otherwise it is refused and counted. In a forked child the
// parent's queue is forgotten: the parent sends it.
#ifndef HOST_BINDER_BP_BINDER_H
#define HOST_BINDER_BP_BINDER_H

#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

namespace android {

class ProcessFd;
class RuntimeFolder;

class BpBinder : public IBinder {
public:
    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override { return mAlive; }
    status_t pingBinder() override;
    // Passes fd along; the other process writes the dump to it.
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) final;

    BpBinder* remoteBinder() override { return this; }

    // Host only, for tools that must not lose a call: a one-way call that
    // finds the queue full waits up to ms milliseconds for room (0: it is
    // refused at once, the default) before it is refused.
    void setOnewayRoomWait(int ms);

    // Pending one-way bytes per proxy. Memory: at most this plus the
    // remainder of one frame cut short by the socket (MAX_FRAME_DATA), and
    // PENDING_FRAME_OVERHEAD counted per queued call.
    static constexpr size_t MAX_PENDING_ONEWAY_BYTES = 512 * 1024;
    static constexpr size_t PENDING_FRAME_OVERHEAD = 64;
    // Queued calls written by one sendmsg, and sendmsgs by one flush.
    static constexpr size_t MAX_SEND_FRAMES = 256;
    static constexpr int FLUSH_ROUNDS = 8;
    // Queued calls at which the caller writes the queue out itself.
    static constexpr size_t CALLER_FLUSH_FRAMES = 64;
    // Failed tries of the sender thread in a row (OnewaySender::RETRY_MS
    // apart, some 10 s) before it drops the queue, counting its calls.
    static constexpr int MAX_SEND_FAILURES = 1000;

private:
    friend class HostServiceManager;
    friend class OnewaySender;

    // Idle connections kept for the next calls; more are closed.
    static constexpr size_t MAX_IDLE_CONNECTIONS = 4;
    // Tries of one call, and the longest pause between two of them.
    static constexpr int MAX_ATTEMPTS = 12;
    static constexpr int MAX_BACKOFF_MS = 128;

    // What a flush of the queue left, for the sender thread.
    enum FlushResult {
        FLUSHED,    // the queue is empty: the sender lets the proxy go
        WAIT_ROOM,  // *fd has no room yet
        RETRY,      // no connection could be made for now: try again shortly
    };

    // Queued one-way bytes: whole frames, the first maybe partly sent.
    struct PendingFrame {
        std::vector<uint8_t> bytes;
        size_t sent = 0;
        bool ping = false;
        // A report of refused calls sent ahead of the frame, in its first
        // prefixBytes bytes.
        uint32_t carriedDrops = 0;
        size_t prefixBytes = 0;
    };
    enum PingState { NO_PING, PING_QUEUED, PING_SENT, PING_LOST };

    enum Outcome {
        ANSWERED,
        NOT_RUN,     // closed before any byte of the reply: send it again
        REPLY_LOST,  // closed during the reply
        BAD_REPLY,
    };

    // Adopts connection, a socket connected to the one named name in folder.
    BpBinder(RuntimeFolder&& folder, const std::string& name, int connection);
    ~BpBinder() override;

    // An idle connection (reused set), else a new one; -1 with errno set
    // on failure.
    int takeConnection(bool* reused);
    void putConnection(int fd);
    // A new connection to the service; -1 with errno set on failure.
    int connect();
    // Forgets the connections a forked child inherited, without closing them.
    void dropInherited() REQUIRES(mLock);
    status_t sendOneway(uint32_t code, const Parcel& data, uint32_t flags);
    status_t sendWithDescriptors(uint32_t code, const Parcel& data, uint32_t flags);
    // Sends frame, or what the socket does not take of it goes to the
    // queue; *watchNow when the sender thread must now watch the proxy.
    // DEAD_OBJECT when the service is gone: the frame was dropped.
    status_t submit(PendingFrame&& frame, bool* watchNow) REQUIRES(mOnewayLock);
    // Queues frame; true when the sender thread must now watch the proxy.
    bool enqueue(PendingFrame&& frame) REQUIRES(mOnewayLock);
    // Puts the process's count of refused calls ahead of frame.
    void attachDrops(PendingFrame* frame) REQUIRES(mOnewayLock);
    // Waits up to the room wait for size more bytes to fit; false when
    // they do not.
    bool waitForRoom(size_t size) REQUIRES(mOnewayLock);
    // Counts a refused one-way call; status is what the caller gets.
    status_t refuse(status_t status);
    // Forgets a queue inherited from the parent of a forked child.
    void forgetInheritedOneway() REQUIRES(mOnewayLock);
    // Drops the queue, counting its calls as refused.
    void dropPending() REQUIRES(mOnewayLock);
    // For the sender thread: writes out what the queue holds.
    FlushResult flushPending(int* fd) EXCLUDES(mOnewayLock);
    // For a caller: one send of what the queue holds, unless another thread
    // is writing it or there is no connection; failures are left to the
    // sender thread, which watches every queue that is not empty.
    void flushAsCaller() EXCLUDES(mOnewayLock);
    // Takes the queue's writing over, and points iov at up to
    // MAX_SEND_FRAMES of its frames: their count, 0 when another thread is
    // writing it.
    size_t startWrite(iovec* iov) REQUIRES(mOnewayLock);
    // For the sender thread, when a closed proxy's queue timed out.
    void abandonPending() EXCLUDES(mOnewayLock);
    // After a failed send on conn: the queue goes again on a new one.
    void connectionLost(const std::shared_ptr<ProcessFd>& conn) REQUIRES(mOnewayLock);
    // Counts a failed try; true when the queue was dropped after too many.
    bool sendFailed() REQUIRES(mOnewayLock);
    // Takes frames sent bytes off the queue's front; conn carried them.
    void advance(size_t sent, const std::shared_ptr<ProcessFd>& conn) REQUIRES(mOnewayLock);
    void watch() EXCLUDES(mOnewayLock);
    // Returns once the one-way calls sent before ran (or their connection
    // is gone, taking them with it).
    void waitForOneway();
    // The one-way connection, opened without waiting when there is none;
    // null with errno set when it cannot be.
    std::shared_ptr<ProcessFd> onewayConnection() REQUIRES(mOnewayLock);
    void dropOneway(const std::shared_ptr<ProcessFd>& conn) EXCLUDES(mOnewayLock);
    Outcome exchange(int fd, uint32_t code, uint32_t flags, const Parcel& data, Parcel* reply,
                     status_t* status);
    // What a call whose reply was cut short fails with.
    status_t replyLost();
    status_t died();

    // Constant after construction.
    const std::string mName;

    std::atomic<bool> mAlive;

    // Lock order: mBarrierLock, mOnewayLock, mLock. The sender thread
    // takes mOnewayLock alone and never holds it while it sends.
    // Held by the one thread waiting for a ping on the one-way connection.
    Mutex mBarrierLock;
    // Held only for sends that never wait, but by a tool's room wait.
    Mutex mOnewayLock;
    // Signalled when the queue shrinks or a ping leaves or is lost.
    Condition mOnewayCond;
    // Shared with a waiting ping and a flush, which may outlive its use here.
    std::shared_ptr<ProcessFd> mOneway GUARDED_BY(mOnewayLock);
    uint64_t mOnewaySent GUARDED_BY(mOnewayLock) = 0;  // calls accepted
    uint64_t mOnewayRan GUARDED_BY(mOnewayLock) = 0;   // mOnewaySent at the last ping
    // Appended by callers, taken off the front only by the thread writing
    // it (mWriting; callers send directly only while it is empty), so that
    // thread sends its frames without the lock: a deque keeps them where
    // they are.
    std::deque<PendingFrame> mPending GUARDED_BY(mOnewayLock);
    bool mWriting GUARDED_BY(mOnewayLock) = false;
    size_t mPendingBytes GUARDED_BY(mOnewayLock) = 0;  // unsent, with overheads
    pid_t mPendingOwner GUARDED_BY(mOnewayLock) = getpid();
    bool mWatched GUARDED_BY(mOnewayLock) = false;  // the sender holds the proxy
    int mSendFailures GUARDED_BY(mOnewayLock) = 0;  // in a row, by the sender
    int mRoomWaitMs GUARDED_BY(mOnewayLock) = 0;
    PingState mPing GUARDED_BY(mOnewayLock) = NO_PING;
    std::shared_ptr<ProcessFd> mPingConn GUARDED_BY(mOnewayLock);  // where it went

    mutable Mutex mLock;
    // Reopened in a forked child.
    std::unique_ptr<RuntimeFolder> mFolder GUARDED_BY(mLock);
    // The most recently used last.
    std::vector<ProcessFd> mIdle GUARDED_BY(mLock);
    mutable bool mHaveDescriptor GUARDED_BY(mLock);
    // Set once under mLock before mHaveDescriptor, constant afterwards.
    mutable String16 mDescriptor;
};

}  // namespace android

#endif
