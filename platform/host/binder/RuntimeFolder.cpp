#define LOG_TAG "HostBinder"

#include "RuntimeFolder.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include <log/log.h>

namespace android {

namespace {

constexpr char DEFAULT_FOLDER[] = "/tmp/host-binder";
constexpr int COMPONENT_FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The names between the slashes of path, without "." ones.
std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> names;
    for (size_t start = 0; start < path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, end - start);
        if (!name.empty() && name != ".") {
            names.push_back(name);
        }
        start = end + 1;
    }
    return names;
}

std::string Join(const std::string& parent, const std::string& name) {
    return parent == "/" ? parent + name : parent + "/" + name;
}

}  // namespace

RuntimeFolder RuntimeFolder::Open(bool create) {
    const char* env = getenv("HOST_BINDER_DIR");
    return Open(env != nullptr && env[0] != '\0' ? env : DEFAULT_FOLDER, create);
}

RuntimeFolder RuntimeFolder::Open(const std::string& path, bool create) {
    RuntimeFolder folder(path);
    if (path.empty() || path[0] != '/') {
        folder.Refuse(path, "is not an absolute path");
        return folder;
    }
    const std::vector<std::string> names = Components(path);
    ProcessFd dir(open("/", COMPONENT_FLAGS));
    std::string reached = "/";
    if (!folder.Check(dir.get(), reached, !names.empty())) {
        return folder;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        const bool last = i + 1 == names.size();
        if (names[i] == "..") {
            folder.Refuse(path, "names a parent with \"..\"");
            return folder;
        }
        ProcessFd next = folder.OpenComponent(dir.get(), reached, names[i], create && last);
        reached = Join(reached, names[i]);
        if (next.get() < 0 || !folder.Check(next.get(), reached, !last)) {
            return folder;
        }
        dir = std::move(next);
    }
    folder.mFd = std::move(dir);
    folder.mState = OPEN;
    return folder;
}

ProcessFd RuntimeFolder::OpenComponent(int dir, const std::string& parent,
                                       const std::string& name, bool create) {
    ProcessFd fd(openat(dir, name.c_str(), COMPONENT_FLAGS));
    if (fd.get() < 0 && errno == ENOENT && create) {
        // Whatever the umask: clients of other users must reach the sockets.
        if (mkdirat(dir, name.c_str(), 0755) == 0) {
            fchmodat(dir, name.c_str(), 0755, 0);
        }
        fd = ProcessFd(openat(dir, name.c_str(), COMPONENT_FLAGS));
    }
    if (fd.get() >= 0) {
        return fd;
    }
    const std::string component = Join(parent, name);
    if (errno == ENOENT) {
        mState = MISSING;
        if (create) {
            ALOGE("cannot create binder folder %s: %s is missing", mPath.c_str(),
                  component.c_str());
        }
    } else if (errno == ENOTDIR || errno == ELOOP) {
        Refuse(component, "is a symbolic link or not a folder");
    } else {
        Refuse(component, std::string("cannot be opened: ") + strerror(errno));
    }
    return fd;
}

bool RuntimeFolder::Check(int dir, const std::string& component, bool parent) {
    struct stat st;
    if (dir < 0 || fstat(dir, &st) != 0) {
        Refuse(component, std::string("cannot be opened: ") + strerror(errno));
        return false;
    }
    if (st.st_uid != 0 && st.st_uid != geteuid()) {
        Refuse(component, "is owned by uid " + std::to_string(st.st_uid));
        return false;
    }
    // In a sticky folder, only the owner of an entry (or of the folder, or
    // root) may rename or remove it.
    const bool sharedSafely = parent && (st.st_mode & S_ISVTX) != 0 && st.st_uid == 0;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sharedSafely) {
        Refuse(component, "is writable by others");
        return false;
    }
    return true;
}

void RuntimeFolder::Refuse(const std::string& component, const std::string& why) {
    ALOGE("refusing binder folder %s: %s %s", mPath.c_str(), component.c_str(), why.c_str());
    mState = REFUSED;
}

std::string RuntimeFolder::Entry(const std::string& entry) const {
    return "/proc/self/fd/" + std::to_string(fd()) + "/" + entry;
}

}  // namespace android
