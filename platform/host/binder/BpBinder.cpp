#define LOG_TAG "HostBinder"

#include <binder/BpBinder.h>

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <binder/Parcel.h>
#include <log/log.h>

#include "ProcessFd.h"
#include "RuntimeFolder.h"
#include "Wire.h"

namespace android {

namespace {

// The errors of connect() that say nothing listens on the socket any more.
bool NothingListens(int err) { return err == ECONNREFUSED || err == ENOENT; }

bool Again(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

void WaitFor(int fd, short events) {
    pollfd pfd = {fd, events, 0};
    while (poll(&pfd, 1, -1) < 0 && errno == EINTR) {
    }
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
        return DEAD_OBJECT;
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

status_t BpBinder::sendOneway(uint32_t code, const Parcel& data, uint32_t flags) {
    Mutex::Autolock lock(mOnewayLock);
    for (int attempt = 1;; ++attempt) {
        const std::shared_ptr<ProcessFd> conn = onewayConnection();
        if (conn == nullptr) {
            return NothingListens(errno) ? died() : Again(errno) ? WOULD_BLOCK : FAILED_TRANSACTION;
        }
        size_t size = 0;
        const ssize_t sent = HostWire::TrySendFrame(conn->get(), code, flags, data, &size);
        if (sent >= 0 && static_cast<size_t>(sent) == size) {
            ++mOnewaySent;
            return NO_ERROR;
        }
        const int err = sent < 0 ? errno : 0;
        if (sent < 0 && Again(err)) {
            return WOULD_BLOCK;
        }
        // Closed by the service, or holding part of a frame, which the
        // service drops with the connection: never used again.
        mOneway.reset();
        if (sent < 0 && (err == EPIPE || err == ECONNRESET) && attempt == 1) {
            continue;
        }
        ALOGE("one-way transaction %u to %s failed: %s", code, mName.c_str(),
              sent < 0 ? strerror(err) : "sent in part");
        return FAILED_TRANSACTION;
    }
}

void BpBinder::dropOneway(const std::shared_ptr<ProcessFd>& conn) {
    Mutex::Autolock lock(mOnewayLock);
    if (mOneway == conn) {
        mOneway.reset();
    }
}

bool BpBinder::sendPing(const std::shared_ptr<ProcessFd>& conn) {
    const Parcel empty;
    for (;;) {
        {
            Mutex::Autolock lock(mOnewayLock);
            size_t size = 0;
            const ssize_t sent =
                    HostWire::TrySendFrame(conn->get(), PING_TRANSACTION, 0, empty, &size);
            if (sent >= 0 && static_cast<size_t>(sent) == size) {
                return true;
            }
            if (sent >= 0 || !Again(errno)) {
                return false;
            }
        }
        WaitFor(conn->get(), POLLOUT);
    }
}

void BpBinder::waitForOneway() {
    Mutex::Autolock barrier(mBarrierLock);
    std::shared_ptr<ProcessFd> conn;
    uint64_t sent;
    {
        Mutex::Autolock lock(mOnewayLock);
        conn = mOneway;
        sent = mOnewaySent;
    }
    if (sent == mOnewayRan || conn == nullptr || conn->get() < 0) {
        mOnewayRan = sent;
        return;
    }
    mOnewayRan = sent;
    // The service reads a connection's next request only once the one
    // before it ran.
    if (!sendPing(conn)) {
        dropOneway(conn);
        return;
    }
    FrameReader reader(0);
    for (;;) {
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
