#define LOG_TAG "HostBinder"

#include <binder/BpBinder.h>

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

#include <binder/Parcel.h>
#include <log/log.h>

#include "OnewaySender.h"
#include "ProcessFd.h"
#include "RuntimeFolder.h"
#include "Wire.h"

namespace android {

namespace {

// The errors of connect() that say nothing listens on the socket any more.
bool NothingListens(int err) { return err == ECONNREFUSED || err == ENOENT; }

bool Again(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

// The one-way calls this process refused, by service name, until a request
// to that service carries the count. Never destroyed; a forked child starts
// from none. Bounded by the names the process made proxies for.
class DroppedCalls {
public:
    static DroppedCalls& Get() {
        static DroppedCalls* const gDropped = new DroppedCalls;
        return *gDropped;
    }

    void Add(const std::string& name, uint64_t calls) {
        if (calls == 0) {
            return;
        }
        Mutex::Autolock lock(mLock);
        forgetInherited();
        mCounts[name] += calls;
        mAny.store(true, std::memory_order_relaxed);
    }
    bool Pending(const std::string& name) {
        if (!mAny.load(std::memory_order_relaxed)) {
            return false;
        }
        Mutex::Autolock lock(mLock);
        forgetInherited();
        return mCounts.count(name) > 0;
    }
    // The count for name, at most what a report carries; 0 when none.
    uint32_t Take(const std::string& name) {
        if (!mAny.load(std::memory_order_relaxed)) {
            return 0;
        }
        Mutex::Autolock lock(mLock);
        forgetInherited();
        const auto it = mCounts.find(name);
        if (it == mCounts.end()) {
            return 0;
        }
        const uint64_t taken = std::min<uint64_t>(it->second, INT32_MAX);
        it->second -= taken;
        if (it->second == 0) {
            mCounts.erase(it);
        }
        mAny.store(!mCounts.empty(), std::memory_order_relaxed);
        return static_cast<uint32_t>(taken);
    }

private:
    void forgetInherited() REQUIRES(mLock) {
        if (mOwner != getpid()) {
            mOwner = getpid();
            mCounts.clear();
        }
    }

    Mutex mLock;
    pid_t mOwner GUARDED_BY(mLock) = getpid();
    std::map<std::string, uint64_t> mCounts GUARDED_BY(mLock);
    std::atomic<bool> mAny{false};
};

void WaitFor(int fd, short events) {
    pollfd pfd = {fd, events, 0};
    while (poll(&pfd, 1, -1) < 0 && errno == EINTR) {
    }
}

// One send of count queued pieces that never waits.
ssize_t SendQueued(int fd, iovec* iov, size_t count) {
    msghdr msg = {};
    msg.msg_iov = iov;
    msg.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

}  // namespace

BpBinder::BpBinder(RuntimeFolder&& folder, const std::string& name, int connection)
    : mName(name),
      mAlive(true),
      mFolder(new RuntimeFolder(std::move(folder))),
      mHaveDescriptor(false) {
    mIdle.emplace_back(connection);
}

BpBinder::~BpBinder() = default;

void BpBinder::dropInherited() {
    mIdle.erase(std::remove_if(mIdle.begin(), mIdle.end(),
                               [](const ProcessFd& fd) { return fd.get() < 0; }),
                mIdle.end());
    if (mFolder->fd() < 0) {
        *mFolder = RuntimeFolder::Open(mFolder->path(), false);
    }
}

int BpBinder::takeConnection(bool* reused) {
    {
        Mutex::Autolock lock(mLock);
        dropInherited();
        if (!mIdle.empty()) {
            const int fd = mIdle.back().release();
            mIdle.pop_back();
            *reused = true;
            return fd;
        }
    }
    *reused = false;
    return connect();
}

int BpBinder::connect() {
    std::string path;
    {
        Mutex::Autolock lock(mLock);
        dropInherited();
        // A folder that cannot be reopened has no socket: ENOENT.
        path = mFolder->Entry(mName);
    }
    // Blocks while the service's backlog is full.
    return HostWire::Connect(path);
}

void BpBinder::putConnection(int fd) {
    {
        Mutex::Autolock lock(mLock);
        dropInherited();
        if (mIdle.size() < MAX_IDLE_CONNECTIONS) {
            mIdle.emplace_back(fd);
            return;
        }
    }
    close(fd);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive) {
        return (flags & FLAG_ONEWAY) != 0 ? refuse(DEAD_OBJECT) : DEAD_OBJECT;
    }
    if (data.dataSize() > MAX_FRAME_DATA || data.objectsCount() > MAX_FRAME_FDS) {
        ALOGE("transaction %u to %s is too large", code, mName.c_str());
        return FAILED_TRANSACTION;
    }
    if ((flags & FLAG_ONEWAY) != 0) {
        return sendOneway(code, data, flags);
    }
    waitForOneway();
    Parcel ignored;
    int backoffMs = 1;
    int lastError = 0;
    for (int attempt = 1;; ++attempt) {
        bool reused = false;
        base::unique_fd fd(takeConnection(&reused));
        if (fd.get() < 0) {
            if (NothingListens(errno)) {
                return died();
            }
            if (lastError == 0) {
                ALOGW("cannot connect to %s (%s): trying again", mName.c_str(), strerror(errno));
            }
            lastError = errno;
        } else {
            status_t status = NO_ERROR;
            switch (exchange(fd.get(), code, flags, data, reply != nullptr ? reply : &ignored,
                             &status)) {
                case ANSWERED:
                    putConnection(fd.release());
                    return status;
                case BAD_REPLY:
                    return FAILED_TRANSACTION;
                case REPLY_LOST:
                    return replyLost();
                case NOT_RUN:
                    lastError = ECONNRESET;
                    break;
            }
        }
        if (attempt == MAX_ATTEMPTS) {
            ALOGE("transaction %u to %s failed %d times, last: %s", code, mName.c_str(),
                  MAX_ATTEMPTS, strerror(lastError));
            return FAILED_TRANSACTION;
        }
        // An idle connection closed by the service is no sign of load.
        if (!reused) {
            std::this_thread::sleep_for(std::chrono::milliseconds(backoffMs));
            backoffMs = std::min(backoffMs * 2, MAX_BACKOFF_MS);
        }
    }
}

std::shared_ptr<ProcessFd> BpBinder::onewayConnection() {
    if (mOneway == nullptr || mOneway->get() < 0) {
        std::string path;
        {
            Mutex::Autolock lock(mLock);
            dropInherited();
            path = mFolder->Entry(mName);
        }
        const int fd = HostWire::Connect(path, SOCK_NONBLOCK);
        mOneway = fd >= 0 ? std::make_shared<ProcessFd>(fd) : nullptr;
    }
    return mOneway;
}

void BpBinder::setOnewayRoomWait(int ms) {
    Mutex::Autolock lock(mOnewayLock);
    mRoomWaitMs = ms;
}

status_t BpBinder::refuse(status_t status) {
    DroppedCalls::Get().Add(mName, 1);
    return status;
}

void BpBinder::forgetInheritedOneway() {
    if (mPendingOwner == getpid()) {
        return;
    }
    // The parent sends these; the child must not send them again.
    mPendingOwner = getpid();
    mPending.clear();
    mPendingBytes = 0;
    mWatched = false;
    mWriting = false;
    mSendFailures = 0;
    mPing = NO_PING;
    mPingConn.reset();
}

void BpBinder::attachDrops(PendingFrame* frame) {
    const uint32_t drops = DroppedCalls::Get().Take(mName);
    if (drops == 0) {
        return;
    }
    Parcel count;
    count.writeInt32(static_cast<int32_t>(drops));
    const std::vector<uint8_t> report =
            HostWire::EncodeFrame(DROPPED_CALLS_TRANSACTION, FLAG_ONEWAY, count);
    frame->bytes.insert(frame->bytes.begin(), report.begin(), report.end());
    frame->carriedDrops = drops;
    frame->prefixBytes = report.size();
}

bool BpBinder::waitForRoom(size_t size) {
    const auto fits = [&]() REQUIRES(mOnewayLock) {
        return mPending.empty() ||
               mPendingBytes + size + PENDING_FRAME_OVERHEAD <= MAX_PENDING_ONEWAY_BYTES;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(mRoomWaitMs);
    while (!fits()) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) {
            return false;
        }
        mOnewayCond.waitRelative(mOnewayLock,
                                 std::chrono::duration_cast<std::chrono::nanoseconds>(left).count());
    }
    return true;
}

status_t BpBinder::sendOneway(uint32_t code, const Parcel& data, uint32_t flags) {
    if (data.objectsCount() > 0) {
        return sendWithDescriptors(code, data, flags);
    }
    PendingFrame frame;
    frame.bytes = HostWire::EncodeFrame(code, flags, data);
    bool watchNow = false;
    bool flushNow = false;
    {
        Mutex::Autolock lock(mOnewayLock);
        forgetInheritedOneway();
        attachDrops(&frame);
        if (!waitForRoom(frame.bytes.size())) {
            DroppedCalls::Get().Add(mName, frame.carriedDrops);
            return refuse(WOULD_BLOCK);
        }
        const status_t status = submit(std::move(frame), &watchNow);
        if (status != NO_ERROR) {
            return refuse(status);
        }
        ++mOnewaySent;
        // Once per so many calls, so that a full socket costs few tries.
        flushNow = !mPending.empty() && mPending.size() % CALLER_FLUSH_FRAMES == 0;
    }
    if (watchNow) {
        watch();
    }
    if (flushNow) {
        flushAsCaller();
    }
    return NO_ERROR;
}

status_t BpBinder::sendWithDescriptors(uint32_t code, const Parcel& data, uint32_t flags) {
    // The queue may be out at once.
    flushAsCaller();
    bool watchNow = false;
    {
        Mutex::Autolock lock(mOnewayLock);
        forgetInheritedOneway();
        // Descriptors go with a frame's first bytes, which must start a send.
        if (!mPending.empty()) {
            return refuse(WOULD_BLOCK);
        }
        const std::shared_ptr<ProcessFd> conn = onewayConnection();
        if (conn == nullptr) {
            return refuse(NothingListens(errno) ? died() : WOULD_BLOCK);
        }
        size_t size = 0;
        const ssize_t sent = HostWire::TrySendFrame(conn->get(), code, flags, data, &size);
        if (sent <= 0) {
            if (sent < 0 && !Again(errno)) {
                mOneway.reset();
            }
            return refuse(WOULD_BLOCK);
        }
        ++mOnewaySent;
        if (static_cast<size_t>(sent) < size) {
            PendingFrame rest;
            rest.bytes = HostWire::EncodeFrame(code, flags, data);
            rest.sent = static_cast<size_t>(sent);
            watchNow = enqueue(std::move(rest));
        }
    }
    if (watchNow) {
        watch();
    }
    return NO_ERROR;
}

status_t BpBinder::submit(PendingFrame&& frame, bool* watchNow) {
    *watchNow = false;
    if (mPending.empty()) {
        const std::shared_ptr<ProcessFd> conn = onewayConnection();
        if (conn == nullptr && NothingListens(errno)) {
            DroppedCalls::Get().Add(mName, frame.carriedDrops);
            if (frame.ping) {
                mPing = PING_LOST;
            }
            return died();
        }
        // Without a connection (a full backlog), the sender thread makes one.
        if (conn != nullptr) {
            ssize_t sent;
            do {
                sent = send(conn->get(), frame.bytes.data(), frame.bytes.size(),
                            MSG_DONTWAIT | MSG_NOSIGNAL);
            } while (sent < 0 && errno == EINTR);
            if (sent >= 0 && static_cast<size_t>(sent) == frame.bytes.size()) {
                if (frame.ping) {
                    mPing = PING_SENT;
                    mPingConn = conn;
                }
                return NO_ERROR;
            }
            if (sent < 0 && !Again(errno)) {
                // Closed by the service: the sender thread sends on a new one.
                mOneway.reset();
            }
            frame.sent = sent > 0 ? static_cast<size_t>(sent) : 0;
        }
    }
    *watchNow = enqueue(std::move(frame));
    return NO_ERROR;
}

bool BpBinder::enqueue(PendingFrame&& frame) {
    mPendingBytes += frame.bytes.size() - frame.sent + PENDING_FRAME_OVERHEAD;
    mPending.push_back(std::move(frame));
    if (mWatched) {
        return false;
    }
    mWatched = true;
    return true;
}

void BpBinder::watch() { OnewaySender::Get().Watch(sp<BpBinder>(this)); }

size_t BpBinder::startWrite(iovec* iov) {
    if (mWriting) {
        return 0;
    }
    size_t count = 0;
    for (const PendingFrame& frame : mPending) {
        if (count == MAX_SEND_FRAMES) {
            break;
        }
        iov[count++] = {const_cast<uint8_t*>(frame.bytes.data()) + frame.sent,
                        frame.bytes.size() - frame.sent};
    }
    mWriting = count > 0;
    return count;
}

void BpBinder::flushAsCaller() {
    iovec iov[MAX_SEND_FRAMES];
    std::shared_ptr<ProcessFd> conn;
    size_t count = 0;
    {
        Mutex::Autolock lock(mOnewayLock);
        forgetInheritedOneway();
        conn = mOneway;
        if (conn == nullptr || (count = startWrite(iov)) == 0) {
            return;
        }
    }
    const ssize_t sent = SendQueued(conn->get(), iov, count);
    Mutex::Autolock lock(mOnewayLock);
    mWriting = false;
    if (sent > 0) {
        advance(static_cast<size_t>(sent), conn);
    }
}

BpBinder::FlushResult BpBinder::flushPending(int* fd) {
    iovec iov[MAX_SEND_FRAMES];
    for (int round = 0; round < FLUSH_ROUNDS; ++round) {
        std::shared_ptr<ProcessFd> conn;
        size_t count = 0;
        {
            Mutex::Autolock lock(mOnewayLock);
            if (mPending.empty() || mPendingOwner != getpid()) {
                mWatched = false;
                return FLUSHED;
            }
            if (mWriting) {
                return RETRY;  // a caller is writing it
            }
            conn = onewayConnection();
            if (conn == nullptr) {
                if (NothingListens(errno)) {
                    died();
                    dropPending();
                    return FLUSHED;
                }
                return sendFailed() ? FLUSHED : RETRY;
            }
            // Frames stay where they are until taken off below.
            count = startWrite(iov);
        }
        const ssize_t sent = SendQueued(conn->get(), iov, count);
        const int err = errno;
        Mutex::Autolock lock(mOnewayLock);
        mWriting = false;
        if (sent < 0 && Again(err)) {
            *fd = conn->get();
            return WAIT_ROOM;
        }
        if (sent < 0) {
            connectionLost(conn);
            return sendFailed() ? FLUSHED : RETRY;
        }
        mSendFailures = 0;
        advance(static_cast<size_t>(sent), conn);
        *fd = conn->get();
    }
    return WAIT_ROOM;
}

void BpBinder::connectionLost(const std::shared_ptr<ProcessFd>& conn) {
    if (mOneway == conn) {
        mOneway.reset();
    }
    // The service drops a frame cut short: it goes again whole. A ping's
    // waiter reads the connection it went on.
    PendingFrame& front = mPending.front();
    mPendingBytes += front.sent;
    front.sent = 0;
    for (auto it = mPending.begin(); it != mPending.end();) {
        if (it->ping) {
            mPing = PING_LOST;
            mPendingBytes -= it->bytes.size() + PENDING_FRAME_OVERHEAD;
            it = mPending.erase(it);
        } else {
            ++it;
        }
    }
    mOnewayCond.broadcast();
}

bool BpBinder::sendFailed() {
    if (++mSendFailures < MAX_SEND_FAILURES) {
        return false;
    }
    ALOGE("one-way calls to %s cannot be sent after %d tries: dropping %zu", mName.c_str(),
          MAX_SEND_FAILURES, mPending.size());
    dropPending();
    return true;
}

void BpBinder::advance(size_t sent, const std::shared_ptr<ProcessFd>& conn) {
    while (sent > 0) {
        PendingFrame& front = mPending.front();
        const size_t taken = std::min(sent, front.bytes.size() - front.sent);
        front.sent += taken;
        sent -= taken;
        mPendingBytes -= taken;
        if (front.sent == front.bytes.size()) {
            if (front.ping) {
                mPing = PING_SENT;
                mPingConn = conn;
            }
            mPendingBytes -= PENDING_FRAME_OVERHEAD;
            mPending.pop_front();
        }
    }
    mOnewayCond.broadcast();
}

void BpBinder::dropPending() {
    uint64_t calls = 0;
    for (const PendingFrame& frame : mPending) {
        if (frame.ping) {
            mPing = PING_LOST;
        } else {
            ++calls;
        }
        // A report cut short never counted.
        calls += frame.sent < frame.prefixBytes ? frame.carriedDrops : 0;
    }
    DroppedCalls::Get().Add(mName, calls);
    mPending.clear();
    mPendingBytes = 0;
    mWatched = false;
    mSendFailures = 0;
    mOnewayCond.broadcast();
}

void BpBinder::abandonPending() {
    Mutex::Autolock lock(mOnewayLock);
    ALOGW("dropping %zu one-way calls to %s: closed with no room for them", mPending.size(),
          mName.c_str());
    dropPending();
}

void BpBinder::dropOneway(const std::shared_ptr<ProcessFd>& conn) {
    Mutex::Autolock lock(mOnewayLock);
    if (mOneway == conn) {
        mOneway.reset();
    }
}

void BpBinder::waitForOneway() {
    Mutex::Autolock barrier(mBarrierLock);
    bool watchNow = false;
    {
        Mutex::Autolock lock(mOnewayLock);
        forgetInheritedOneway();
        const bool drops = DroppedCalls::Get().Pending(mName);
        if (!drops && (mOnewaySent == mOnewayRan || (mOneway == nullptr && mPending.empty()))) {
            // Nothing sent since the last ping, or its connection is gone.
            mOnewayRan = mOnewaySent;
            return;
        }
        mOnewayRan = mOnewaySent;
        PendingFrame ping;
        ping.bytes = HostWire::EncodeFrame(PING_TRANSACTION, 0, Parcel());
        ping.ping = true;
        attachDrops(&ping);
        mPing = PING_QUEUED;
        if (submit(std::move(ping), &watchNow) != NO_ERROR) {
            mPing = NO_PING;
            return;
        }
    }
    if (watchNow) {
        watch();
    }
    flushAsCaller();
    std::shared_ptr<ProcessFd> conn;
    {
        Mutex::Autolock lock(mOnewayLock);
        while (mPing == PING_QUEUED) {
            mOnewayCond.wait(mOnewayLock);
        }
        conn = mPing == PING_SENT ? mPingConn : nullptr;
        mPing = NO_PING;
        mPingConn.reset();
    }
    // The service reads a connection's next request only once the one
    // before it ran.
    FrameReader reader(0);
    while (conn != nullptr) {
        const FrameReader::Result result = reader.Read(conn->get());
        if (result == FrameReader::COMPLETE) {
            return;
        }
        if (result != FrameReader::NEED_MORE) {
            dropOneway(conn);
            return;
        }
        WaitFor(conn->get(), POLLIN);
    }
}

BpBinder::Outcome BpBinder::exchange(int fd, uint32_t code, uint32_t flags, const Parcel& data,
                                     Parcel* reply, status_t* status) {
    // A send fails only when the service closed the connection, which it
    // does without running a request it has not read whole.
    if (HostWire::SendFrame(fd, code, flags, data) != NO_ERROR) {
        return NOT_RUN;
    }
    FrameReader reader(0);
    switch (reader.Read(fd)) {
        case FrameReader::COMPLETE: {
            FrameHeader header;
            reader.Take(&header, reply);
            *status = static_cast<status_t>(header.code);
            return ANSWERED;
        }
        case FrameReader::BAD:
            ALOGE("bad reply from %s: %s", mName.c_str(), reader.Error());
            return BAD_REPLY;
        default:
            // The service closes a connection without answering only while
            // its request is unread, or queued and dropped by a stopping pool.
            return reader.Empty() ? NOT_RUN : REPLY_LOST;
    }
}

status_t BpBinder::replyLost() {
    const base::unique_fd probe(connect());
    if (probe.get() < 0 && NothingListens(errno)) {
        return died();
    }
    ALOGE("the reply of %s was cut short", mName.c_str());
    return FAILED_TRANSACTION;
}

status_t BpBinder::died() {
    if (mAlive.exchange(false)) {
        ALOGW("service %s is gone: nothing listens on it", mName.c_str());
    }
    return DEAD_OBJECT;
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        Mutex::Autolock lock(mLock);
        if (mHaveDescriptor) {
            return mDescriptor;
        }
    }
    Parcel data;
    Parcel reply;
    String16 descriptor;
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) == NO_ERROR &&
        reply.readString16(&descriptor) == NO_ERROR) {
        Mutex::Autolock lock(mLock);
        if (!mHaveDescriptor) {
            mDescriptor = descriptor;
            mHaveDescriptor = true;
        }
        return mDescriptor;
    }
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel data;
    status_t err = data.writeFileDescriptor(fd);
    data.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; i < args.size(); ++i) {
        data.writeString16(args[i]);
    }
    if (err == NO_ERROR) {
        Parcel reply;
        err = transact(DUMP_TRANSACTION, data, &reply);
    }
    return err;
}

}  // namespace android
