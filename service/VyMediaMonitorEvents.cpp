// The service's events: plain carriers of a call's arguments.
#include "service/VyMediaMonitorService.h"

namespace android {

using Service = VyMediaMonitorService;

Service::LogSrvEvent::LogSrvEvent(EventType eventType, int value, int messageType, String8 message,
                                  bool isBigData)
    : type(eventType),
      pid(isBigData ? value : -1),
      prior(isBigData ? -1 : value),
      subType(messageType),
      msg(message) {}

Service::LogSrvEvent::LogSrvEvent(EventType eventType)
    : type(eventType), pid(-1), prior(-1), subType(-1) {}

Service::ExceptionEvent::ExceptionEvent(EventType eventType, int callerPid, int id, int level,
                                        int sub, String8 why, String8 app)
    : ExceptionEvent(eventType, callerPid, id, level, sub, why, app, -1, String8(), -1) {}

Service::ExceptionEvent::ExceptionEvent(EventType eventType, int callerPid, int id, int level,
                                        int sub, String8 why, String8 app, int extraInt,
                                        String8 extraText, int associatedId)
    : LogSrvEvent(eventType),
      pid(callerPid),
      eventId(id),
      eventLevel(level),
      subType(sub),
      reason(why),
      callingApp(app),
      paraInt(extraInt),
      paraChar(extraText),
      associatedEventId(associatedId) {}

Service::KpiEvent::KpiEvent(EventType eventType, const String8& text)
    : LogSrvEvent(eventType), kpis(text) {}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id)
    : LogSrvEvent(eventType), eventId(id) {}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s, int a, int b)
    : BigDataEvent(eventType, id) {
    subType = s;
    ext1 = a;
    ext2 = b;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s1, String8 s2, int b)
    : BigDataEvent(eventType, id) {
    subType = s1;
    extStr = s2;
    ext2 = b;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s1, String8 s2, int a,
                                    int b)
    : BigDataEvent(eventType, id) {
    subType = s1;
    pkgName = s2;
    ext1 = a;
    ext2 = b;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s1, String8 s2, String8 s3)
    : BigDataEvent(eventType, id) {
    subType = s1;
    pkgName = s2;
    param = s3;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s1, String8 s2, String8 s3,
                                    int a)
    : BigDataEvent(eventType, id, s1, s2, s3) {
    para1 = a;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s1, String8 s2, String8 s3,
                                    String8 s4)
    : BigDataEvent(eventType, id) {
    subType = s1;
    pkgName = s2;
    extStr2 = s3;
    param = s4;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s, int a, int b, int c,
                                    int d)
    : BigDataEvent(eventType, id, s, b, c, d) {
    para1 = a;
}

Service::BigDataEvent::BigDataEvent(EventType eventType, int id, String8 s, int b, int c, int d)
    : BigDataEvent(eventType, id) {
    pkgName = s;
    para2 = b;
    para3 = c;
    para4 = d;
}

Service::VideoBigDataEvent::VideoBigDataEvent(int id, String8 s1, String8 s2, String8 s3,
                                              String8 s4, int i1, int i2, int i3)
    : LogSrvEvent(EVENT_VIDEO_BIGDATA),
      eventId(id),
      str1(s1),
      str2(s2),
      str3(s3),
      str4(s4),
      int1(i1),
      int2(i2),
      int3(i3) {}

Service::VideoMediaCodecErrorBigDataEvent::VideoMediaCodecErrorBigDataEvent(int id, String8 s1,
                                                                            String8 s2, String8 s3,
                                                                            String8 s4, String8 s5,
                                                                            int i1)
    : LogSrvEvent(EVENT_VIDEO_CODEC_ERROR),
      eventId(id),
      str1(s1),
      str2(s2),
      str3(s3),
      str4(s4),
      str5(s5),
      int1(i1) {}

Service::VideoMediaCatonVagueBigDataEvent::VideoMediaCatonVagueBigDataEvent(int id, String8 s1,
                                                                            String8 s2, String8 s3,
                                                                            String8 s4, String8 s5,
                                                                            String8 s6, int i1)
    : LogSrvEvent(EVENT_VIDEO_CATON_VAGUE),
      eventId(id),
      str1(s1),
      str2(s2),
      str3(s3),
      str4(s4),
      str5(s5),
      str6(s6),
      int1(i1) {}

}  // namespace android
