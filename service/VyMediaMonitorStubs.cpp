// Placeholder bodies of the entry points until they land.
#include "service/VyMediaMonitorService.h"

namespace android {

using Service = VyMediaMonitorService;

void Service::ForceLogSend(int) {}
void Service::WriteLogMsg(int, int, const char*) {}
void Service::WriteMediaBigData(int, int, const char*) {}
void Service::WriteLogMsg(int, int, int, const String8&, const String8&) {}
void Service::WriteLogMsg(int, int, int, const String8&, const String8&, int, const String8&,
                          int) {}
void Service::WriteKpis(const String8&) {}
void Service::WriteBigData(int, const char*, int, int) {}
void Service::WriteBigData(int, const char*, const char*, int, int) {}
void Service::WriteBigData(int, const char*, const char*, int) {}
void Service::WriteBigData(int, const char*, int, int, int) {}
void Service::WriteBigData(int, const char*, const char*, const char*) {}
void Service::WriteBigData(int, const char*, const char*, const char*, int) {}
void Service::WriteBigData(int, const char*, int, int, int, int) {}
void Service::WriteBigData(int, const char*, const char*, const char*, const char*, int, int,
                           int) {}
void Service::WriteBigData(int, const char*, const char*, const char*, const char*, const char*,
                           int) {}
void Service::WriteBigData(int, const char*, const char*, const char*, const char*, const char*,
                           const char*, int) {}
void Service::MonitorSetForceUse(int, int) {}
void Service::MonitorBroadcastStream(int, int) {}
void Service::MonitorBroadcastDevice(unsigned int) {}
void Service::MonitorVolumeIndex(int, int, int) {}
void Service::MonitorPlayingApp(const char*) {}
void Service::WriteBigData(int, const char*, const char*, const char*, const char*) {}
void Service::SendVolumeCacheEvent(int) {}
void Service::SendCacheEvent() {}
status_t Service::Dump(int, const Vector<String16>&) { return NO_ERROR; }
void Service::GetActiveStream() {}
void Service::WritePlayingStatus() {}
void Service::SendCacheEventSingle(const sp<BigDataEvent>&) {}
status_t Service::dump(int fd, const Vector<String16>& args) { return Dump(fd, args); }
status_t Service::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    return BnVyMediaMonitorService::onTransact(code, data, reply, flags);
}

}  // namespace android
