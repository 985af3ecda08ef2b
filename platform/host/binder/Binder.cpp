#include <binder/Binder.h>

#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

IBinder::IBinder() = default;
IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) { return nullptr; }
BBinder* IBinder::localBinder() { return nullptr; }
BpBinder* IBinder::remoteBinder() { return nullptr; }

BBinder::BBinder() = default;
BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) { return NO_ERROR; }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t err = code == PING_TRANSACTION ? pingBinder()
                                                   : onTransact(code, data, reply, flags);
    if (reply != nullptr) {
        reply->setDataPosition(0);
    }
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                             uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            return reply != nullptr ? reply->writeString16(getInterfaceDescriptor()) : BAD_VALUE;
        case DUMP_TRANSACTION: {
            // A missing descriptor reaches dump() as a negative one.
            const int fd = data.readFileDescriptor();
            const int32_t argc = data.readInt32();
            Vector<String16> args;
            String16 arg;
            for (int32_t i = 0; i < argc && data.readString16(&arg) == NO_ERROR; ++i) {
                args.add(arg);
            }
            return dump(fd, args);
        }
        case DROPPED_CALLS_TRANSACTION:
            // Counted only by objects that keep such counts.
            return NO_ERROR;
        default:
            return UNKNOWN_TRANSACTION;
    }
}

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o) {}
BpRefBase::~BpRefBase() = default;

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    return iface != nullptr ? const_cast<IInterface*>(iface)->onAsBinder() : nullptr;
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    return iface != nullptr ? iface->onAsBinder() : nullptr;
}

}  // namespace android
