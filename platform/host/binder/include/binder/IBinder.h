// A Binder object: a local one (BBinder) or a proxy for one in another
// process (BpBinder). Both may be called from any thread.
#ifndef HOST_BINDER_IBINDER_H
#define HOST_BINDER_IBINDER_H

#include <stdint.h>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#define B_PACK_CHARS(c1, c2, c3, c4) \
    ((((c1) << 24)) | (((c2) << 16)) | (((c3) << 8)) | (c4))

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

class IBinder : public virtual RefBase {
public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,

        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        DUMP_TRANSACTION = B_PACK_CHARS('_', 'D', 'M', 'P'),
        // Host only, one-way: the calls that the sending process refused to
        // this object before sending them (its queue was full, or the
        // object's process was gone), as an int32 count.
        DROPPED_CALLS_TRANSACTION = B_PACK_CHARS('_', 'D', 'R', 'P'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),

        // The caller does not wait for the call to run, and gets no reply.
        FLAG_ONEWAY = 0x00000001,
    };

    IBinder();

    // The local object implementing descriptor, or null.
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    virtual status_t dump(int fd, const Vector<String16>& args) = 0;
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;

    virtual BBinder* localBinder();
    virtual BpBinder* remoteBinder();

protected:
    ~IBinder() override;
};

}  // namespace android

#endif
