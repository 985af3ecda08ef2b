// How a transaction travels on a host connection (a Unix-domain stream
// socket): a request frame from the client, a reply frame back. A frame is
// a FrameHeader, then dataSize bytes of parcel data; its descriptors are
// passed with SCM_RIGHTS on the header's bytes.
#ifndef HOST_BINDER_WIRE_H
#define HOST_BINDER_WIRE_H

#include <stddef.h>
#include <stdint.h>

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
    // A blocking socket connected to the one listening at path; -1 with
    // errno set on failure.
    static int Connect(const std::string& path);
    // Sends a whole frame carrying parcel's data and descriptors; blocks
    // until it is sent. NO_ERROR, or the send error.
    static status_t SendFrame(int fd, uint32_t code, uint32_t flags, const Parcel& parcel);
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
        BAD,        // not a valid frame; Error() says why
    };

    explicit FrameReader(size_t maxFds) : mMaxFds(maxFds) {}

    Result Read(int fd);
    // True when no byte of a frame has been read.
    bool Empty() const { return mHeaderGot == 0; }
    const char* Error() const { return mError; }
    // The complete frame; the reader starts on the next.
    void Take(FrameHeader* header, Parcel* parcel);

private:
    Result Fail(const char* why);

    const size_t mMaxFds;
    FrameHeader mHeader = {};
    size_t mHeaderGot = 0;
    std::vector<uint8_t> mData;
    size_t mDataGot = 0;
    std::vector<base::unique_fd> mFds;
    const char* mError = "";
};

}  // namespace android

#endif
