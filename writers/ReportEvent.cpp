#include "writers/ReportEvent.h"

namespace android {

ReportEvent::ReportEvent(int eventId)
    : mObj(VexelProxy::VexelCreateEventObj(static_cast<unsigned int>(eventId))) {}

ReportEvent::~ReportEvent() {
    if (mObj != nullptr) {
        VexelProxy::VexelDestroyEventObj(mObj);
    }
}

void ReportEvent::SetInt(const char* name, long value) {
    if (mObj != nullptr) {
        VexelProxy::VexelSetParamIntegerV2(mObj, name, value);
    }
}

void ReportEvent::SetString(const char* name, const String8& value) {
    if (mObj != nullptr) {
        VexelProxy::VexelSetParamStringV2(mObj, name, value.string());
    }
}

void ReportEvent::SetStringIfAny(const char* name, const String8& value) {
    if (!value.isEmpty()) {
        SetString(name, value);
    }
}

void ReportEvent::Send() {
    if (mObj != nullptr) {
        VexelProxy::VexelSendEvent(mObj);
    }
}

}  // namespace android
