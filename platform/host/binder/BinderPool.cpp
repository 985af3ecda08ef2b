#define LOG_TAG "HostBinder"

#include "BinderPool.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <binder/IPCThreadState.h>
#include <log/log.h>

namespace android {

namespace {

// Set on the threads that serve requests, which must not stop the pool.
thread_local bool tServing = false;

// How long accepting pauses when the process is out of descriptors.
constexpr int ACCEPT_RETRY_MS = 1000;
// How long the drain of a withdrawn service's backlog retries when the
// process is out of descriptors.
constexpr int DRAIN_RETRY_MS = 5000;

// The event of mWakeFd; other ids name listeners and connections.
constexpr uint64_t WAKE_ID = 0;

// Blocks SIGPIPE on this thread for the scope, and drops one raised in it: a
// service that writes to a descriptor its caller passed, a dump to a pipe
// the caller has closed, must see EPIPE rather than kill the process.
class SigpipeBlocked {
public:
    SigpipeBlocked() {
        sigemptyset(&mPipe);
        sigaddset(&mPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &mPipe, &mOld);
        sigset_t pending;
        sigpending(&pending);
        mWasPending = sigismember(&pending, SIGPIPE) == 1;
    }
    ~SigpipeBlocked() {
        const timespec now = {0, 0};
        while (!mWasPending && sigtimedwait(&mPipe, nullptr, &now) == SIGPIPE) {
        }
        pthread_sigmask(SIG_SETMASK, &mOld, nullptr);
    }
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

private:
    sigset_t mPipe;
    sigset_t mOld;
    bool mWasPending;
};

// A one-way call that its service could not unmarshal: nobody learns of it
// but the log.
bool Malformed(status_t status) { return status == BAD_VALUE || status == UNKNOWN_TRANSACTION; }

}  // namespace

void (*BinderPool::sAcceptHook)() = nullptr;

BinderPool::BinderPool()
    : mEpollFd(epoll_create1(EPOLL_CLOEXEC)),
      mWakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mMaxThreads(DEFAULT_MAX_THREADS),
      mExit(false),
      mRunning(false),
      mWatching(0),
      mJoined(0),
      mNextId(WAKE_ID + 1),
      mTable(MAX_CONNECTIONS),
      mDiscarded(0),
      mFull(false),
      mAcceptPaused(false) {
    LOG_ALWAYS_FATAL_IF(mEpollFd.get() < 0 || mWakeFd.get() < 0, "epoll or eventfd failed: %s",
                        strerror(errno));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = WAKE_ID;
    LOG_ALWAYS_FATAL_IF(epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, mWakeFd.get(), &event) != 0,
                        "epoll_ctl failed: %s", strerror(errno));
}

BinderPool::~BinderPool() { Stop(); }

void BinderPool::AddListener(base::unique_fd listener, const sp<IBinder>& binder) {
    Mutex::Autolock lock(mLock);
    const uint64_t id = mNextId++;
    auto entry = std::make_shared<Listener>();
    entry->fd = std::move(listener);
    entry->binder = binder;
    entry->id = id;
    epoll_event event = {};
    event.data.u64 = id;
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, entry->fd.get(), &event) != 0) {
        ALOGE("cannot watch a listener: %s", strerror(errno));
    }
    mListeners[id] = entry;
    if (mRunning && !mFull && !mAcceptPaused) {
        Arm(entry->fd.get(), id, EPOLLIN);
    }
}

void BinderPool::RemoveListener(const sp<IBinder>& binder) {
    std::vector<std::shared_ptr<Listener>> removed;
    {
        Mutex::Autolock lock(mLock);
        for (auto it = mListeners.begin(); it != mListeners.end();) {
            if (it->second->binder == binder) {
                it->second->removed = true;
                epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, it->second->fd.get(), nullptr);
                // A connect from now on is refused: the backlog is all
                // there will be.
                shutdown(it->second->fd.get(), SHUT_RD);
                removed.push_back(std::move(it->second));
                it = mListeners.erase(it);
            } else {
                ++it;
            }
        }
        // A connection accepted but not yet registered is not among those
        // retired below.
        for (const std::shared_ptr<Listener>& listener : removed) {
            while (listener->accepting > 0) {
                mAcceptedCond.wait(mLock);
            }
        }
    }
    for (const std::shared_ptr<Listener>& listener : removed) {
        Accept(listener);
    }
    std::vector<std::unique_ptr<Connection>> closed;
    Mutex::Autolock lock(mLock);
    std::vector<Connection*> serving;
    for (const auto& [id, conn] : mConnections) {
        if (conn->binder == binder && !mTable.Retired(id)) {
            serving.push_back(conn.get());
        }
    }
    for (Connection* conn : serving) {
        closed.push_back(Retire(conn));
    }
}

void BinderPool::AwaitClosed(const sp<IBinder>& binder) {
    Mutex::Autolock lock(mLock);
    const auto hasConnections = [&]() REQUIRES(mLock) {
        return std::any_of(mConnections.begin(), mConnections.end(),
                           [&](const auto& entry) { return entry.second->binder == binder; });
    };
    while (!tServing && mRunning && !mExit && hasConnections()) {
        mClosedCond.wait(mLock);
    }
}

void BinderPool::SetMaxThreads(size_t maxThreads) {
    Mutex::Autolock lock(mLock);
    mMaxThreads = maxThreads;
}

void BinderPool::Start() {
    Mutex::Autolock lock(mLock);
    if (mExit || mRunning) {
        return;
    }
    mRunning = true;
    ArmListeners();
    Spawn();
}

void BinderPool::Join() {
    Start();
    {
        Mutex::Autolock lock(mLock);
        ++mJoined;
    }
    Loop();
    Mutex::Autolock lock(mLock);
    --mJoined;
    mLeftCond.broadcast();
}

void BinderPool::Stop() {
    if (tServing) {
        ALOGE("the thread pool cannot be stopped from one of its threads");
        return;
    }
    std::vector<std::thread> threads;
    {
        Mutex::Autolock lock(mLock);
        if (mExit) {
            // Another caller is stopping the pool; it is stopped when that
            // caller is done.
            while (mExit) {
                mStoppedCond.wait(mLock);
            }
            return;
        }
        mExit = true;
        threads.swap(mThreads);
        mClosedCond.broadcast();
    }
    const uint64_t one = 1;
    if (write(mWakeFd.get(), &one, sizeof(one)) < 0) {
        ALOGE("cannot wake the pool: %s", strerror(errno));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Destroyed without the lock: requests first, then connections.
    std::map<uint64_t, std::unique_ptr<Connection>> connections;
    std::deque<Request> queue;
    size_t discarded;
    {
        Mutex::Autolock lock(mLock);
        while (mJoined > 0) {
            mLeftCond.wait(mLock);
        }
        for (const auto& [id, conn] : mConnections) {
            epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, conn->fd.get(), nullptr);
        }
        connections.swap(mConnections);
        queue.swap(mQueue);
        discarded = mDiscarded + queue.size();
        mDiscarded = 0;
        mTable.Clear();
        mFull = false;
        mRunning = false;
    }
    queue.clear();
    for (auto& [id, conn] : connections) {
        discarded += DiscardUnread(conn.get());
    }
    if (discarded > 0) {
        ALOGW("discarded %zu requests at the stop", discarded);
    }
    connections.clear();
    uint64_t count;
    (void)!read(mWakeFd.get(), &count, sizeof(count));
    Mutex::Autolock lock(mLock);
    mExit = false;
    mStoppedCond.broadcast();
}

void BinderPool::Spawn() {
    const size_t index = mThreads.size();
    mThreads.emplace_back([this, index] {
        char name[16];
        snprintf(name, sizeof(name), "binder-%zu", index);
        pthread_setname_np(pthread_self(), name);
        Loop();
    });
}

void BinderPool::Loop() {
    tServing = true;
    Request request;
    while (Next(&request)) {
        // Serve where read: the connection's next request is read here too,
        // but for a turn only while other connections may be waiting.
        Connection* conn = request.conn;
        for (size_t served = 1; Serve(&request); ++served) {
            if (served % TURN_REQUESTS == 0 && OthersMayWait(*conn)) {
                Yield(conn);
                break;
            }
            if (!ReadFrom(conn, &request)) {
                break;
            }
        }
    }
    tServing = false;
}

bool BinderPool::Next(Request* request) {
    for (;;) {
        bool paused;
        {
            Mutex::Autolock lock(mLock);
            if (mExit) {
                return false;
            }
            if (TakeQueued(request)) {
                return true;
            }
            paused = mAcceptPaused;
            ++mWatching;
        }
        std::shared_ptr<Listener> listener;
        Connection* conn = nullptr;
        for (;;) {
            epoll_event event = {};
            const int n = epoll_wait(mEpollFd.get(), &event, 1, paused ? ACCEPT_RETRY_MS : -1);
            if (n < 0 && errno != EINTR) {
                ALOGE("epoll_wait failed: %s", strerror(errno));
            }
            Mutex::Autolock lock(mLock);
            if (mExit) {
                --mWatching;
                return false;
            }
            if (n == 0 && mAcceptPaused) {
                mAcceptPaused = false;
                ArmListeners();
            }
            if (n <= 0 || event.data.u64 == WAKE_ID) {
                paused = mAcceptPaused;
                continue;
            }
            const auto found = mConnections.find(event.data.u64);
            const ConnectionTable::HoldResult hold =
                    found != mConnections.end() ? mTable.Hold(found->first, UidShare())
                                                : ConnectionTable::TAKEN;
            if (hold == ConnectionTable::PARKED) {
                // Armed again when a thread of its uid lets go.
                paused = mAcceptPaused;
                continue;
            }
            if (hold == ConnectionTable::HELD) {
                conn = found->second.get();
            } else if (const auto it = mListeners.find(event.data.u64); it != mListeners.end()) {
                listener = it->second;
            }
            --mWatching;
            break;
        }
        if (listener != nullptr) {
            Accept(listener);
        } else if (conn != nullptr && ReadFrom(conn, request)) {
            return true;
        }
    }
}

bool BinderPool::OthersMayWait(const Connection& conn) {
    Mutex::Autolock lock(mLock);
    return mWatching == 0 || !mQueue.empty() || mTable.HasParked(conn.uid);
}

size_t BinderPool::UidShare() {
    const size_t threads = std::max<size_t>(mMaxThreads, 1) + mJoined;
    return std::max<size_t>(1, threads * UID_THREAD_PERCENT / 100);
}

void BinderPool::Yield(Connection* conn) {
    if (!conn->out.empty() && !Flush(conn)) {
        Close(conn);
        return;
    }
    // Armed again, it goes behind the connections already ready.
    Release(conn);
}

bool BinderPool::TakeQueued(Request* request) {
    // The thread that queued a request watches until another one is done.
    if (mQueue.empty() || (mWatching == 0 && mThreads.size() + mJoined > 1)) {
        return false;
    }
    *request = std::move(mQueue.front());
    mQueue.pop_front();
    return true;
}

bool BinderPool::ReadFrom(Connection* conn, Request* request) {
    if (!conn->out.empty()) {
        if (!Flush(conn)) {
            Close(conn);
            return false;
        }
        // A client sends its next two-way call once it has the reply: the
        // set reports it rather than a read that finds nothing now.
        if (!conn->reader.HoldsFrame()) {
            Release(conn);
            return false;
        }
    }
    switch (conn->reader.Read(conn->fd.get())) {
        case FrameReader::NEED_MORE:
            Release(conn);
            return false;
        case FrameReader::CLOSED:
            if (!conn->reader.Empty() && mTruncatedLog.Allow()) {
                ALOGW("dropping a truncated frame from pid %d uid %u", conn->pid, conn->uid);
            }
            Close(conn);
            return false;
        case FrameReader::BAD:
            LogBadFrame(*conn, conn->reader.GetFault());
            Close(conn);
            return false;
        case FrameReader::COMPLETE:
            break;
    }
    *request = {conn, {}, conn->reader.Sender(), std::make_unique<Parcel>()};
    conn->reader.Take(&request->header, request->data.get());

    Mutex::Autolock lock(mLock);
    mTable.Used(conn->id);
    if (mExit) {
        // Stop() closes the connection.
        ++mDiscarded;
        return false;
    }
    // Another thread takes over watching while this one runs the call; when
    // none can, the call waits for the next thread that is done.
    const size_t maxThreads = std::max<size_t>(mMaxThreads, 1);
    if (mWatching == 0 && mThreads.size() < maxThreads) {
        Spawn();
    } else if (mWatching == 0 && mThreads.size() + mJoined > 1) {
        mQueue.push_back(std::move(*request));
        return false;
    }
    return true;
}

bool BinderPool::Serve(Request* request) {
    Connection* conn = request->conn;
    IPCThreadState* ipc = IPCThreadState::self();
    const int64_t token = ipc->clearCallingIdentity();
    ipc->mCallingPid = request->sender.pid;
    ipc->mCallingUid = request->sender.uid;
    const bool oneway = (request->header.flags & IBinder::FLAG_ONEWAY) != 0;
    Parcel reply;
    status_t status;
    {
        SigpipeBlocked sigpipeBlocked;
        status = conn->binder->transact(request->header.code, *request->data, &reply,
                                        request->header.flags);
    }
    ipc->restoreCallingIdentity(token);
    request->data.reset();

    if (oneway && Malformed(status)) {
        if (mMalformedLog.Allow()) {
            ALOGW("dropping connection from pid %d uid %u: one-way transaction %u is malformed",
                  conn->pid, conn->uid, request->header.code);
        }
        Close(conn);
        return false;
    }
    if (oneway) {
        return true;
    }
    if (reply.dataSize() > MAX_FRAME_DATA || reply.objectsCount() > 0) {
        ALOGE("the reply to transaction %u cannot be sent", request->header.code);
        status = FAILED_TRANSACTION;
        reply.freeData();
    }
    conn->out = HostWire::EncodeFrame(static_cast<uint32_t>(status), 0, reply);
    conn->outSent = 0;
    return true;
}

void BinderPool::LogBadFrame(const Connection& conn, FrameReader::Fault fault) {
    if (mFaultLog[fault].Allow()) {
        ALOGW("dropping connection from pid %d uid %u: %s", conn.pid, conn.uid,
              conn.reader.Error());
    }
}

void BinderPool::Accept(const std::shared_ptr<Listener>& listener) {
    bool removed;
    {
        Mutex::Autolock lock(mLock);
        removed = listener->removed;
        ++listener->accepting;
    }
    const nsecs_t drainDeadline = systemTime(SYSTEM_TIME_MONOTONIC) + ms2ns(DRAIN_RETRY_MS);
    bool madeRoom = false;
    for (size_t accepted = 0; removed || accepted < ACCEPT_BATCH; ++accepted) {
        {
            Mutex::Autolock lock(mLock);
            if (!removed && mTable.AtBound() && (madeRoom || mTable.Victim() == 0)) {
                break;
            }
        }
        base::unique_fd fd(accept4(listener->fd.get(), nullptr, nullptr,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd.get() < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                if (RetryDrain(*listener, drainDeadline)) {
                    continue;
                }
                ALOGE("cannot accept connections: %s", strerror(errno));
                Mutex::Autolock lock(mLock);
                mAcceptPaused = true;
            }
            break;
        }
        if (sAcceptHook != nullptr) {
            sAcceptHook();
        }
        ucred cred = {};
        socklen_t len = sizeof(cred);
        if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
            !HostWire::PassCredentials(fd.get())) {
            ALOGW("dropping a connection without credentials: %s", strerror(errno));
            continue;
        }
        std::unique_ptr<Connection> conn(new Connection);
        conn->fd = std::move(fd);
        conn->binder = listener->binder;
        conn->pid = cred.pid;
        conn->uid = cred.uid;
        std::unique_ptr<Connection> closed;
        {
            Mutex::Autolock lock(mLock);
            // The victim found above may hold a call by now: then this one
            // connection goes over the bound.
            Connection* victim = !removed && mTable.AtBound() ? Victim() : nullptr;
            if (victim != nullptr) {
                closed = Retire(victim);
                madeRoom = true;
            }
        }
        if (closed != nullptr) {
            ALOGD("closed a connection of pid %d uid %u to make room", closed->pid, closed->uid);
        }
        Register(std::move(conn), *listener);
    }
    Mutex::Autolock lock(mLock);
    --listener->accepting;
    mAcceptedCond.broadcast();
    if (!listener->removed && !mAcceptPaused && !Full()) {
        Arm(listener->fd.get(), listener->id, EPOLLIN);
    }
}

bool BinderPool::RetryDrain(const Listener& listener, nsecs_t deadline) {
    Mutex::Autolock lock(mLock);
    const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
    if (!listener.removed || left <= 0) {
        if (listener.removed) {
            ALOGE("connections left in the backlog of a withdrawn service: out of descriptors");
        }
        return false;
    }
    // A connection that ends gives its descriptor back.
    mClosedCond.waitRelative(mLock, std::min(left, ms2ns(ACCEPT_RETRY_MS)));
    return true;
}

void BinderPool::Register(std::unique_ptr<Connection> conn, const Listener& listener) {
    Connection* added = conn.get();
    std::unique_ptr<Connection> closed;
    Mutex::Autolock lock(mLock);
    added->id = mNextId++;
    mConnections[added->id] = std::move(conn);
    mTable.Add(added->id, added->uid);
    epoll_event event = {};
    event.data.u64 = added->id;
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, added->fd.get(), &event) != 0) {
        ALOGE("cannot watch a connection: %s", strerror(errno));
        closed = Detach(added);
    } else if (listener.removed) {
        closed = Retire(added);
    } else {
        Arm(added->fd.get(), added->id, EPOLLIN);
    }
}

bool BinderPool::Full() {
    const bool full = mTable.AtBound() && mTable.Victim() == 0;
    if (full && !mFull) {
        ALOGW("all %zu connections hold calls: new ones wait", MAX_CONNECTIONS);
    }
    mFull = full;
    return full;
}

BinderPool::Connection* BinderPool::Victim() { return Find(mTable.Victim()); }

BinderPool::Connection* BinderPool::Find(uint64_t id) {
    const auto it = mConnections.find(id);
    return it != mConnections.end() ? it->second.get() : nullptr;
}

std::unique_ptr<BinderPool::Connection> BinderPool::Retire(Connection* conn) {
    // Shut first: what the client sends from now on fails there, so what
    // is left to read is all it will ever be.
    shutdown(conn->fd.get(), SHUT_RD);
    if (mTable.Held(conn->id)) {
        // Its thread reads it to the end.
        mTable.Retire(conn->id);
        return nullptr;
    }
    if (!conn->out.empty() || !HasUnread(*conn)) {
        return Detach(conn);
    }
    mTable.Retire(conn->id);
    Arm(conn->fd.get(), conn->id, EPOLLIN);
    return nullptr;
}

void BinderPool::Release(Connection* conn) {
    std::unique_ptr<Connection> closed;
    Mutex::Autolock lock(mLock);
    mTable.Release(conn->id);
    // A connection that waited for this thread goes first.
    WakeParked(conn->uid);
    const bool retired = mTable.Retired(conn->id);
    if (retired && !conn->out.empty()) {
        // The client runs what it sent but does not take the replies.
        closed = Detach(conn);
    } else if (!retired && !mExit &&
               std::none_of(mListeners.begin(), mListeners.end(), [&](const auto& entry) {
                   return entry.second->binder == conn->binder;
               })) {
        closed = Retire(conn);
    } else {
        Watch(conn);
    }
    // It may make room now.
    if (mFull && mRunning) {
        ArmListeners();
    }
}

bool BinderPool::HasUnread(const Connection& conn) {
    int unread = 0;
    return !conn.reader.Empty() || (ioctl(conn.fd.get(), FIONREAD, &unread) == 0 && unread > 0);
}

size_t BinderPool::DiscardUnread(Connection* conn) {
    size_t frames = 0;
    while (conn->reader.Read(conn->fd.get()) == FrameReader::COMPLETE) {
        FrameHeader header;
        Parcel data;
        conn->reader.Take(&header, &data);
        ++frames;
    }
    return frames;
}

bool BinderPool::Flush(Connection* conn) {
    while (conn->outSent < conn->out.size()) {
        const ssize_t n = send(conn->fd.get(), conn->out.data() + conn->outSent,
                               conn->out.size() - conn->outSent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        conn->outSent += static_cast<size_t>(n);
    }
    conn->out.clear();
    conn->outSent = 0;
    return true;
}

void BinderPool::Close(Connection* conn) {
    // Destroyed after the lock is released.
    std::unique_ptr<Connection> closing;
    Mutex::Autolock lock(mLock);
    closing = Detach(conn);
}

std::unique_ptr<BinderPool::Connection> BinderPool::Detach(Connection* conn) {
    const auto it = mConnections.find(conn->id);
    if (it == mConnections.end()) {
        return nullptr;
    }
    std::unique_ptr<Connection> detached = std::move(it->second);
    mConnections.erase(it);
    mTable.Remove(detached->id);
    WakeParked(detached->uid);
    // Removed before the descriptor closes: a number reused at once must
    // not inherit its registration.
    epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, detached->fd.get(), nullptr);
    mClosedCond.broadcast();
    if (mFull && mRunning) {
        ArmListeners();
    }
    return detached;
}

void BinderPool::Arm(int fd, uint64_t id, uint32_t events) {
    epoll_event event = {};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = id;
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_MOD, fd, &event) != 0) {
        ALOGE("cannot watch a descriptor: %s", strerror(errno));
    }
}

bool BinderPool::Watch(Connection* conn) {
    // Requests read but not run have no event of their own.
    const bool waitForRoom = !conn->out.empty() || conn->reader.HoldsFrame();
    Arm(conn->fd.get(), conn->id, waitForRoom ? EPOLLOUT : EPOLLIN);
    return waitForRoom;
}

void BinderPool::WakeParked(uid_t uid) {
    // A client that never reads its replies would keep the wake-up.
    while (Connection* parked = Find(mTable.TakeParked(uid))) {
        if (!Watch(parked)) {
            return;
        }
    }
}

void BinderPool::ArmListeners() {
    mFull = false;
    for (const auto& [id, listener] : mListeners) {
        Arm(listener->fd.get(), id, EPOLLIN);
    }
}

}  // namespace android
