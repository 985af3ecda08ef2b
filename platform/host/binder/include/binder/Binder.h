// BBinder, the local side of a Binder object: transact() runs onTransact on
// the calling thread, which is a pool thread for a call from another process.
// BpRefBase holds the remote object of a proxy interface.
#ifndef HOST_BINDER_BINDER_H
#define HOST_BINDER_BINDER_H

#include <binder/IBinder.h>

namespace android {

class BBinder : public IBinder {
public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override { return true; }
    status_t pingBinder() override { return NO_ERROR; }
    status_t dump(int fd, const Vector<String16>& args) override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) final;

    BBinder* localBinder() override { return this; }

protected:
    ~BBinder() override;

    // Answers the interface and dump transactions; UNKNOWN_TRANSACTION for
    // any other code.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);
};

class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& o);
    ~BpRefBase() override;

    IBinder* remote() const { return mRemote.get(); }

private:
    BpRefBase(const BpRefBase&) = delete;
    BpRefBase& operator=(const BpRefBase&) = delete;

    const sp<IBinder> mRemote;
};

}  // namespace android

#endif
