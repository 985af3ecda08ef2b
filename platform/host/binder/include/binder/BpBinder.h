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
// call returns once its request is written: when the socket cannot take it
// at once it fails with WOULD_BLOCK and nothing of it is sent. A two-way
// call returns only after the one-way calls sent before it through the
// proxy ran: it first waits for a ping on their connection.
#ifndef HOST_BINDER_BP_BINDER_H
#define HOST_BINDER_BP_BINDER_H

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <binder/IBinder.h>
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

private:
    friend class HostServiceManager;

    // Idle connections kept for the next calls; more are closed.
    static constexpr size_t MAX_IDLE_CONNECTIONS = 4;
    // Tries of one call, and the longest pause between two of them.
    static constexpr int MAX_ATTEMPTS = 12;
    static constexpr int MAX_BACKOFF_MS = 128;

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
    // Returns once the one-way calls sent before ran (or their connection
    // is gone, taking them with it).
    void waitForOneway();
    // The one-way connection, opened without waiting when there is none;
    // null with errno set when it cannot be.
    std::shared_ptr<ProcessFd> onewayConnection() REQUIRES(mOnewayLock);
    // Sends a ping on conn without holding mOnewayLock while it waits; false
    // when conn cannot take it.
    bool sendPing(const std::shared_ptr<ProcessFd>& conn) EXCLUDES(mOnewayLock);
    void dropOneway(const std::shared_ptr<ProcessFd>& conn) EXCLUDES(mOnewayLock);
    Outcome exchange(int fd, uint32_t code, uint32_t flags, const Parcel& data, Parcel* reply,
                     status_t* status);
    // What a call whose reply was cut short fails with.
    status_t replyLost();
    status_t died();

    // Constant after construction.
    const std::string mName;

    std::atomic<bool> mAlive;

    // Lock order: mBarrierLock, mOnewayLock, mLock.
    // Held by the one thread waiting for a ping on the one-way connection.
    Mutex mBarrierLock;
    uint64_t mOnewayRan GUARDED_BY(mBarrierLock) = 0;  // mOnewaySent as of the last ping
    // Held only for sends that never wait.
    Mutex mOnewayLock;
    // Shared with a waiting ping, which may outlive its use here.
    std::shared_ptr<ProcessFd> mOneway GUARDED_BY(mOnewayLock);
    uint64_t mOnewaySent GUARDED_BY(mOnewayLock) = 0;

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
