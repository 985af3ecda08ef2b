#define LOG_TAG "HostBinder"

#include <binder/IServiceManager.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include <binder/BpBinder.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <utils/KeyedVector.h>
#include <utils/String8.h>
#include <utils/Timers.h>

#include "Publication.h"
#include "RuntimeFolder.h"
#include "Wire.h"

namespace android {

namespace {

constexpr int GET_SERVICE_TIMEOUT_MS = 5000;
// How often getService looks again when it cannot watch the folder.
constexpr int GET_SERVICE_POLL_MS = 50;

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
    status_t status;
    Entry entry;
    entry.binder = service;
    entry.dumpsysFlags = dumpsysFlags;
    entry.publication = Publication::Publish(ProcessState::self()->mPool, std::move(folder),
                                             fileName, service, &status);
    if (entry.publication == nullptr) {
        return status;
    }
    mServices.add(name, entry);
    return NO_ERROR;
}

status_t HostServiceManager::removeService(const String16& name) {
    std::shared_ptr<Publication> publication;
    {
        Mutex::Autolock lock(mLock);
        const ssize_t index = mServices.indexOfKey(name);
        if (index < 0) {
            return NAME_NOT_FOUND;
        }
        publication = mServices.valueAt(index).publication;
        mServices.removeItemsAt(index);
        publication->Withdraw();
    }
    // The last reference: it waits for the calls still to run.
    publication.reset();
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
