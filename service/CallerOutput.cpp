#include "service/CallerOutput.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace android {

namespace {

// The caller's descriptor as one on which a write never blocks, without
// changing flags that the caller shares: a socket is sent to with
// MSG_DONTWAIT, a pipe is opened anew non-blocking where the process may.
// Anything else but a file is made non-blocking until the write is over.
class NonBlockingOutput {
public:
    explicit NonBlockingOutput(int fd) : mFd(fd) {
        struct stat st;
        if (fstat(fd, &st) != 0 || S_ISREG(st.st_mode)) {
            return;
        }
        if (S_ISSOCK(st.st_mode)) {
            mSocket = true;
            return;
        }
        if (S_ISFIFO(st.st_mode)) {
            const std::string path = "/proc/self/fd/" + std::to_string(fd);
            mOwnFd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (mOwnFd >= 0 || errno == ENXIO) {
                mFd = mOwnFd;  // ENXIO: nobody reads, so nothing is written
                return;
            }
        }
        const int flags = fcntl(fd, F_GETFL);
        if (flags >= 0 && (flags & O_NONBLOCK) == 0 &&
            fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0) {
            mRestoreFlags = flags;
        }
    }

    ~NonBlockingOutput() {
        if (mOwnFd >= 0) {
            close(mOwnFd);
        }
        if (mRestoreFlags >= 0) {
            fcntl(mFd, F_SETFL, mRestoreFlags);
        }
    }

    int fd() const { return mFd; }

    // At most PIPE_BUF bytes at once: should the descriptor be blocking after
    // all, a pipe that poll found writable takes that much without waiting.
    ssize_t Write(const char* data, size_t size) const {
        size = std::min<size_t>(size, PIPE_BUF);
        return mSocket ? send(mFd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                       : write(mFd, data, size);
    }

private:
    int mFd;
    int mOwnFd = -1;
    int mRestoreFlags = -1;
    bool mSocket = false;
};

}  // namespace

size_t WriteToCaller(int fd, const char* data, size_t size, nsecs_t timeout) {
    const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + timeout;
    NonBlockingOutput out(fd);
    size_t done = 0;
    while (done < size && out.fd() >= 0) {
        const ssize_t written = out.Write(data + done, size - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            break;  // the caller has gone, or the descriptor cannot take text
        }
        const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
        if (left <= 0) {
            break;
        }
        struct pollfd ready = {out.fd(), POLLOUT, 0};
        if (poll(&ready, 1, toMillisecondTimeoutDelay(0, left)) < 0 && errno != EINTR) {
            break;
        }
    }
    return done;
}

}  // namespace android
