#define LOG_TAG "IVyMediaMonitorService"

#include <IVyMediaMonitorService.h>

#include <atomic>
#include <tuple>
#include <type_traits>

#include <log/log.h>
#include <utils/Timers.h>

namespace android {

namespace {

void WriteArg(Parcel* data, int value) { data->writeInt32(value); }
void WriteArg(Parcel* data, unsigned int value) { data->writeUint32(value); }
void WriteArg(Parcel* data, const String8& value) { data->writeString8(value); }
void WriteArg(Parcel* data, const char* value) {
    data->writeInt32(value != nullptr ? 1 : 0);
    if (value != nullptr) {
        data->writeCString(value);
    }
}

// Reads arguments in order; after the first failure every read fails.
class ArgReader {
public:
    explicit ArgReader(const Parcel& data) : mData(data) {}
    bool ok() const { return mOk; }

    template <typename T>
    T Read();

private:
    const Parcel& mData;
    bool mOk = true;
};

template <>
int ArgReader::Read<int>() {
    int32_t value = 0;
    mOk = mOk && mData.readInt32(&value) == NO_ERROR;
    return value;
}

template <>
unsigned int ArgReader::Read<unsigned int>() {
    uint32_t value = 0;
    mOk = mOk && mData.readUint32(&value) == NO_ERROR;
    return value;
}

template <>
String8 ArgReader::Read<String8>() {
    String8 value;
    mOk = mOk && mData.readString8(&value) == NO_ERROR;
    return value;
}

template <>
const char* ArgReader::Read<const char*>() {
    int32_t present = 0;
    mOk = mOk && mData.readInt32(&present) == NO_ERROR && (present == 0 || present == 1);
    const char* value = mOk && present == 1 ? mData.readCString() : nullptr;
    mOk = mOk && (present == 0 || value != nullptr);
    return value;
}

template <typename... Args>
using Operation = void (IVyMediaMonitorService::*)(Args...);

// Unmarshals the arguments of op and calls it, or nothing when they do not
// unmarshal. The strings of the arguments point into data.
template <typename... Args>
status_t Call(IVyMediaMonitorService* service, Operation<Args...> op, const Parcel& data) {
    ArgReader reader(data);
    // Braces read the arguments left to right.
    std::tuple<std::decay_t<Args>...> args{reader.Read<std::decay_t<Args>>()...};
    if (!reader.ok()) {
        return BAD_VALUE;
    }
    std::apply([&](const auto&... arg) { (service->*op)(arg...); }, args);
    return NO_ERROR;
}

// A one-way send fails at once while the service is behind, and then for
// call after call: one line a second at most.
bool FailureLogAllowed() {
    static std::atomic<nsecs_t> sLast{0};
    const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    nsecs_t last = sLast.load(std::memory_order_relaxed);
    return now - last >= seconds_to_nanoseconds(1) &&
           sLast.compare_exchange_strong(last, now, std::memory_order_relaxed);
}

using S = const char*;
using I = IVyMediaMonitorService;

}  // namespace

class BpVyMediaMonitorService : public BpInterface<IVyMediaMonitorService> {
public:

    explicit BpVyMediaMonitorService(const sp<IBinder>& impl)
        : BpInterface<IVyMediaMonitorService>(impl) {}

    void ForceLogSend(int type) override { Send(FORCE_LOG_SEND, type); }
    void WriteLogMsg(int prior, int type, S msg) override {
        Send(WRITE_LOG_MSG_TYPED, prior, type, msg);
    }
    void WriteMediaBigData(int pid, int type, S msg) override {
        Send(WRITE_MEDIA_BIG_DATA, pid, type, msg);
    }
    void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                     const String8& callingApp) override {
        Send(WRITE_LOG_MSG_EVENT, eventId, eventLevel, subType, reason, callingApp);
    }
    void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                     const String8& callingApp, int paraInt, const String8& paraChar,
                     int associatedEventId) override {
        Send(WRITE_LOG_MSG_EVENT_PARAMS, eventId, eventLevel, subType, reason, callingApp,
             paraInt, paraChar, associatedEventId);
    }
    void WriteKpis(const String8& kpis) override { Send(WRITE_KPIS, kpis); }
    void WriteBigData(int id, S s1, int i1, int i2) override {
        Send(WRITE_BIG_DATA_S_I_I, id, s1, i1, i2);
    }
    void WriteBigData(int id, S s1, S s2, int i1, int i2) override {
        Send(WRITE_BIG_DATA_S_S_I_I, id, s1, s2, i1, i2);
    }
    void WriteBigData(int id, S s1, S s2, int i1) override {
        Send(WRITE_BIG_DATA_S_S_I, id, s1, s2, i1);
    }
    void WriteBigData(int id, S s1, int i1, int i2, int i3) override {
        Send(WRITE_BIG_DATA_S_I_I_I, id, s1, i1, i2, i3);
    }
    void WriteBigData(int id, S s1, S s2, S s3) override {
        Send(WRITE_BIG_DATA_S_S_S, id, s1, s2, s3);
    }
    void WriteBigData(int id, S s1, S s2, S s3, int i1) override {
        Send(WRITE_BIG_DATA_S_S_S_I, id, s1, s2, s3, i1);
    }
    void WriteBigData(int id, S s1, int i1, int i2, int i3, int i4) override {
        Send(WRITE_BIG_DATA_S_I_I_I_I, id, s1, i1, i2, i3, i4);
    }
    void WriteBigData(int id, S s1, S s2, S s3, S s4, int i1, int i2, int i3) override {
        Send(WRITE_BIG_DATA_S_S_S_S_I_I_I, id, s1, s2, s3, s4, i1, i2, i3);
    }
    void WriteBigData(int id, S s1, S s2, S s3, S s4, S s5, int i1) override {
        Send(WRITE_BIG_DATA_S_S_S_S_S_I, id, s1, s2, s3, s4, s5, i1);
    }
    void WriteBigData(int id, S s1, S s2, S s3, S s4, S s5, S s6, int i1) override {
        Send(WRITE_BIG_DATA_S_S_S_S_S_S_I, id, s1, s2, s3, s4, s5, s6, i1);
    }
    void MonitorSetForceUse(int usage, int config) override {
        Send(MONITOR_SET_FORCE_USE, usage, config);
    }
    void MonitorBroadcastStream(int state, int stream) override {
        Send(MONITOR_BROADCAST_STREAM, state, stream);
    }
    void MonitorBroadcastDevice(unsigned int device) override {
        Send(MONITOR_BROADCAST_DEVICE, device);
    }
    void MonitorVolumeIndex(int source, int index, int device) override {
        Send(MONITOR_VOLUME_INDEX, source, index, device);
    }
    void MonitorPlayingApp(S app) override { Send(MONITOR_PLAYING_APP, app); }

private:
    template <typename... Args>
    void Send(uint32_t code, const Args&... args) {
        Parcel data;
        data.writeInterfaceToken(IVyMediaMonitorService::getInterfaceDescriptor());
        (WriteArg(&data, args), ...);
        const status_t err = remote()->transact(code, data, nullptr, IBinder::FLAG_ONEWAY);
        if (err != NO_ERROR && FailureLogAllowed()) {
            ALOGW("transaction %u failed: %d (one line a second at most)", code, err);
        }
    }
};

IMPLEMENT_META_INTERFACE(VyMediaMonitorService, "vymedia.IVyMediaMonitorService")

status_t BnVyMediaMonitorService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                             uint32_t flags) {
    if (code < FORCE_LOG_SEND || code > LAST_OPERATION) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    CHECK_INTERFACE(IVyMediaMonitorService, data, reply);
    switch (code) {
        case FORCE_LOG_SEND:
            return Call(this, Operation<int>(&I::ForceLogSend), data);
        case WRITE_LOG_MSG_TYPED:
            return Call(this, Operation<int, int, S>(&I::WriteLogMsg), data);
        case WRITE_MEDIA_BIG_DATA:
            return Call(this, Operation<int, int, S>(&I::WriteMediaBigData), data);
        case WRITE_LOG_MSG_EVENT:
            return Call(this,
                        Operation<int, int, int, const String8&, const String8&>(&I::WriteLogMsg),
                        data);
        case WRITE_LOG_MSG_EVENT_PARAMS:
            return Call(this,
                        Operation<int, int, int, const String8&, const String8&, int,
                                  const String8&, int>(&I::WriteLogMsg),
                        data);
        case WRITE_KPIS:
            return Call(this, Operation<const String8&>(&I::WriteKpis), data);
        case WRITE_BIG_DATA_S_I_I:
            return Call(this, Operation<int, S, int, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_I_I:
            return Call(this, Operation<int, S, S, int, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_I:
            return Call(this, Operation<int, S, S, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_I_I_I:
            return Call(this, Operation<int, S, int, int, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_S:
            return Call(this, Operation<int, S, S, S>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_S_I:
            return Call(this, Operation<int, S, S, S, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_I_I_I_I:
            return Call(this, Operation<int, S, int, int, int, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_S_S_I_I_I:
            return Call(this, Operation<int, S, S, S, S, int, int, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_S_S_S_I:
            return Call(this, Operation<int, S, S, S, S, S, int>(&I::WriteBigData), data);
        case WRITE_BIG_DATA_S_S_S_S_S_S_I:
            return Call(this, Operation<int, S, S, S, S, S, S, int>(&I::WriteBigData), data);
        case MONITOR_SET_FORCE_USE:
            return Call(this, Operation<int, int>(&I::MonitorSetForceUse), data);
        case MONITOR_BROADCAST_STREAM:
            return Call(this, Operation<int, int>(&I::MonitorBroadcastStream), data);
        case MONITOR_BROADCAST_DEVICE:
            return Call(this, Operation<unsigned int>(&I::MonitorBroadcastDevice), data);
        case MONITOR_VOLUME_INDEX:
            return Call(this, Operation<int, int, int>(&I::MonitorVolumeIndex), data);
        case MONITOR_PLAYING_APP:
            return Call(this, Operation<S>(&I::MonitorPlayingApp), data);
    }
    return UNKNOWN_TRANSACTION;
}

}  // namespace android
