// A service this process publishes: its socket in the runtime folder, the
// lock file that holds its name, and its listener in the pool, from the
// publication to the moment its last connection closed. The service manager
// only names services; this is where they are served and withdrawn.
//
// Not thread-safe: its owner calls it under its own lock, Withdraw() there
// so that publishing the name again waits, and destroys it without that
// lock, because the calls still to run may use the owner.
#ifndef HOST_BINDER_PUBLICATION_H
#define HOST_BINDER_PUBLICATION_H

#include <memory>
#include <string>

#include <binder/IBinder.h>

#include "ProcessFd.h"
#include "RuntimeFolder.h"

namespace android {

class BinderPool;

class Publication {
public:
    // Publishes binder as name (a plain file name) in folder, served by
    // pool. Null on failure, with *status ALREADY_EXISTS when another
    // process holds the name, else UNKNOWN_ERROR.
    static std::unique_ptr<Publication> Publish(BinderPool* pool, RuntimeFolder&& folder,
                                                const std::string& name,
                                                const sp<IBinder>& binder, status_t* status);
    // Withdraws, then returns once every connection of the service ran what
    // it was sent and closed; at once on a pool thread or while the pool
    // does not run.
    ~Publication();
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

    // Unlinks the socket, then releases the name: a client finds nothing
    // rather than a socket nobody answers on. Then the pool refuses new
    // connections, takes those in the backlog and shuts every connection
    // for reading; they run what they were sent. Returns without waiting
    // for them; a second call does nothing.
    void Withdraw();

private:
    Publication(BinderPool* pool, RuntimeFolder&& folder, const std::string& name,
                ProcessFd&& nameLock, const sp<IBinder>& binder);

    BinderPool* const mPool;
    const RuntimeFolder mFolder;
    const std::string mName;
    ProcessFd mNameLock;
    const sp<IBinder> mBinder;
    bool mWithdrawn = false;
};

}  // namespace android

#endif
