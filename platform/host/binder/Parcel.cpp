#define LOG_TAG "HostBinder"

#include <binder/Parcel.h>

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <binder/IBinder.h>
#include <log/log.h>

namespace android {

namespace {

// Marks a descriptor slot in the data, so that a misplaced read fails.
constexpr int32_t FD_OBJECT_TAG = 0x5f46445f;  // "_FD_"

constexpr size_t Pad4(size_t len) { return (len + 3) & ~size_t(3); }

}  // namespace

Parcel::Parcel() : mDataPos(0), mError(NO_ERROR) {}

Parcel::~Parcel() { closeFds(); }

void Parcel::closeFds() {
    for (const Fd& entry : mFds) {
        if (entry.owned) {
            close(entry.fd);
        }
    }
    mFds.clear();
}

void Parcel::setDataPosition(size_t pos) const {
    mDataPos = pos < mData.size() ? pos : mData.size();
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    freeData();
    if (len > 0 && buffer == nullptr) {
        return BAD_VALUE;
    }
    mData.assign(buffer, buffer + len);
    return NO_ERROR;
}

void Parcel::freeData() {
    closeFds();
    mData.clear();
    mDataPos = 0;
    mError = NO_ERROR;
}

uint8_t* Parcel::writeInPlace(size_t len) {
    const size_t padded = Pad4(len);
    if (mDataPos + padded > mData.size()) {
        mData.resize(mDataPos + padded);
    }
    uint8_t* out = mData.data() + mDataPos;
    memset(out + len, 0, padded - len);
    mDataPos += padded;
    return out;
}

const uint8_t* Parcel::readInPlace(size_t len) const {
    if (len > dataAvail()) {
        return nullptr;
    }
    const uint8_t* in = mData.data() + mDataPos;
    // The padding of the last value may be missing from foreign data.
    mDataPos += Pad4(len) < dataAvail() ? Pad4(len) : dataAvail();
    return in;
}

status_t Parcel::write(const void* data, size_t len) {
    if (len > 0 && data == nullptr) {
        return BAD_VALUE;
    }
    if (len > 0) {
        memcpy(writeInPlace(len), data, len);
    }
    return NO_ERROR;
}

status_t Parcel::read(void* outData, size_t len) const {
    if (len == 0) {
        return NO_ERROR;
    }
    const uint8_t* in = readInPlace(len);
    if (in == nullptr) {
        return NOT_ENOUGH_DATA;
    }
    memcpy(outData, in, len);
    return NO_ERROR;
}

status_t Parcel::writeInt32(int32_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeUint32(uint32_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeInt64(int64_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeUint64(uint64_t val) { return write(&val, sizeof(val)); }

status_t Parcel::readInt32(int32_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readUint32(uint32_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readInt64(int64_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readUint64(uint64_t* pArg) const { return read(pArg, sizeof(*pArg)); }

int32_t Parcel::readInt32() const {
    int32_t val = 0;
    return readInt32(&val) == NO_ERROR ? val : 0;
}

uint32_t Parcel::readUint32() const {
    uint32_t val = 0;
    return readUint32(&val) == NO_ERROR ? val : 0;
}

int64_t Parcel::readInt64() const {
    int64_t val = 0;
    return readInt64(&val) == NO_ERROR ? val : 0;
}

uint64_t Parcel::readUint64() const {
    uint64_t val = 0;
    return readUint64(&val) == NO_ERROR ? val : 0;
}

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) {
        return BAD_VALUE;
    }
    return write(str, strlen(str) + 1);
}

const char* Parcel::readCString() const {
    const size_t avail = dataAvail();
    const char* start = reinterpret_cast<const char*>(mData.data() + mDataPos);
    const void* end = avail > 0 ? memchr(start, '\0', avail) : nullptr;
    if (end == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<const char*>(
            readInPlace(static_cast<const char*>(end) - start + 1));
}

status_t Parcel::writeString8(const String8& str) {
    status_t err = writeInt32(static_cast<int32_t>(str.size()));
    if (err == NO_ERROR) {
        err = write(str.c_str(), str.size() + 1);
    }
    return err;
}

status_t Parcel::readString8(String8* pArg) const {
    const size_t start = mDataPos;
    int32_t len = 0;
    if (readInt32(&len) != NO_ERROR) {
        return NOT_ENOUGH_DATA;
    }
    const char* str =
            len >= 0 ? reinterpret_cast<const char*>(readInPlace(size_t(len) + 1)) : nullptr;
    if (str == nullptr || str[len] != '\0') {
        mDataPos = start;
        return BAD_VALUE;
    }
    pArg->setTo(str, len);
    return NO_ERROR;
}

String8 Parcel::readString8() const {
    String8 str;
    readString8(&str);
    return str;
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr || len > INT32_MAX - 1) {
        return BAD_VALUE;
    }
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err == NO_ERROR) {
        uint8_t* out = writeInPlace((len + 1) * sizeof(char16_t));
        memcpy(out, str, len * sizeof(char16_t));
        memset(out + len * sizeof(char16_t), 0, sizeof(char16_t));
    }
    return err;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    const size_t start = mDataPos;
    int32_t len = 0;
    if (readInt32(&len) == NO_ERROR && len >= 0) {
        const uint8_t* in = readInPlace((size_t(len) + 1) * sizeof(char16_t));
        if (in != nullptr) {
            char16_t terminator;
            memcpy(&terminator, in + size_t(len) * sizeof(char16_t), sizeof(terminator));
            if (terminator == 0) {
                *outLen = size_t(len);
                return reinterpret_cast<const char16_t*>(in);
            }
        }
    }
    mDataPos = start;
    *outLen = 0;
    return nullptr;
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        return BAD_VALUE;
    }
    pArg->setTo(str, len);
    return NO_ERROR;
}

String16 Parcel::readString16() const {
    String16 str;
    readString16(&str);
    return str;
}

status_t Parcel::writeInterfaceToken(const String16& interface) { return writeString16(interface); }

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* /*threadState*/) const {
    String16 token;
    return readString16(&token) == NO_ERROR && token == interface;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return binder != nullptr && enforceInterface(binder->getInterfaceDescriptor());
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) {
        return BAD_VALUE;
    }
    status_t err = writeInt32(FD_OBJECT_TAG);
    if (err == NO_ERROR) {
        err = writeInt32(static_cast<int32_t>(mFds.size()));
    }
    if (err == NO_ERROR) {
        mFds.push_back({fd, takeOwnership});
    }
    return err;
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    const int dup = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dup < 0) {
        return -errno;
    }
    const status_t err = writeFileDescriptor(dup, true);
    if (err != NO_ERROR) {
        close(dup);
    }
    return err;
}

int Parcel::readFileDescriptor() const {
    const size_t start = mDataPos;
    int32_t tag = 0;
    int32_t index = -1;
    if (readInt32(&tag) == NO_ERROR && tag == FD_OBJECT_TAG && readInt32(&index) == NO_ERROR &&
        index >= 0 && size_t(index) < mFds.size()) {
        return mFds[index].fd;
    }
    mDataPos = start;
    return BAD_TYPE;
}

}  // namespace android
