// Dispatch, on the send thread: event type -> route -> writer call. A route
// whose writer start-up did not create does nothing.
#define LOG_TAG "Vymedia_monitor"
#define ATRACE_TAG ATRACE_TAG_AUDIO

#include "service/VyMediaMonitorService.h"

#include <algorithm>
#include <iterator>

#include <log/log.h>
#include <utils/Trace.h>

namespace android {

using Service = VyMediaMonitorService;
using Event = sp<Service::LogSrvEvent>;

namespace {

void Invoke(Service* service, void (Service::*route)(const Event&), const Event& event) {
    (service->*route)(event);
}

void Invoke(Service* service, void (Service::*route)(), const Event& /*event*/) {
    (service->*route)();
}

// Takes the routes in order.
template <auto... routes>
void Take(Service* service, const Event& event) {
    (Invoke(service, routes, event), ...);
}

struct Route {
    int32_t type;
    void (*take)(Service*, const Event&);
};

// Served by OnSrvEvent itself.
constexpr Route kOwnRoutes[] = {
        {Service::EVENT_LOG_MSG, Take<&Service::WriteExceptionLog>},
        {Service::EVENT_BD_FLOW_MSG, Take<&Service::WriteBDFlowLog>},
        {Service::EVENT_BD_COUNT_MSG, Take<&Service::WriteBDCountLog>},
        {Service::EVENT_BD_FLOW_COUNT_MSG,
         Take<&Service::WriteBDFlowLog, &Service::WriteBDCountLog>},
        {Service::EVENT_BD_WRITE_FILES, Take<&Service::WriteBDLogAllToFile>},
        {Service::EVENT_EXCEPTION, Take<&Service::WriteExceptionString>},
        {Service::EVENT_FORCE_SEND, Take<&Service::AllWriterDoSendLog>},
};

// Served by OnSrvEventOther.
constexpr Route kOtherRoutes[] = {
        {Service::EVENT_WRITE_CHECK, Take<&Service::DoWriteCheck>},
        {Service::EVENT_EXCEPTION_EXT, Take<&Service::WriteExceptionLong>},
        {Service::EVENT_KPI, Take<&Service::WriteKpisLog>},
        {Service::EVENT_BIGDATA, Take<&Service::WriteBigDataLog>},
        {Service::EVENT_BIGDATA_STRING, Take<&Service::WriteBigDataStringLog>},
        {Service::EVENT_BIGDATA_OUTPUT_DEVICE, Take<&Service::WriteBigDataOutPutDeviceLog>},
        {Service::EVENT_BIGDATA_PKG, Take<&Service::WriteBigDataPkgLog>},
        {Service::EVENT_BIGDATA_PKG_TYPE, Take<&Service::WriteBigDataPkgTypeLog>},
        {Service::EVENT_BIGDATA_PLAY_STATUS, Take<&Service::WriteBigDataPlayStatusLog>},
        {Service::EVENT_BIGDATA_RECORDING, Take<&Service::WriteBigDataPara4RecordingLog>},
        {Service::EVENT_BIGDATA_DUAL_BLUETOOTH, Take<&Service::WriteBigDataDualBluetoothLog>},
        {Service::EVENT_VIDEO_BIGDATA, Take<&Service::WriteVideoBigData>},
        {Service::EVENT_VIDEO_CODEC_ERROR, Take<&Service::WriteMediaCodecErrorBigData>},
        {Service::EVENT_VIDEO_CATON_VAGUE, Take<&Service::WriteMediaCatonVagueBigData>},
};

template <size_t N>
const Route* FindRoute(const Route (&routes)[N], int32_t type) {
    const Route* route = std::find_if(std::begin(routes), std::end(routes),
                                      [type](const Route& r) { return r.type == type; });
    return route != std::end(routes) ? route : nullptr;
}

// Events of a route's type are built only as its class.
template <typename T>
const T& As(const Event& event) {
    return static_cast<const T&>(*event);
}

}  // namespace

void Service::OnSrvEvent(const Event& event) {
    if (event == nullptr) {
        return;
    }
    Mutex::Autolock lock(mDispatchLock);
    if (const Route* route = FindRoute(kOwnRoutes, event->type)) {
        route->take(this, event);
    } else {
        OnSrvEventOther(event);
    }
}

void Service::OnSrvEventOther(const Event& event) {
    if (const Route* route = FindRoute(kOtherRoutes, event->type)) {
        route->take(this, event);
    } else if (mDebuggable) {
        ALOGE("OnSrvEvent unknown event type %d", event->type);
    }
}

void Service::WriteExceptionLog(const Event& event) {
    if (mExceptionLogWriter != nullptr) {
        mExceptionLogWriter->WriteLogMsg(event->prior, event->subType, event->msg);
    }
}

void Service::WriteBDFlowLog(const Event& event) {
    if (mBDFlowWriter != nullptr) {
        mBDFlowWriter->WriteBigDataMsg(event->pid, event->subType, event->msg);
    }
}

void Service::WriteBDCountLog(const Event& event) {
    if (mBDCountWriter != nullptr) {
        mBDCountWriter->WriteBigDataMsg(event->pid, event->subType);
    }
}

void Service::WriteBDLogAllToFile() {
    if (mBDFlowWriter != nullptr) {
        mBDFlowWriter->FlushToFile();
    }
    if (mBDCountWriter != nullptr) {
        mBDCountWriter->FlushToFile();
    }
}

void Service::DoWriteCheck() {
    if (mExceptionWriter != nullptr) {
        mExceptionWriter->TriggerLog();
    }
    if (mKpiWriter != nullptr) {
        mKpiWriter->TriggerLog();
    }
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->TriggerLog();
    }
}

void Service::WriteExceptionString(const Event& event) {
    const auto& e = As<ExceptionEvent>(event);
    if (mExceptionWriter != nullptr) {
        mExceptionWriter->WriteException(e.pid, e.eventId, e.eventLevel, e.subType, e.reason,
                                         e.callingApp);
    }
}

void Service::WriteExceptionLong(const Event& event) {
    const auto& e = As<ExceptionEvent>(event);
    if (mExceptionWriter != nullptr) {
        mExceptionWriter->WriteException(e.pid, e.eventId, e.eventLevel, e.subType, e.reason,
                                         e.callingApp, e.paraInt, e.paraChar, e.associatedEventId);
    }
}

void Service::WriteKpisLog(const Event& event) {
    if (mKpiWriter != nullptr) {
        mKpiWriter->WriteKpis(As<KpiEvent>(event).kpis);
    }
}

void Service::AllWriterDoSendLog() {
    ATRACE_NAME("Vymedia.monitor forced upload");
    // The file writers flush through their own upload step, the others
    // send what they hold.
    if (mExceptionLogWriter != nullptr) {
        mExceptionLogWriter->SendMediaLog();
    }
    if (mBDFlowWriter != nullptr) {
        mBDFlowWriter->SendMediaLog();
    }
    if (mBDCountWriter != nullptr) {
        mBDCountWriter->SendMediaLog();
    }
    if (mExceptionWriter != nullptr) {
        mExceptionWriter->SendMediaLog();
    }
    if (mKpiWriter != nullptr) {
        mKpiWriter->SendMediaLog();
    }
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->SendMediaLog();
    }
}

void Service::WriteBigDataLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigData(e.eventId, e.subType, e.ext1, e.ext2);
    }
}

void Service::WriteBigDataStringLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataString(e.eventId, e.subType, e.extStr, e.ext2);
    }
}

void Service::WriteBigDataOutPutDeviceLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataForOutputDevice(e.eventId, e.subType, e.pkgName, e.ext1,
                                                    e.ext2);
    }
}

void Service::WriteBigDataPkgLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataPkg(e.eventId, e.subType, e.pkgName, e.param);
    }
}

void Service::WriteBigDataPkgTypeLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataPkgType(e.eventId, e.subType, e.pkgName, e.param, e.para1);
    }
}

void Service::WriteBigDataPlayStatusLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataPlayStatus(e.eventId, e.subType, e.pkgName, e.extStr2, e.param);
    }
}

void Service::WriteBigDataPara4RecordingLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigData(e.eventId, e.pkgName, e.para1, e.para2, e.para3, e.para4);
    }
}

void Service::WriteBigDataDualBluetoothLog(const Event& event) {
    const auto& e = As<BigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteBigDataForDualBluetooth(e.eventId, e.pkgName, e.para2, e.para3,
                                                     e.para4);
    }
}

void Service::WriteVideoBigData(const Event& event) {
    const auto& e = As<VideoBigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        // The writer takes its texts by reference: hand it copies.
        String8 s1(e.str1), s2(e.str2), s3(e.str3), s4(e.str4);
        mBigDataWriter->WriteVideoBigData(e.eventId, s1, s2, s3, s4, e.int1, e.int2, e.int3);
    }
}

void Service::WriteMediaCodecErrorBigData(const Event& event) {
    const auto& e = As<VideoMediaCodecErrorBigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteMediaCodecErrorBigData(e.eventId, e.str1, e.str2, e.str3, e.str4,
                                                    e.str5, e.int1);
    }
}

void Service::WriteMediaCatonVagueBigData(const Event& event) {
    const auto& e = As<VideoMediaCatonVagueBigDataEvent>(event);
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->WriteMediaCatonVagueBigData(e.eventId, e.str1, e.str2, e.str3, e.str4,
                                                    e.str5, e.str6, e.int1);
    }
}

}  // namespace android
