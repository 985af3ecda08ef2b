#define LOG_TAG "HostBinder"

#include "Publication.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

#include <log/log.h>

#include "BinderPool.h"
#include "Wire.h"

namespace android {

namespace {

// Tries to lock a name whose lock file its holder keeps removing.
constexpr int CLAIM_ATTEMPTS = 8;

std::string LockName(const std::string& name) { return "." + name + ".lock"; }

// Takes name for this process: an exclusive lock on its lock file beside
// the socket, which the kernel releases if the process dies. Invalid, with
// errno EWOULDBLOCK, when a live process holds it.
ProcessFd ClaimName(const RuntimeFolder& folder, const std::string& name) {
    const std::string lockName = LockName(name);
    for (int attempt = 0; attempt < CLAIM_ATTEMPTS; ++attempt) {
        ProcessFd lock(openat(folder.fd(), lockName.c_str(),
                              O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (lock.get() < 0) {
            return lock;
        }
        if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            const int err = errno;
            lock.reset();
            errno = err;
            return lock;
        }
        // The holder may have removed the file between our open and lock.
        struct stat locked;
        struct stat named;
        if (fstat(lock.get(), &locked) == 0 &&
            fstatat(folder.fd(), lockName.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
            locked.st_dev == named.st_dev && locked.st_ino == named.st_ino) {
            return lock;
        }
    }
    errno = EWOULDBLOCK;
    return ProcessFd();
}

// A socket listening as name in folder: bound under a temporary name and
// renamed, so that a client never finds it before it listens. The caller
// holds the name, so whatever socket the rename replaces is a dead one.
base::unique_fd Listen(const RuntimeFolder& folder, const std::string& name) {
    static std::atomic<unsigned> counter{0};
    const std::string temp = ".new-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    const std::string tempPath = folder.Entry(temp);
    sockaddr_un addr = {};
    if (tempPath.size() >= sizeof(addr.sun_path)) {
        ALOGE("service name too long: %s", name.c_str());
        return {};
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, tempPath.c_str(), tempPath.size() + 1);
    base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    unlinkat(folder.fd(), temp.c_str(), 0);
    if (fd.get() < 0 || !HostWire::PassCredentials(fd.get()) ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        fchmodat(folder.fd(), temp.c_str(), 0666, 0) != 0 || listen(fd.get(), SOMAXCONN) != 0 ||
        renameat(folder.fd(), temp.c_str(), folder.fd(), name.c_str()) != 0) {
        ALOGE("cannot listen at %s/%s: %s", folder.path().c_str(), name.c_str(), strerror(errno));
        unlinkat(folder.fd(), temp.c_str(), 0);
        return {};
    }
    return fd;
}

}  // namespace

std::unique_ptr<Publication> Publication::Publish(BinderPool* pool, RuntimeFolder&& folder,
                                                  const std::string& name,
                                                  const sp<IBinder>& binder, status_t* status) {
    ProcessFd nameLock = ClaimName(folder, name);
    if (nameLock.get() < 0) {
        if (errno == EWOULDBLOCK) {
            ALOGE("service %s is published by another process", name.c_str());
            *status = ALREADY_EXISTS;
        } else {
            ALOGE("cannot lock service name %s: %s", name.c_str(), strerror(errno));
            *status = UNKNOWN_ERROR;
        }
        return nullptr;
    }
    base::unique_fd listener = Listen(folder, name);
    if (listener.get() < 0) {
        unlinkat(folder.fd(), LockName(name).c_str(), 0);
        *status = UNKNOWN_ERROR;
        return nullptr;
    }
    std::unique_ptr<Publication> publication(
            new Publication(pool, std::move(folder), name, std::move(nameLock), binder));
    pool->AddListener(std::move(listener), binder);
    *status = NO_ERROR;
    return publication;
}

Publication::Publication(BinderPool* pool, RuntimeFolder&& folder, const std::string& name,
                         ProcessFd&& nameLock, const sp<IBinder>& binder)
    : mPool(pool),
      mFolder(std::move(folder)),
      mName(name),
      mNameLock(std::move(nameLock)),
      mBinder(binder) {}

Publication::~Publication() {
    Withdraw();
    mPool->AwaitClosed(mBinder);
}

void Publication::Withdraw() {
    if (mWithdrawn) {
        return;
    }
    mWithdrawn = true;
    unlinkat(mFolder.fd(), mName.c_str(), 0);
    unlinkat(mFolder.fd(), LockName(mName).c_str(), 0);
    mNameLock.reset();
    mPool->RemoveListener(mBinder);
}

}  // namespace android
