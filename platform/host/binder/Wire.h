// How a transaction travels on a host connection (a Unix-domain stream
// socket): a request frame from the client, a reply frame back. A frame is
// a FrameHeader, then dataSize bytes of parcel data; its descriptors are
// passed with SCM_RIGHTS on the header's bytes. Both ends set SO_PASSCRED,
// so the kernel attaches the sending process's credentials to every
// message: the sender of a frame is the process that wrote it, whoever
// opened the connection.
#ifndef HOST_BINDER_WIRE_H
#define HOST_BINDER_WIRE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/Parcel.h>

namespace android {

struct FrameHeader {
    uint32_t magic;     // FRAME_MAGIC
    uint32_t code;      // the transaction code; in a reply, its status
    uint32_t flags;
    uint32_t dataSize;  // at most MAX_FRAME_DATA
    uint32_t fdCount;   // at most MAX_FRAME_FDS
};

constexpr uint32_t FRAME_MAGIC = 0x48424631;  // "HBF1"
constexpr size_t MAX_FRAME_DATA = 1 << 20;
constexpr size_t MAX_FRAME_FDS = 4;

struct HostWire {
    // A socket connected to the one listening at path, blocking unless
    // type holds SOCK_NONBLOCK (then a full backlog fails with EAGAIN); -1
    // with errno set on failure.
    static int Connect(const std::string& path, int type = 0);
    // Makes the kernel attach credentials to the messages on fd; false on
    // failure, with errno set.
    static bool PassCredentials(int fd);
    // Sends a whole frame carrying parcel's data and descriptors; blocks
    // until it is sent. NO_ERROR, or the send error.
    static status_t SendFrame(int fd, uint32_t code, uint32_t flags, const Parcel& parcel);
    // One attempt that never blocks: the bytes of the frame sent (its size
    // in size), which may be fewer than all of them; -1 with errno set.
    static ssize_t TrySendFrame(int fd, uint32_t code, uint32_t flags, const Parcel& parcel,
                                size_t* size);
    // The bytes of a frame without descriptors.
    static std::vector<uint8_t> EncodeFrame(uint32_t code, uint32_t flags, const Parcel& parcel);
    // Makes parcel hold data and own fds, positioned at the start.
    static void Adopt(Parcel* parcel, std::vector<uint8_t>&& data,
                      std::vector<base::unique_fd>&& fds);
};

// Reads one frame at a time from a socket, never past the frame's end, so it
// serves blocking and non-blocking sockets alike.
class FrameReader {
public:
    enum Result {
        NEED_MORE,  // the socket has no more bytes for now
        COMPLETE,   // Take() the frame
        CLOSED,     // the peer closed the connection
        BAD,        // not a valid frame; GetFault() says why
    };
    enum Fault { READ_FAILED, TOO_MANY_FDS, CREDENTIALS_CHANGED, NOT_A_FRAME, TOO_LARGE,
                 FDS_MISSING, FAULTS };

    explicit FrameReader(size_t maxFds) : mMaxFds(maxFds) {}

    Result Read(int fd);
    // True when no byte of a frame has been read.
    bool Empty() const { return mHeaderGot == 0; }
    Fault GetFault() const { return mFault; }
    const char* Error() const;
    // Who sent the frame being read, as the kernel reported it for its
    // bytes: every read of a frame must report the same sender. Pid 0 and
    // ids -1 when it reported none.
    const ucred& Sender() const { return mSender; }
    // The complete frame; the reader starts on the next.
    void Take(FrameHeader* header, Parcel* parcel);

private:
    static constexpr ucred UNKNOWN_SENDER = {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};

    Result Fail(Fault why);
    // Owns the descriptors that msg carries, and reads its sender.
    void TakeControl(msghdr* msg, ucred* sender);

    const size_t mMaxFds;
    FrameHeader mHeader = {};
    size_t mHeaderGot = 0;
    std::vector<uint8_t> mData;
    size_t mDataGot = 0;
    std::vector<base::unique_fd> mFds;
    ucred mSender = UNKNOWN_SENDER;
    Fault mFault = READ_FAILED;
};

}  // namespace android

#endif
