// What the Binder runtime's tests and their peer program, binder_test_peer,
// share: a service that echoes its caller's identity, and frames by hand.
//
// The peer's commands (Peer() without arguments), one answer line each:
//   get NAME      looks NAME up (getService) for the later calls: "ok" or "null"
//   calls N       N calls to it at once, one per thread:
//                 "<answered> <first failure status or 0> <uid> <pid>", the
//                 identity the service saw in the last answered call
//   oneway N      N one-way calls to it until one fails: "<sent> <failure> -1 -1"
//   publish NAME  publishes an echo service as NAME and serves it: "<status>"
//   as USER       drops to uid and gid USER (root only): "ok" or "failed"
//   await FD      answers "ready", then reads a byte from its descriptor FD
//                 before it reads the next command
// It ends at the end of its input.
#ifndef VYMM_TESTS_BINDER_PEER_H
#define VYMM_TESTS_BINDER_PEER_H

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>

#include "Wire.h"
#include "support/ChildProcess.h"

// Answers its caller's uid and pid. Calls wait while the gate is closed.
// Calls that carry an int32 are numbered: each should be the last one + 1,
// and a call with more data ends with its number again.
class EchoBinder : public android::BBinder {
public:
    static constexpr uint32_t ECHO = FIRST_CALL_TRANSACTION;
    // Answers the calls answered, and the numbered ones out of order or
    // damaged.
    static constexpr uint32_t COUNTS = FIRST_CALL_TRANSACTION + 1;

    void SetOpen(bool open) {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = open;
        mChanged.notify_all();
    }
    // Waits until count calls wait at the gate; false at the deadline.
    bool WaitForWaiting(int count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(20),
                                 [&] { return mWaiting >= count; });
    }
    int MaxWaiting() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMaxWaiting;
    }
    int Answered() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mAnswered;
    }
    int OutOfOrder() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mOutOfOrder;
    }

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                 android::Parcel* reply, uint32_t flags) override {
        if (code == COUNTS) {
            std::lock_guard<std::mutex> lock(mMutex);
            reply->writeInt32(mAnswered);
            reply->writeInt32(mOutOfOrder);
            return android::NO_ERROR;
        }
        if (code != ECHO) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        std::unique_lock<std::mutex> lock(mMutex);
        if (int32_t number; data.readInt32(&number) == android::NO_ERROR) {
            // A longer call ends with its number again, unless damaged.
            int32_t last = number;
            if (data.dataAvail() >= sizeof(last)) {
                data.setDataPosition(data.dataSize() - sizeof(last));
                data.readInt32(&last);
            }
            mOutOfOrder += number != mLastNumber + 1 || last != number ? 1 : 0;
            mLastNumber = number;
        }
        mMaxWaiting = std::max(mMaxWaiting, ++mWaiting);
        mChanged.notify_all();
        mChanged.wait(lock, [&] { return mOpen; });
        --mWaiting;
        ++mAnswered;
        const android::IPCThreadState* ipc = android::IPCThreadState::self();
        reply->writeInt32(static_cast<int32_t>(ipc->getCallingUid()));
        reply->writeInt32(ipc->getCallingPid());
        return android::NO_ERROR;
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOpen = true;
    int mWaiting = 0;
    int mMaxWaiting = 0;
    int mAnswered = 0;
    int32_t mLastNumber = 0;
    int mOutOfOrder = 0;
};

// A connection to service in folder, for speaking the frame format by
// hand; a reply that has not come in 20 s reads as "timeout".
inline android::base::unique_fd RawConnect(const std::string& folder, const std::string& service) {
    android::base::unique_fd fd(android::HostWire::Connect(folder + "/" + service));
    const timeval timeout = {20, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    return fd;
}

// A request header without data or descriptors unless told.
inline android::FrameHeader Request(uint32_t code, uint32_t dataSize = 0, uint32_t fdCount = 0) {
    return {android::FRAME_MAGIC, code, 0, dataSize, fdCount};
}

// Sends bytes [begin, end) of header; false once the service closed the
// connection.
inline bool SendHeader(int fd, const android::FrameHeader& header, size_t begin = 0,
                       size_t end = sizeof(android::FrameHeader)) {
    const char* bytes = reinterpret_cast<const char*>(&header);
    return send(fd, bytes + begin, end - begin, MSG_NOSIGNAL) == static_cast<ssize_t>(end - begin);
}

// The status of the reply, then each 32-bit value of its data ("0 1047
// 4242"); "closed" when the service closed the connection instead, or
// "timeout" after the socket's receive timeout.
inline std::string ReadReply(int fd) {
    android::FrameReader reader(0);
    const android::FrameReader::Result result = reader.Read(fd);
    if (result != android::FrameReader::COMPLETE) {
        return result == android::FrameReader::NEED_MORE ? "timeout" : "closed";
    }
    android::FrameHeader header;
    android::Parcel reply;
    reader.Take(&header, &reply);
    std::string text = std::to_string(static_cast<int32_t>(header.code));
    for (int32_t value; reply.readInt32(&value) == android::NO_ERROR;) {
        text += " " + std::to_string(value);
    }
    return text;
}

#endif
