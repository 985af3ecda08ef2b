#include "Wire.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

namespace android {

int HostWire::Connect(const std::string& path, int type) {
    sockaddr_un addr = {};
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | type, 0));
    // Set before the first message, which may be sent before the service
    // accepts the connection.
    if (fd.get() < 0 || !PassCredentials(fd.get())) {
        return -1;
    }
    while (connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return fd.release();
}

bool HostWire::PassCredentials(int fd) {
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) == 0;
}

std::vector<uint8_t> HostWire::EncodeFrame(uint32_t code, uint32_t flags, const Parcel& parcel) {
    const FrameHeader header = {FRAME_MAGIC, code, flags,
                                static_cast<uint32_t>(parcel.dataSize()),
                                static_cast<uint32_t>(parcel.mFds.size())};
    std::vector<uint8_t> bytes(sizeof(header) + parcel.dataSize());
    memcpy(bytes.data(), &header, sizeof(header));
    if (parcel.dataSize() > 0) {
        memcpy(bytes.data() + sizeof(header), parcel.data(), parcel.dataSize());
    }
    return bytes;
}

// A frame as one message: its bytes, with the descriptors on the first.
class FrameMessage {
public:
    FrameMessage(uint32_t code, uint32_t flags, const Parcel& parcel)
        : mBytes(HostWire::EncodeFrame(code, flags, parcel)) {
        mMsg.msg_iov = &mIov;
        mMsg.msg_iovlen = 1;
        if (parcel.mFds.empty()) {
            return;
        }
        mMsg.msg_control = mControl;
        mMsg.msg_controllen = CMSG_SPACE(sizeof(int) * parcel.mFds.size());
        cmsghdr* cmsg = CMSG_FIRSTHDR(&mMsg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * parcel.mFds.size());
        for (size_t i = 0; i < parcel.mFds.size(); ++i) {
            memcpy(CMSG_DATA(cmsg) + i * sizeof(int), &parcel.mFds[i].fd, sizeof(int));
        }
    }

    size_t size() const { return mBytes.size(); }

    // Sends from byte sent on; the byte count, or -1 with errno set.
    ssize_t SendFrom(int fd, size_t sent, int flags) {
        mIov.iov_base = mBytes.data() + sent;
        mIov.iov_len = mBytes.size() - sent;
        ssize_t n;
        do {
            n = sendmsg(fd, &mMsg, flags | MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            // The descriptors went with the first bytes.
            mMsg.msg_control = nullptr;
            mMsg.msg_controllen = 0;
        }
        return n;
    }

private:
    std::vector<uint8_t> mBytes;
    alignas(cmsghdr) char mControl[CMSG_SPACE(sizeof(int) * MAX_FRAME_FDS)] = {};
    iovec mIov = {};
    msghdr mMsg = {};
};

namespace {

bool Fits(const Parcel& parcel) {
    return parcel.dataSize() <= MAX_FRAME_DATA && parcel.objectsCount() <= MAX_FRAME_FDS;
}

}  // namespace

status_t HostWire::SendFrame(int fd, uint32_t code, uint32_t flags, const Parcel& parcel) {
    if (!Fits(parcel)) {
        return FAILED_TRANSACTION;
    }
    FrameMessage message(code, flags, parcel);
    for (size_t sent = 0; sent < message.size();) {
        const ssize_t n = message.SendFrom(fd, sent, 0);
        if (n < 0) {
            return -errno;
        }
        sent += static_cast<size_t>(n);
    }
    return NO_ERROR;
}

ssize_t HostWire::TrySendFrame(int fd, uint32_t code, uint32_t flags, const Parcel& parcel,
                               size_t* size) {
    if (!Fits(parcel)) {
        errno = EMSGSIZE;
        return -1;
    }
    FrameMessage message(code, flags, parcel);
    *size = message.size();
    return message.SendFrom(fd, 0, MSG_DONTWAIT);
}

void HostWire::Adopt(Parcel* parcel, std::vector<uint8_t>&& data,
                     std::vector<base::unique_fd>&& fds) {
    parcel->freeData();
    parcel->mData = std::move(data);
    for (base::unique_fd& fd : fds) {
        parcel->mFds.push_back({fd.release(), true});
    }
    fds.clear();
}

const char* FrameReader::Error() const {
    static constexpr const char* kTexts[FAULTS] = {
            "read failed",         "too many descriptors", "credentials changed within a frame",
            "not a frame",         "frame too large",      "descriptors missing"};
    return kTexts[mFault];
}

FrameReader::Result FrameReader::Fail(Fault why) {
    mFault = why;
    mFds.clear();
    return BAD;
}

FrameHeader FrameReader::HeaderAt(size_t at) const {
    FrameHeader header;
    memcpy(&header, mBuffer.data() + at, sizeof(header));
    return header;
}

bool FrameReader::HoldsFrame() const {
    return mEnd - mBegin >= sizeof(FrameHeader) &&
           mEnd - mBegin >= sizeof(FrameHeader) + HeaderAt(mBegin).dataSize;
}

FrameReader::Result FrameReader::CheckFirst(bool* whole) {
    *whole = false;
    if (mEnd - mBegin < sizeof(FrameHeader)) {
        return COMPLETE;
    }
    const FrameHeader header = HeaderAt(mBegin);
    if (header.magic != FRAME_MAGIC) {
        return Fail(NOT_A_FRAME);
    }
    if (header.dataSize > MAX_FRAME_DATA) {
        return Fail(TOO_LARGE);
    }
    if (header.fdCount > mMaxFds) {
        return Fail(TOO_MANY_FDS);
    }
    if (mEnd - mBegin < sizeof(header) + header.dataSize) {
        return COMPLETE;
    }
    const bool hasFds = !mFds.empty() && mFds.front().frameStart == mBase + mBegin;
    if ((hasFds ? mFds.front().fds.size() : 0) != header.fdCount) {
        return Fail(FDS_MISSING);
    }
    *whole = true;
    return COMPLETE;
}

size_t FrameReader::MakeRoom() {
    size_t frameSize = sizeof(FrameHeader);
    if (mEnd - mBegin >= sizeof(FrameHeader)) {
        frameSize += HeaderAt(mBegin).dataSize;
    }
    // The first frame, never whole here, moves to the front.
    if (mBegin > 0) {
        memmove(mBuffer.data(), mBuffer.data() + mBegin, mEnd - mBegin);
        mBase += mBegin;
        mEnd -= mBegin;
        mBegin = 0;
    }
    const size_t capacity = std::max(frameSize, mReadAhead);
    if (mBuffer.size() < capacity) {
        mBuffer.resize(capacity);
    } else if (mEnd == 0 && mBuffer.size() > capacity) {
        // A large frame's room is not kept.
        mBuffer.resize(capacity);
        mBuffer.shrink_to_fit();
    }
    return mReadAhead > 0 ? mBuffer.size() - mEnd : frameSize - mEnd;
}

FrameReader::Result FrameReader::AttachFds(std::vector<base::unique_fd>&& fds) {
    size_t start = mBegin;
    while (mEnd - start >= sizeof(FrameHeader)) {
        const FrameHeader header = HeaderAt(start);
        const size_t next = start + sizeof(header) + header.dataSize;
        if (header.magic != FRAME_MAGIC || header.dataSize > MAX_FRAME_DATA || next >= mEnd) {
            break;
        }
        start = next;
    }
    const uint64_t frameStart = mBase + start;
    if (!mFds.empty() && mFds.back().frameStart >= frameStart) {
        return Fail(TOO_MANY_FDS);
    }
    mFds.push_back({frameStart, std::move(fds)});
    return COMPLETE;
}

FrameReader::Result FrameReader::Read(int fd) {
    for (;;) {
        bool whole;
        if (CheckFirst(&whole) == BAD) {
            return BAD;
        }
        if (whole) {
            return COMPLETE;
        }
        const size_t want = MakeRoom();
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred)) +
                                      CMSG_SPACE(sizeof(int) * MAX_FRAME_FDS)];
        iovec iov = {mBuffer.data() + mEnd, want};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const ssize_t n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return NEED_MORE;
            }
            return errno == ECONNRESET ? CLOSED : Fail(READ_FAILED);
        }
        // Own the descriptors first, so that none leaks whatever follows.
        ucred sender = UNKNOWN_SENDER;
        std::vector<base::unique_fd> fds;
        TakeControl(&msg, &sender, &fds);
        if ((msg.msg_flags & MSG_CTRUNC) != 0 || fds.size() > mMaxFds) {
            return Fail(TOO_MANY_FDS);
        }
        if (n == 0) {
            mFds.clear();
            return CLOSED;
        }
        // A frame takes several reads when it comes in pieces.
        if (Empty()) {
            mSender = sender;
        } else if (sender.pid != mSender.pid || sender.uid != mSender.uid ||
                   sender.gid != mSender.gid) {
            return Fail(CREDENTIALS_CHANGED);
        }
        mEnd += static_cast<size_t>(n);
        if (!fds.empty() && AttachFds(std::move(fds)) == BAD) {
            return BAD;
        }
    }
}

void FrameReader::TakeControl(msghdr* msg, ucred* sender, std::vector<base::unique_fd>* fds) {
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET) {
            continue;
        }
        if (cmsg->cmsg_type == SCM_CREDENTIALS && cmsg->cmsg_len == CMSG_LEN(sizeof(ucred))) {
            memcpy(sender, CMSG_DATA(cmsg), sizeof(ucred));
        } else if (cmsg->cmsg_type == SCM_RIGHTS) {
            const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int received;
                memcpy(&received, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
                fds->emplace_back(received);
            }
        }
    }
}

void FrameReader::Take(FrameHeader* header, Parcel* parcel) {
    *header = HeaderAt(mBegin);
    const uint8_t* data = mBuffer.data() + mBegin + sizeof(FrameHeader);
    std::vector<base::unique_fd> fds;
    if (!mFds.empty() && mFds.front().frameStart == mBase + mBegin) {
        fds = std::move(mFds.front().fds);
        mFds.pop_front();
    }
    HostWire::Adopt(parcel, std::vector<uint8_t>(data, data + header->dataSize), std::move(fds));
    mBegin += sizeof(FrameHeader) + header->dataSize;
    if (Empty()) {
        mBase += mEnd;
        mBegin = 0;
        mEnd = 0;
        mSender = UNKNOWN_SENDER;
    }
}

}  // namespace android
