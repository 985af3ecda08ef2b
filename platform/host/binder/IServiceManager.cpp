#define LOG_TAG "HostBinder"

#include <binder/IServiceManager.h>

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <binder/BpBinder.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <utils/KeyedVector.h>
#include <utils/String8.h>
#include <utils/Timers.h>

#include "BinderPool.h"
#include "Wire.h"

namespace android {

namespace {

constexpr char DEFAULT_BINDER_DIR[] = "/tmp/host-binder";
constexpr int GET_SERVICE_TIMEOUT_MS = 5000;

// The runtime folder, created when missing. A folder that another user
// could swap sockets in is refused: false, with a log line.
bool RuntimeFolder(std::string* dir) {
    const char* env = getenv("HOST_BINDER_DIR");
    *dir = env != nullptr && env[0] != '\0' ? env : DEFAULT_BINDER_DIR;
    if (mkdir(dir->c_str(), 0755) == 0) {
        // Whatever the umask: clients of other users must reach the sockets.
        chmod(dir->c_str(), 0755);
    } else if (errno != EEXIST) {
        ALOGE("cannot create binder folder %s: %s", dir->c_str(), strerror(errno));
        return false;
    }
    struct stat st;
    if (lstat(dir->c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        ALOGE("refusing binder folder %s: not a folder", dir->c_str());
        return false;
    }
    if (st.st_uid != geteuid() && st.st_uid != 0) {
        ALOGE("refusing binder folder %s: owned by uid %u", dir->c_str(), st.st_uid);
        return false;
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        ALOGE("refusing binder folder %s: writable by others", dir->c_str());
        return false;
    }
    return true;
}

// The socket of service name; false for a name that is no plain file name.
bool SocketPath(const String16& name, std::string* dir, std::string* path) {
    const String8 name8(name);
    if (name8.size() == 0 || name8.c_str()[0] == '.' || strchr(name8.c_str(), '/') != nullptr ||
        strlen(name8.c_str()) != name8.size()) {
        ALOGE("invalid service name \"%s\"", name8.c_str());
        return false;
    }
    if (!RuntimeFolder(dir)) {
        return false;
    }
    *path = *dir + "/" + name8.c_str();
    return true;
}

// A socket listening at path: bound under a temporary name and renamed, so
// that a client never finds it before it listens.
base::unique_fd Listen(const std::string& dir, const std::string& path) {
    static std::atomic<unsigned> counter{0};
    const std::string temp =
            dir + "/.new-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    sockaddr_un addr = {};
    if (temp.size() >= sizeof(addr.sun_path) || path.size() >= sizeof(addr.sun_path)) {
        ALOGE("socket path too long: %s", path.c_str());
        return {};
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, temp.c_str(), temp.size() + 1);
    base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    unlink(temp.c_str());
    if (fd.get() < 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        chmod(temp.c_str(), 0666) != 0 || listen(fd.get(), SOMAXCONN) != 0 ||
        rename(temp.c_str(), path.c_str()) != 0) {
        ALOGE("cannot listen at %s: %s", path.c_str(), strerror(errno));
        unlink(temp.c_str());
        return {};
    }
    return fd;
}

}  // namespace

// The host's directory: this process's services in mServices, the other
// processes' as sockets in the runtime folder. Any thread may call it.
class HostServiceManager : public IServiceManager {
public:
    sp<IBinder> getService(const String16& name) const override;
    sp<IBinder> checkService(const String16& name) const override;
    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpsysFlags) override;
    Vector<String16> listServices(int dumpsysFlags) override;

protected:
    // Not a Binder object on a host: the runtime folder is the directory.
    IBinder* onAsBinder() override { return nullptr; }

private:
    struct Entry {
        sp<IBinder> binder;
        int dumpsysFlags = 0;
    };

    // Also held while a service is being published, so that one name gets
    // one socket.
    mutable Mutex mLock;
    KeyedVector<String16, Entry> mServices GUARDED_BY(mLock);
};

sp<IBinder> HostServiceManager::checkService(const String16& name) const {
    {
        Mutex::Autolock lock(mLock);
        const ssize_t index = mServices.indexOfKey(name);
        if (index >= 0) {
            return mServices.valueAt(index).binder;
        }
    }
    std::string dir;
    std::string path;
    if (!SocketPath(name, &dir, &path)) {
        return nullptr;
    }
    const int fd = HostWire::Connect(path);
    return fd >= 0 ? sp<IBinder>(new BpBinder(path, fd)) : nullptr;
}

sp<IBinder> HostServiceManager::getService(const String16& name) const {
    std::string dir;
    std::string path;
    if (!SocketPath(name, &dir, &path)) {
        return nullptr;
    }
    // Watch before looking, so that a service appearing in between is seen.
    base::unique_fd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (watch.get() >= 0 &&
        inotify_add_watch(watch.get(), dir.c_str(), IN_CREATE | IN_MOVED_TO) < 0) {
        watch.reset();
    }
    const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + ms2ns(GET_SERVICE_TIMEOUT_MS);
    for (;;) {
        sp<IBinder> service = checkService(name);
        const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
        if (service != nullptr || watch.get() < 0 || left <= 0) {
            if (service == nullptr) {
                ALOGW("service %s not found", path.c_str());
            }
            return service;
        }
        pollfd pfd = {watch.get(), POLLIN, 0};
        if (poll(&pfd, 1, toMillisecondTimeoutDelay(0, left)) > 0) {
            char events[4096];
            while (read(watch.get(), events, sizeof(events)) > 0) {
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
    std::string dir;
    std::string path;
    if (!SocketPath(name, &dir, &path)) {
        return BAD_VALUE;
    }
    Mutex::Autolock lock(mLock);
    if (mServices.indexOfKey(name) >= 0) {
        return ALREADY_EXISTS;
    }
    // A socket nobody answers on is left over by a process that died.
    const base::unique_fd probe(HostWire::Connect(path));
    if (probe.get() >= 0) {
        ALOGE("service %s is published by another process", path.c_str());
        return ALREADY_EXISTS;
    }
    base::unique_fd listener = Listen(dir, path);
    if (listener.get() < 0) {
        return UNKNOWN_ERROR;
    }
    mServices.add(name, {service, dumpsysFlags});
    ProcessState::self()->mPool->AddListener(std::move(listener), service);
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
    std::string dir;
    if ((dumpsysFlags & DUMP_FLAG_PRIORITY_ALL) != DUMP_FLAG_PRIORITY_ALL || !RuntimeFolder(&dir)) {
        return names;
    }
    DIR* folder = opendir(dir.c_str());
    if (folder == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(folder)) {
        struct stat st;
        const std::string path = dir + "/" + entry->d_name;
        if (entry->d_name[0] == '.' || lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
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
    closedir(folder);
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
