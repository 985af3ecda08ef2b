// The remote interface of the media monitor service, "Vymedia.monitor": the
// 21 operations in their fixed order, the proxy that marshals them and the
// stub that unmarshals them for the service. Operations return nothing but
// the status of their transaction, which the proxy logs when it fails.
//
// Every integer travels as 32 bits; a C string travels with a presence
// marker, so that a null pointer reaches the service as null.
#ifndef VYMM_CLIENT_IVYMEDIAMONITORSERVICE_H
#define VYMM_CLIENT_IVYMEDIAMONITORSERVICE_H

#include <stdint.h>

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/String8.h>

namespace android {

class IVyMediaMonitorService : public IInterface {
public:
    DECLARE_META_INTERFACE(VyMediaMonitorService)

    // Transaction codes: FIRST_CALL_TRANSACTION plus the position minus one.
    enum {
        FORCE_LOG_SEND = IBinder::FIRST_CALL_TRANSACTION,
        WRITE_LOG_MSG_TYPED,
        WRITE_MEDIA_BIG_DATA,
        WRITE_LOG_MSG_EVENT,
        WRITE_LOG_MSG_EVENT_PARAMS,
        WRITE_KPIS,
        WRITE_BIG_DATA_S_I_I,
        WRITE_BIG_DATA_S_S_I_I,
        WRITE_BIG_DATA_S_S_I,
        WRITE_BIG_DATA_S_I_I_I,
        WRITE_BIG_DATA_S_S_S,
        WRITE_BIG_DATA_S_S_S_I,
        WRITE_BIG_DATA_S_I_I_I_I,
        WRITE_BIG_DATA_S_S_S_S_I_I_I,
        WRITE_BIG_DATA_S_S_S_S_S_I,
        WRITE_BIG_DATA_S_S_S_S_S_S_I,
        MONITOR_SET_FORCE_USE,
        MONITOR_BROADCAST_STREAM,
        MONITOR_BROADCAST_DEVICE,
        MONITOR_VOLUME_INDEX,
        MONITOR_PLAYING_APP,
        LAST_OPERATION = MONITOR_PLAYING_APP,
    };

    virtual void ForceLogSend(int type) = 0;
    virtual void WriteLogMsg(int prior, int type, const char* msg) = 0;
    virtual void WriteMediaBigData(int pid, int type, const char* msg) = 0;
    virtual void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                             const String8& callingApp) = 0;
    virtual void WriteLogMsg(int eventId, int eventLevel, int subType, const String8& reason,
                             const String8& callingApp, int paraInt, const String8& paraChar,
                             int associatedEventId) = 0;
    virtual void WriteKpis(const String8& kpis) = 0;
    virtual void WriteBigData(int eventId, const char* s1, int i1, int i2) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, int i1, int i2) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, int i1) = 0;
    virtual void WriteBigData(int eventId, const char* s1, int i1, int i2, int i3) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                              int i1) = 0;
    virtual void WriteBigData(int eventId, const char* s1, int i1, int i2, int i3, int i4) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                              const char* s4, int i1, int i2, int i3) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                              const char* s4, const char* s5, int i1) = 0;
    virtual void WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                              const char* s4, const char* s5, const char* s6, int i1) = 0;
    virtual void MonitorSetForceUse(int usage, int config) = 0;
    virtual void MonitorBroadcastStream(int state, int stream) = 0;
    virtual void MonitorBroadcastDevice(unsigned int device) = 0;
    virtual void MonitorVolumeIndex(int source, int index, int device) = 0;
    virtual void MonitorPlayingApp(const char* app) = 0;
};

// The service side: onTransact checks the interface token, unmarshals the
// arguments and calls the operation on the calling pool thread. A
// transaction that does not unmarshal cleanly calls nothing and is answered
// with an error: PERMISSION_DENIED for a wrong token, BAD_VALUE for short or
// malformed arguments.
class BnVyMediaMonitorService : public BnInterface<IVyMediaMonitorService> {
public:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags = 0) override;
};

}  // namespace android

#endif
