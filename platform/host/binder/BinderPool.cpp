#define LOG_TAG "HostBinder"

#include "BinderPool.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include <binder/IPCThreadState.h>
#include <log/log.h>

namespace android {

namespace {

// Set on the threads that serve requests, which must not stop the pool.
thread_local bool tServing = false;

// How long accepting pauses when the process is out of descriptors.
constexpr int ACCEPT_RETRY_MS = 1000;

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

}  // namespace

BinderPool::BinderPool()
    : mWakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mMaxThreads(DEFAULT_MAX_THREADS),
      mExit(false),
      mPolling(false),
      mIdle(0),
      mJoined(0) {
    LOG_ALWAYS_FATAL_IF(mWakeFd.get() < 0, "eventfd failed: %s", strerror(errno));
}

BinderPool::~BinderPool() { Stop(); }

void BinderPool::AddListener(base::unique_fd listener, const sp<IBinder>& binder) {
    {
        Mutex::Autolock lock(mLock);
        mListeners.push_back({std::move(listener), binder});
    }
    Wake();
}

void BinderPool::RemoveListener(const sp<IBinder>& binder) {
    {
        Mutex::Autolock lock(mLock);
        for (auto it = mListeners.begin(); it != mListeners.end();) {
            if (it->binder == binder) {
                mRetired.push_back(std::move(it->fd));
                it = mListeners.erase(it);
            } else {
                ++it;
            }
        }
        for (const std::unique_ptr<Connection>& conn : mConnections) {
            conn->closing = conn->closing || conn->binder == binder;
        }
        if (!mPolling) {
            mRetired.clear();
        }
    }
    Wake();
}

void BinderPool::SetMaxThreads(size_t maxThreads) {
    Mutex::Autolock lock(mLock);
    mMaxThreads = maxThreads;
}

void BinderPool::Start() {
    Mutex::Autolock lock(mLock);
    if (mExit || mPolling) {
        return;
    }
    mPolling = true;
    mPoller = std::thread([this] {
        pthread_setname_np(pthread_self(), "binder-poll");
        PollLoop();
    });
}

void BinderPool::Join() {
    Start();
    {
        Mutex::Autolock lock(mLock);
        ++mJoined;
    }
    WorkerLoop();
    Mutex::Autolock lock(mLock);
    --mJoined;
    mLeftCond.broadcast();
}

void BinderPool::Stop() {
    if (tServing) {
        ALOGE("the thread pool cannot be stopped from one of its threads");
        return;
    }
    std::thread poller;
    std::vector<std::thread> workers;
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
        mWorkCond.broadcast();
        poller = std::move(mPoller);
        workers.swap(mWorkers);
    }
    Wake();
    if (poller.joinable()) {
        poller.join();
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    // Destroyed without the lock: requests first, then connections.
    std::list<std::unique_ptr<Connection>> connections;
    std::deque<Request> queue;
    std::vector<base::unique_fd> retired;
    {
        Mutex::Autolock lock(mLock);
        while (mJoined > 0) {
            mLeftCond.wait(mLock);
        }
        connections.swap(mConnections);
        queue.swap(mQueue);
        retired.swap(mRetired);
        mPolling = false;
    }
    queue.clear();
    connections.clear();
    retired.clear();
    Mutex::Autolock lock(mLock);
    mExit = false;
    mStoppedCond.broadcast();
}

void BinderPool::Wake() {
    const uint64_t one = 1;
    if (write(mWakeFd.get(), &one, sizeof(one)) < 0 && errno != EAGAIN) {
        ALOGE("cannot wake the poll thread: %s", strerror(errno));
    }
}

void BinderPool::PollLoop() {
    std::vector<pollfd> fds;
    std::vector<std::pair<int, sp<IBinder>>> listeners;
    std::vector<Connection*> conns;
    std::vector<Connection*> closing;
    for (;; ++mRound) {
        fds.assign(1, {mWakeFd.get(), POLLIN, 0});
        listeners.clear();
        conns.clear();
        closing.clear();
        std::vector<base::unique_fd> retired;
        // Accepting resumes after a pause of one round.
        const bool acceptPaused = mAcceptPaused;
        mAcceptPaused = false;
        bool full;
        {
            Mutex::Autolock lock(mLock);
            if (mExit) {
                return;
            }
            retired.swap(mRetired);
            full = mConnections.size() >= MAX_CONNECTIONS && Victim() == nullptr;
            for (const Listener& listener : mListeners) {
                if (!acceptPaused && !full) {
                    fds.push_back({listener.fd.get(), POLLIN, 0});
                    listeners.emplace_back(listener.fd.get(), listener.binder);
                }
            }
            for (const std::unique_ptr<Connection>& conn : mConnections) {
                if (conn->busy) {
                    continue;
                }
                if (conn->closing) {
                    closing.push_back(conn.get());
                    continue;
                }
                const short events = conn->out.empty() ? POLLIN : POLLOUT;
                fds.push_back({conn->fd.get(), events, 0});
                conns.push_back(conn.get());
            }
        }
        if (full && !mFull) {
            ALOGW("all %zu connections hold calls: new ones wait", MAX_CONNECTIONS);
        }
        mFull = full;
        retired.clear();
        for (Connection* conn : closing) {
            Close(conn);
        }
        if (poll(fds.data(), fds.size(), acceptPaused ? ACCEPT_RETRY_MS : -1) < 0) {
            if (errno != EINTR) {
                ALOGE("poll failed: %s", strerror(errno));
            }
            continue;
        }
        if (fds[0].revents != 0) {
            uint64_t count;
            (void)!read(mWakeFd.get(), &count, sizeof(count));
        }
        for (size_t i = 0; i < conns.size(); ++i) {
            if (fds[1 + listeners.size() + i].revents == 0) {
                continue;
            }
            Connection* conn = conns[i];
            if (conn->out.empty()) {
                ReadRequest(conn);
            } else if (!Flush(conn)) {
                Close(conn);
            }
        }
        // Last: making room closes connections that conns may hold.
        bool madeRoom = false;
        for (size_t i = 0; i < listeners.size(); ++i) {
            if (fds[1 + i].revents != 0) {
                Accept(listeners[i].first, listeners[i].second, &madeRoom);
            }
        }
    }
}

void BinderPool::Accept(int listener, const sp<IBinder>& binder, bool* madeRoom) {
    for (size_t accepted = 0; accepted < ACCEPT_BATCH; ++accepted) {
        {
            Mutex::Autolock lock(mLock);
            if (mConnections.size() >= MAX_CONNECTIONS && (*madeRoom || Victim() == nullptr)) {
                return;
            }
        }
        base::unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd.get() < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                ALOGE("cannot accept connections: %s", strerror(errno));
                mAcceptPaused = true;
            }
            return;
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
        conn->binder = binder;
        conn->pid = cred.pid;
        conn->uid = cred.uid;
        conn->lastUsed = mRound;
        std::unique_ptr<Connection> closed;
        {
            Mutex::Autolock lock(mLock);
            if (mConnections.size() >= MAX_CONNECTIONS) {
                closed = Detach(Victim());
                *madeRoom = true;
            }
            mConnections.push_back(std::move(conn));
        }
        if (closed != nullptr) {
            ALOGD("closed a connection of pid %d uid %u to make room", closed->pid, closed->uid);
        }
    }
}

BinderPool::Connection* BinderPool::Victim() {
    std::map<uid_t, size_t> held;
    for (const std::unique_ptr<Connection>& conn : mConnections) {
        ++held[conn->uid];
    }
    Connection* victim = nullptr;
    for (const std::unique_ptr<Connection>& conn : mConnections) {
        if (conn->busy) {
            continue;
        }
        if (victim == nullptr || held[conn->uid] > held[victim->uid] ||
            (held[conn->uid] == held[victim->uid] && conn->lastUsed < victim->lastUsed)) {
            victim = conn.get();
        }
    }
    return victim;
}

void BinderPool::ReadRequest(Connection* conn) {
    switch (conn->reader.Read(conn->fd.get())) {
        case FrameReader::NEED_MORE:
            return;
        case FrameReader::CLOSED:
            if (!conn->reader.Empty()) {
                ALOGW("dropping a truncated frame from pid %d uid %u", conn->pid, conn->uid);
            }
            Close(conn);
            return;
        case FrameReader::BAD:
            ALOGW("dropping connection from pid %d uid %u: %s", conn->pid, conn->uid,
                  conn->reader.Error());
            Close(conn);
            return;
        case FrameReader::COMPLETE:
            break;
    }
    Request request = {conn, {}, conn->reader.Sender(), std::make_unique<Parcel>()};
    conn->reader.Take(&request.header, request.data.get());
    conn->lastUsed = mRound;

    Mutex::Autolock lock(mLock);
    // The service was removed: the next round closes the connection, and
    // the client finds nothing when it sends again.
    if (conn->closing) {
        return;
    }
    conn->busy = true;
    mQueue.push_back(std::move(request));
    // As on a device, a started pool always has a thread.
    const size_t maxWorkers = std::max<size_t>(mMaxThreads, 1);
    if (!mExit && mQueue.size() > mIdle && mWorkers.size() < maxWorkers) {
        const size_t index = mWorkers.size();
        mWorkers.emplace_back([this, index] {
            char name[16];
            snprintf(name, sizeof(name), "binder-%zu", index);
            pthread_setname_np(pthread_self(), name);
            WorkerLoop();
        });
    }
    mWorkCond.signal();
}

void BinderPool::WorkerLoop() {
    tServing = true;
    mLock.lock();
    for (;;) {
        while (!mExit && mQueue.empty()) {
            ++mIdle;
            mWorkCond.wait(mLock);
            --mIdle;
        }
        if (mExit) {
            break;
        }
        Request request = std::move(mQueue.front());
        mQueue.pop_front();
        mLock.unlock();
        Serve(&request);
        mLock.lock();
    }
    mLock.unlock();
    tServing = false;
}

void BinderPool::Serve(Request* request) {
    Connection* conn = request->conn;
    IPCThreadState* ipc = IPCThreadState::self();
    const int64_t token = ipc->clearCallingIdentity();
    ipc->mCallingPid = request->sender.pid;
    ipc->mCallingUid = request->sender.uid;
    Parcel reply;
    status_t status;
    {
        SigpipeBlocked sigpipeBlocked;
        status = conn->binder->transact(request->header.code, *request->data, &reply,
                                        request->header.flags);
    }
    ipc->restoreCallingIdentity(token);
    request->data.reset();

    if ((request->header.flags & IBinder::FLAG_ONEWAY) != 0) {
        Mutex::Autolock lock(mLock);
        conn->busy = false;
        Wake();
        return;
    }
    if (reply.dataSize() > MAX_FRAME_DATA || reply.objectsCount() > 0) {
        ALOGE("the reply to transaction %u cannot be sent", request->header.code);
        status = FAILED_TRANSACTION;
        reply.freeData();
    }
    conn->out = HostWire::EncodeFrame(static_cast<uint32_t>(status), 0, reply);
    conn->outSent = 0;
    const bool sent = Flush(conn);
    {
        Mutex::Autolock lock(mLock);
        conn->closing = conn->closing || !sent;
        conn->busy = false;
    }
    Wake();
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
    for (auto it = mConnections.begin(); it != mConnections.end(); ++it) {
        if (it->get() == conn) {
            std::unique_ptr<Connection> detached = std::move(*it);
            mConnections.erase(it);
            return detached;
        }
    }
    return nullptr;
}

}  // namespace android
