// The typed face of a Binder object: an interface INTERFACE declares its
// operations, BnInterface<INTERFACE> is its local implementation and
// BpInterface<INTERFACE> the proxy that marshals calls to a remote one.
#ifndef HOST_BINDER_IINTERFACE_H
#define HOST_BINDER_IINTERFACE_H

#include <binder/Binder.h>

namespace android {

class IInterface : public virtual RefBase {
public:
    IInterface();
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

template <typename INTERFACE>
inline sp<INTERFACE> interface_cast(const sp<IBinder>& obj) {
    return INTERFACE::asInterface(obj);
}

template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
public:
    sp<IInterface> queryLocalInterface(const String16& _descriptor) override;
    const String16& getInterfaceDescriptor() const override;

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override { return this; }
};

template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
public:
    explicit BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override { return remote(); }
};

template <typename INTERFACE>
sp<IInterface> BnInterface<INTERFACE>::queryLocalInterface(const String16& _descriptor) {
    if (_descriptor == INTERFACE::descriptor) {
        return sp<IInterface>(this);
    }
    return nullptr;
}

template <typename INTERFACE>
const String16& BnInterface<INTERFACE>::getInterfaceDescriptor() const {
    return INTERFACE::getInterfaceDescriptor();
}

}  // namespace android

#define DECLARE_META_INTERFACE(INTERFACE)                                  \
public:                                                                    \
    static const ::android::String16 descriptor;                           \
    static ::android::sp<I##INTERFACE> asInterface(                        \
            const ::android::sp<::android::IBinder>& obj);                 \
    virtual const ::android::String16& getInterfaceDescriptor() const;     \
    I##INTERFACE();                                                        \
    ~I##INTERFACE() override;

#define IMPLEMENT_META_INTERFACE(INTERFACE, NAME)                          \
    const ::android::String16 I##INTERFACE::descriptor(NAME);              \
    const ::android::String16& I##INTERFACE::getInterfaceDescriptor() const { \
        return I##INTERFACE::descriptor;                                   \
    }                                                                      \
    ::android::sp<I##INTERFACE> I##INTERFACE::asInterface(                 \
            const ::android::sp<::android::IBinder>& obj) {                \
        ::android::sp<I##INTERFACE> intr;                                  \
        if (obj != nullptr) {                                              \
            intr = static_cast<I##INTERFACE*>(                             \
                    obj->queryLocalInterface(I##INTERFACE::descriptor).get()); \
            if (intr == nullptr) {                                         \
                intr = new Bp##INTERFACE(obj);                             \
            }                                                              \
        }                                                                  \
        return intr;                                                       \
    }                                                                      \
    I##INTERFACE::I##INTERFACE() {}                                        \
    I##INTERFACE::~I##INTERFACE() {}

// Refuses a transaction whose interface token is not this object's.
#define CHECK_INTERFACE(interface, data, reply)                   \
    do {                                                          \
        if (!(data).checkInterface(this)) {                       \
            return PERMISSION_DENIED;                             \
        }                                                         \
    } while (false)

#endif
