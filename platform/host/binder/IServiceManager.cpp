#define LOG_TAG "HostBinder"

#include <binder/IServiceManager.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include <binder/BpBinder.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <utils/KeyedVector.h>
#include <utils/String8.h>
#include <utils/Timers.h>

#include "BinderPool.h"
#include "ProcessFd.h"
#include "RuntimeFolder.h"
#include "Wire.h"

namespace android {

namespace {

constexpr int GET_SERVICE_TIMEOUT_MS = 5000;
// How often getService looks again when it cannot watch the folder.
constexpr int GET_SERVICE_POLL_MS = 50;
// Tries to lock a name whose lock file its holder keeps removing.
constexpr int CLAIM_ATTEMPTS = 8;

// The name as a file name; empty, and logged, for a name that is no plain
// file name.
std::string FileName(const String16& name) {
    const String8 name8(name);
    if (name8.size() == 0 || name8.c_str()[0] == '.' || strchr(name8.c_str(), '/') != nullptr ||
        strlen(name8.c_str()) != name8.size()) {
        ALOGE("invalid service name \"%s\"", name8.c_str());
        return {};
    }
    return name8.c_str();
}

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

// The host's directory: this process's services in mServices, the other
// processes' as sockets in the runtime folder. Any thread may call it.
// Lock order: mLock, then the thread pool's lock.
class HostServiceManager : public IServiceManager {
public:
    sp<IBinder> getService(const String16& name) const override;
    sp<IBinder> checkService(const String16& name) const override;
    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpsysFlags) override;
    Vector<String16> listServices(int dumpsysFlags) override;
    status_t removeService(const String16& name) override;

protected:
    // Not a Binder object on a host: the runtime folder is the directory.
    IBinder* onAsBinder() override { return nullptr; }

private:
    // A name this process publishes: its socket and the lock that holds the
    // name, in the folder it was published in. Withdrawn when destroyed.
    struct Publication {
        Publication(RuntimeFolder&& publishedIn, const std::string& fileName, ProcessFd&& held)
            : folder(std::move(publishedIn)), name(fileName), lock(std::move(held)) {}
        ~Publication();

        RuntimeFolder folder;
        std::string name;
        ProcessFd lock;
    };

    struct Entry {
        sp<IBinder> binder;
        int dumpsysFlags = 0;
        std::shared_ptr<Publication> publication;
    };

    // A local service, else a proxy for the one listening in folder; null
    // when neither is found.
    sp<IBinder> find(const String16& name, const std::string& fileName,
                     RuntimeFolder&& folder) const;

    // Also held while a service is being published or removed, so that one
    // name gets one socket.
    mutable Mutex mLock;
    KeyedVector<String16, Entry> mServices GUARDED_BY(mLock);
};

HostServiceManager::Publication::~Publication() {
    // The socket first: a client then finds nothing rather than a socket
    // nobody answers on.
    unlinkat(folder.fd(), name.c_str(), 0);
    unlinkat(folder.fd(), LockName(name).c_str(), 0);
}

sp<IBinder> HostServiceManager::find(const String16& name, const std::string& fileName,
                                     RuntimeFolder&& folder) const {
    {
        Mutex::Autolock lock(mLock);
        const ssize_t index = mServices.indexOfKey(name);
        if (index >= 0) {
            return mServices.valueAt(index).binder;
        }
    }
    if (folder.state() != RuntimeFolder::OPEN) {
        return nullptr;
    }
    const int fd = HostWire::Connect(folder.Entry(fileName));
    return fd >= 0 ? sp<IBinder>(new BpBinder(std::move(folder), fileName, fd)) : nullptr;
}

sp<IBinder> HostServiceManager::checkService(const String16& name) const {
    const std::string fileName = FileName(name);
    return fileName.empty() ? nullptr : find(name, fileName, RuntimeFolder::Open(false));
}

sp<IBinder> HostServiceManager::getService(const String16& name) const {
    const std::string fileName = FileName(name);
    if (fileName.empty()) {
        return nullptr;
    }
    const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + ms2ns(GET_SERVICE_TIMEOUT_MS);
    std::optional<base::unique_fd> watch;  // set up after the first look
    for (;;) {
        RuntimeFolder folder = RuntimeFolder::Open(false);
        if (folder.state() == RuntimeFolder::REFUSED) {
            return nullptr;
        }
        // Watch before looking, so that a service appearing in between is
        // seen. The folder may be a new one: watching it again is harmless.
        const bool watching =
                watch.has_value() && watch->get() >= 0 && folder.fd() >= 0 &&
                inotify_add_watch(watch->get(), folder.Entry("").c_str(),
                                  IN_CREATE | IN_MOVED_TO) >= 0;
        const std::string folderPath = folder.path();
        sp<IBinder> service = find(name, fileName, std::move(folder));
        const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
        if (service != nullptr || left <= 0) {
            if (service == nullptr) {
                ALOGW("service %s not found in %s", fileName.c_str(), folderPath.c_str());
            }
            return service;
        }
        if (!watch.has_value()) {
            watch.emplace(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
            if (watch->get() < 0) {
                ALOGW("cannot watch for services (%s): polling every %d ms", strerror(errno),
                      GET_SERVICE_POLL_MS);
            }
            continue;
        }
        const int waitMs = toMillisecondTimeoutDelay(0, left);
        if (!watching) {
            poll(nullptr, 0, std::min(waitMs, GET_SERVICE_POLL_MS));
            continue;
        }
        pollfd pfd = {watch->get(), POLLIN, 0};
        if (poll(&pfd, 1, waitMs) > 0) {
            char events[4096];
            while (read(watch->get(), events, sizeof(events)) > 0) {
            }
        }
    }
}

status_t HostServiceManager::addService(const String16& name, const sp<IBinder>& service,
                                        bool /*allowIsolated*/, int dumpsysFlags) {
    if (service == nullptr || service->localBinder() == nullptr) {
        ALOGE("service %s is not an object of this process", String8(name).c_str());
        return BAD_VALUE;
    }
    const std::string fileName = FileName(name);
    if (fileName.empty()) {
        return BAD_VALUE;
    }
    Mutex::Autolock lock(mLock);
    if (mServices.indexOfKey(name) >= 0) {
        return ALREADY_EXISTS;
    }
    RuntimeFolder folder = RuntimeFolder::Open(true);
    if (folder.state() != RuntimeFolder::OPEN) {
        return PERMISSION_DENIED;
    }
    ProcessFd held = ClaimName(folder, fileName);
    if (held.get() < 0) {
        if (errno == EWOULDBLOCK) {
            ALOGE("service %s is published by another process", fileName.c_str());
            return ALREADY_EXISTS;
        }
        ALOGE("cannot lock service name %s: %s", fileName.c_str(), strerror(errno));
        return UNKNOWN_ERROR;
    }
    base::unique_fd listener = Listen(folder, fileName);
    if (listener.get() < 0) {
        unlinkat(folder.fd(), LockName(fileName).c_str(), 0);
        return UNKNOWN_ERROR;
    }
    Entry entry;
    entry.binder = service;
    entry.dumpsysFlags = dumpsysFlags;
    entry.publication = std::make_shared<Publication>(std::move(folder), fileName, std::move(held));
    mServices.add(name, entry);
    ProcessState::self()->mPool->AddListener(std::move(listener), service);
    return NO_ERROR;
}

status_t HostServiceManager::removeService(const String16& name) {
    Entry entry;
    {
        Mutex::Autolock lock(mLock);
        const ssize_t index = mServices.indexOfKey(name);
        if (index < 0) {
            return NAME_NOT_FOUND;
        }
        entry = mServices.valueAt(index);
        mServices.removeItemsAt(index);
        // Withdrawn under the lock, so that publishing the name again waits.
        entry.publication.reset();
        ProcessState::self()->mPool->RemoveListener(entry.binder);
    }
    // Without the lock: the calls still to run may use the manager.
    ProcessState::self()->mPool->AwaitClosed(entry.binder);
    return NO_ERROR;
}

Vector<String16> HostServiceManager::listServices(int dumpsysFlags) {
    Vector<String16> names;
    {
        Mutex::Autolock lock(mLock);
        for (size_t i = 0; i < mServices.size(); ++i) {
            if ((mServices.valueAt(i).dumpsysFlags & dumpsysFlags & DUMP_FLAG_PRIORITY_ALL) != 0) {
                names.add(mServices.keyAt(i));
            }
        }
    }
    if ((dumpsysFlags & DUMP_FLAG_PRIORITY_ALL) != DUMP_FLAG_PRIORITY_ALL) {
        return names;
    }
    const RuntimeFolder folder = RuntimeFolder::Open(false);
    const int fd = folder.state() == RuntimeFolder::OPEN
                           ? openat(folder.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                           : -1;
    DIR* entries = fd >= 0 ? fdopendir(fd) : nullptr;
    if (entries == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return names;
    }
    while (const dirent* entry = readdir(entries)) {
        struct stat st;
        if (entry->d_name[0] == '.' ||
            fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode)) {
            continue;
        }
        const String16 name(entry->d_name);
        bool listed = false;
        for (size_t i = 0; i < names.size() && !listed; ++i) {
            listed = names[i] == name;
        }
        if (!listed) {
            names.add(name);
        }
    }
    closedir(entries);
    return names;
}

sp<IServiceManager> defaultServiceManager() {
    // Never destroyed, like the process state it publishes through.
    static IServiceManager* const gManager = [] {
        IServiceManager* manager = new HostServiceManager;
        manager->incStrong(nullptr);
        return manager;
    }();
    return gManager;
}

}  // namespace android
