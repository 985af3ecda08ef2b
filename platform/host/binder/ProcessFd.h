// A descriptor that only the process that opened it uses and closes. A
// child forked since sees none: there the number may already name one of the
// child's own files, so the child drops it unclosed (close-on-exec ends it
// at the next exec). One thread uses an instance at a time.
#ifndef HOST_BINDER_PROCESS_FD_H
#define HOST_BINDER_PROCESS_FD_H

#include <sys/types.h>
#include <unistd.h>

#include <utility>

namespace android {

class ProcessFd {
public:
    explicit ProcessFd(int fd = -1) : mFd(fd), mOwner(getpid()) {}
    ~ProcessFd() { reset(); }
    ProcessFd(ProcessFd&& other) noexcept : mFd(other.mFd), mOwner(other.mOwner) {
        other.mFd = -1;
    }
    ProcessFd& operator=(ProcessFd&& other) noexcept {
        if (this != &other) {
            reset();
            std::swap(mFd, other.mFd);
            std::swap(mOwner, other.mOwner);
        }
        return *this;
    }
    ProcessFd(const ProcessFd&) = delete;
    ProcessFd& operator=(const ProcessFd&) = delete;

    // The descriptor, or -1 in another process than the one that opened it.
    int get() const { return mOwner == getpid() ? mFd : -1; }
    // Closes the descriptor if this process opened it; forgets it either way.
    void reset() {
        if (get() >= 0) {
            close(mFd);
        }
        mFd = -1;
    }
    // Hands the descriptor over to the caller, as get() does.
    int release() {
        const int fd = get();
        mFd = -1;
        return fd;
    }

private:
    int mFd;
    pid_t mOwner;
};

}  // namespace android

#endif
