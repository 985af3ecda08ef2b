// One report event of the reporting library, for the writers' uploads: create
// it for an event id, set named parameters in the order they should appear,
// send it. The event object is destroyed with this object, sent or not.
//
// Not thread-safe, like the proxy below it: use it only from an upload that
// runs under the writer's mutex.
#ifndef VYMM_WRITERS_REPORT_EVENT_H
#define VYMM_WRITERS_REPORT_EVENT_H

#include <utils/String8.h>

#include "report/VexelProxy.h"

namespace android {

class ReportEvent {
public:
    explicit ReportEvent(int eventId);
    ~ReportEvent();
    ReportEvent(const ReportEvent&) = delete;
    ReportEvent& operator=(const ReportEvent&) = delete;

    // False when the library knows no such event or is missing; the setters
    // and Send then do nothing.
    bool IsCreated() const { return mObj != nullptr; }

    void SetInt(const char* name, long value);
    void SetString(const char* name, const String8& value);
    // Sets the parameter only when value is not empty.
    void SetStringIfAny(const char* name, const String8& value);
    void Send();

private:
    VexelEventObj* const mObj;
};

}  // namespace android

#endif
