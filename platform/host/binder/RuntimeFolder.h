// The runtime folder, in which each published service listens on a socket
// named after it: $HOST_BINDER_DIR, else /tmp/host-binder.
//
// It is opened one component at a time from the root, each checked on the
// handle just opened, and afterwards reached only through the folder's own
// handle ("/proc/self/fd/N/name"), so that a component swapped after the
// check changes nothing. Every component must be a folder, not a symbolic
// link, owned by root or this process's effective user and writable by no
// one else; as a parent, a sticky folder owned by root (such as /tmp) may be
// writable by all. Only publishing creates a missing folder.
//
// A value; one thread uses an instance at a time. The handle is a
// ProcessFd: in a forked child, fd() is -1 and the folder must be reopened.
#ifndef HOST_BINDER_RUNTIME_FOLDER_H
#define HOST_BINDER_RUNTIME_FOLDER_H

#include <string>

#include "ProcessFd.h"

namespace android {

class RuntimeFolder {
public:
    enum State {
        OPEN,
        MISSING,  // a component does not exist; not logged
        REFUSED,  // unsafe or unreadable; the reason is logged
    };

    // The folder the environment names. create makes its last component
    // when it is missing.
    static RuntimeFolder Open(bool create);
    // The folder at path, an absolute path.
    static RuntimeFolder Open(const std::string& path, bool create);

    State state() const { return mState; }
    const std::string& path() const { return mPath; }
    // An O_PATH handle on the folder; -1 unless OPEN in this process.
    int fd() const { return mFd.get(); }
    // The path of entry, a plain name, through the handle.
    std::string Entry(const std::string& entry) const;

private:
    explicit RuntimeFolder(const std::string& path) : mPath(path) {}

    // Refuses the folder because of component, a path prefix; logs why.
    void Refuse(const std::string& component, const std::string& why);
    // Checks the opened component dir; false when refused.
    bool Check(int dir, const std::string& component, bool parent);
    // Opens name in dir, the handle on parent, creating it if asked.
    ProcessFd OpenComponent(int dir, const std::string& parent, const std::string& name,
                            bool create);

    std::string mPath;
    State mState = REFUSED;
    ProcessFd mFd;
};

}  // namespace android

#endif
