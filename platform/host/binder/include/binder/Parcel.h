// The byte container of a transaction. Values are written at 4-byte aligned
// positions; every read checks the bounds and fails with a status, never
// reading past the end, because the bytes may come from an untrusted peer.
//
// Not thread-safe: one thread fills or reads a parcel at a time.
#ifndef HOST_BINDER_PARCEL_H
#define HOST_BINDER_PARCEL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <vector>

#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/String8.h>

namespace android {

class IBinder;
class IPCThreadState;
struct HostWire;

class Parcel {
public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const { return mData.data(); }
    size_t dataSize() const { return mData.size(); }
    size_t dataAvail() const { return mData.size() - mDataPos; }
    size_t dataPosition() const { return mDataPos; }
    // A position past the end is clamped to the end.
    void setDataPosition(size_t pos) const;
    // Replaces the content with a copy of buffer; descriptors are dropped.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    status_t errorCheck() const { return mError; }
    void setError(status_t err) { mError = err; }

    status_t writeInterfaceToken(const String16& interface);
    // True when the next value is the token of interface.
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t write(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    // BAD_VALUE for a null str.
    status_t writeCString(const char* str);
    status_t writeString8(const String8& str);
    status_t writeString16(const String16& str);
    status_t writeString16(const char16_t* str, size_t len);
    // The descriptor travels with the transaction; a receiving process gets
    // its own copy, which its parcel owns. takeOwnership makes this parcel
    // close fd when it is destroyed.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    status_t writeDupFileDescriptor(int fd);

    // Reads fail with NOT_ENOUGH_DATA or BAD_VALUE and leave the position
    // where it was; the value-returning forms answer 0, null or empty then.
    status_t read(void* outData, size_t len) const;
    status_t readInt32(int32_t* pArg) const;
    int32_t readInt32() const;
    status_t readUint32(uint32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readInt64(int64_t* pArg) const;
    int64_t readInt64() const;
    status_t readUint64(uint64_t* pArg) const;
    uint64_t readUint64() const;
    // Points into the parcel; null when no terminator lies within the data.
    const char* readCString() const;
    status_t readString8(String8* pArg) const;
    String8 readString8() const;
    status_t readString16(String16* pArg) const;
    String16 readString16() const;
    const char16_t* readString16Inplace(size_t* outLen) const;
    // The descriptor stays owned by the parcel; BAD_TYPE when there is none.
    int readFileDescriptor() const;

    size_t objectsCount() const { return mFds.size(); }

private:
    friend struct HostWire;
    friend class FrameMessage;

    struct Fd {
        int fd;
        bool owned;
    };

    // Start of the next value of len bytes, advancing past its padding; null
    // when fewer than len bytes remain.
    const uint8_t* readInPlace(size_t len) const;
    uint8_t* writeInPlace(size_t len);
    void closeFds();

    std::vector<uint8_t> mData;
    mutable size_t mDataPos;
    status_t mError;
    std::vector<Fd> mFds;
};

}  // namespace android

#endif
