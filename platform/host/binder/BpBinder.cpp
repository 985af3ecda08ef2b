#define LOG_TAG "HostBinder"

#include <binder/BpBinder.h>

#include <string.h>
#include <unistd.h>

#include <binder/Parcel.h>
#include <log/log.h>

#include "Wire.h"

namespace android {

BpBinder::BpBinder(const std::string& path, int connection)
    : mPath(path), mAlive(true), mIdleOwner(getpid()), mHaveDescriptor(false) {
    mIdle.push_back(connection);
}

BpBinder::~BpBinder() {
    Mutex::Autolock lock(mLock);
    for (int fd : mIdle) {
        close(fd);
    }
}

int BpBinder::takeConnection() {
    {
        Mutex::Autolock lock(mLock);
        if (mIdleOwner != getpid()) {
            for (int fd : mIdle) {
                close(fd);
            }
            mIdle.clear();
            mIdleOwner = getpid();
        }
        if (!mIdle.empty()) {
            const int fd = mIdle.back();
            mIdle.pop_back();
            return fd;
        }
    }
    return HostWire::Connect(mPath);
}

void BpBinder::putConnection(int fd) {
    {
        Mutex::Autolock lock(mLock);
        if (mIdleOwner == getpid() && mIdle.size() < MAX_IDLE_CONNECTIONS) {
            mIdle.push_back(fd);
            return;
        }
    }
    close(fd);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive) {
        return DEAD_OBJECT;
    }
    if (data.dataSize() > MAX_FRAME_DATA || data.objectsCount() > MAX_FRAME_FDS) {
        ALOGE("transaction %u to %s is too large", code, mPath.c_str());
        return FAILED_TRANSACTION;
    }
    const int fd = takeConnection();
    if (fd < 0) {
        ALOGW("cannot reach %s: %s", mPath.c_str(), strerror(errno));
        mAlive = false;
        return DEAD_OBJECT;
    }
    status_t err = HostWire::SendFrame(fd, code, flags, data);
    if (err == NO_ERROR) {
        FrameReader reader(0);
        const FrameReader::Result result = reader.Read(fd);
        if (result == FrameReader::COMPLETE) {
            FrameHeader header;
            Parcel ignored;
            reader.Take(&header, reply != nullptr ? reply : &ignored);
            putConnection(fd);
            return static_cast<status_t>(header.code);
        }
        if (result == FrameReader::BAD) {
            ALOGE("bad reply from %s: %s", mPath.c_str(), reader.Error());
            close(fd);
            return FAILED_TRANSACTION;
        }
    }
    close(fd);
    mAlive = false;
    return DEAD_OBJECT;
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        Mutex::Autolock lock(mLock);
        if (mHaveDescriptor) {
            return mDescriptor;
        }
    }
    Parcel data;
    Parcel reply;
    String16 descriptor;
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) == NO_ERROR &&
        reply.readString16(&descriptor) == NO_ERROR) {
        Mutex::Autolock lock(mLock);
        if (!mHaveDescriptor) {
            mDescriptor = descriptor;
            mHaveDescriptor = true;
        }
        return mDescriptor;
    }
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel data;
    status_t err = data.writeFileDescriptor(fd);
    data.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; i < args.size(); ++i) {
        data.writeString16(args[i]);
    }
    if (err == NO_ERROR) {
        Parcel reply;
        err = transact(DUMP_TRANSACTION, data, &reply);
    }
    return err;
}

}  // namespace android
