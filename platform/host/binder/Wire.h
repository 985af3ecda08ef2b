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

#include <deque>
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

// Reads frames from a socket. With no read-ahead it never reads past the
// end of the frame it needs, so it serves blocking and non-blocking sockets
// alike; with read-ahead it takes up to that many bytes a read, so that one
// read brings many frames. It reads only when no complete frame is held, so
// every byte held comes from one sender: the kernel never joins two
// senders' bytes in one read. Descriptors go with a frame's first bytes and
// end the kernel's read, so those of a read belong to the last frame that
// starts in it.
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

    // readAhead: bytes a read may take beyond the frame being read; held
    // besides that frame, so a reader holds at most the larger of the two.
    explicit FrameReader(size_t maxFds, size_t readAhead = 0)
        : mMaxFds(maxFds), mReadAhead(readAhead) {}

    // COMPLETE at once, without a read, while a complete frame is held.
    Result Read(int fd);
    // True when no byte of a frame is held.
    bool Empty() const { return mBegin == mEnd; }
    // True when a complete frame is held: Read() returns without reading.
    bool HoldsFrame() const;
    Fault GetFault() const { return mFault; }
    const char* Error() const;
    // Who sent the frames held, as the kernel reported it for their bytes:
    // every read of a frame must report the same sender. Pid 0 and ids -1
    // when it reported none.
    const ucred& Sender() const { return mSender; }
    // The first complete frame; the reader starts on the next.
    void Take(FrameHeader* header, Parcel* parcel);

private:
    static constexpr ucred UNKNOWN_SENDER = {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};

    // The descriptors that came with the frame starting at stream offset
    // frameStart.
    struct FdBatch {
        uint64_t frameStart;
        std::vector<base::unique_fd> fds;
    };

    Result Fail(Fault why);
    // The header of the frame at offset at of mBuffer, which holds it whole.
    FrameHeader HeaderAt(size_t at) const;
    // Whether the first frame held is whole and valid; reading goes on
    // while it is not whole.
    Result CheckFirst(bool* whole);
    // Room at mEnd for what the next read may take: its size.
    size_t MakeRoom();
    // Gives fds to the last frame that starts among the bytes held.
    Result AttachFds(std::vector<base::unique_fd>&& fds);
    // Owns the descriptors that msg carries, and reads its sender.
    static void TakeControl(msghdr* msg, ucred* sender, std::vector<base::unique_fd>* fds);

    const size_t mMaxFds;
    const size_t mReadAhead;
    // Bytes [mBegin, mEnd) of mBuffer are held, the first frame at mBegin;
    // mBuffer[0] is byte mBase of the stream.
    std::vector<uint8_t> mBuffer;
    size_t mBegin = 0;
    size_t mEnd = 0;
    uint64_t mBase = 0;
    // Oldest first; at most two, as a read comes only while no frame is
    // whole: the first frame's and the last frame's of that read.
    std::deque<FdBatch> mFds;
    ucred mSender = UNKNOWN_SENDER;
    Fault mFault = READ_FAILED;
};

}  // namespace android

#endif
