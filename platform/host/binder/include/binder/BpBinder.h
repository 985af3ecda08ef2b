// A proxy for a Binder object of another process, reached through the
// socket on which that process listens. Any thread may call it; a call uses
// a connection no other call is using, so concurrent calls do not wait for
// each other, and the calls of one thread arrive in order. Once the other
// process is found gone, every call fails with DEAD_OBJECT.
#ifndef HOST_BINDER_BP_BINDER_H
#define HOST_BINDER_BP_BINDER_H

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <utils/Mutex.h>

namespace android {

class BpBinder : public IBinder {
public:
    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override { return mAlive; }
    status_t pingBinder() override;
    // Passes fd along; the other process writes the dump to it.
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) final;

    BpBinder* remoteBinder() override { return this; }

private:
    friend class HostServiceManager;

    // Idle connections kept for the next calls; more are closed.
    static constexpr size_t MAX_IDLE_CONNECTIONS = 4;

    // Adopts connection, a socket already connected to path.
    BpBinder(const std::string& path, int connection);
    ~BpBinder() override;

    // An idle connection of this process, else a new one; -1 on failure.
    int takeConnection();
    void putConnection(int fd);

    // Constant after construction.
    const std::string mPath;

    std::atomic<bool> mAlive;

    mutable Mutex mLock;
    std::vector<int> mIdle GUARDED_BY(mLock);
    // The process that opened mIdle: a forked child must not share them.
    pid_t mIdleOwner GUARDED_BY(mLock);
    mutable bool mHaveDescriptor GUARDED_BY(mLock);
    // Set once under mLock before mHaveDescriptor, constant afterwards.
    mutable String16 mDescriptor;
};

}  // namespace android

#endif
