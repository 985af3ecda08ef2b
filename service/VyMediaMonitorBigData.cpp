// The big-data entry points: each call becomes one statistic, queued at once
// or, for the audio ids, kept in its cache slot until the next flush.
#define LOG_TAG "Vymedia_monitor"

#include "service/VyMediaMonitorService.h"

#include <log/log.h>

#include "service/BigDataEventIds.h"

namespace android {

namespace {

constexpr char kUnknownType[] = "Unknown bigdata type, stop saving";

// Row 12's id that is queued whatever its number.
constexpr int32_t kQueuedPkgTypeId = 916000000;
// The three-string ids queued at once, besides the cached ones.
constexpr int32_t kQueuedPkgIds[] = {916600010, 916600011, 916600038, 916600039, 990971022};

// A held statistic is sent by a call with this as its second number.
constexpr int kSendHeld = 1;
// Usages past the slots up to this one are only warned about.
constexpr uint32_t kLastWarnedUsage = 9;

bool IsPkgSlotId(int eventId) {
    return eventId >= BIGDATA_ID_FIRST_PKG && eventId <= BIGDATA_ID_LAST_PKG;
}

bool IsQueuedPkgId(int eventId) {
    for (const int32_t id : kQueuedPkgIds) {
        if (eventId == id) {
            return true;
        }
    }
    return false;
}

// The two widest video calls take no null rule and log nothing, but a null
// must not reach String8, which would crash on it.
String8 CopyOrEmpty(const char* text) { return text != nullptr ? String8(text) : String8(); }

}  // namespace

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, int i1, int i2) {
    if (eventId == BIGDATA_ID_HELD && i2 == kSendHeld) {
        Mutex::Autolock lock(mLock);
        SendCacheEventSingle(mHeldEvent);
        return;
    }
    const sp<BigDataEvent> event = new BigDataEvent(EVENT_BIGDATA, eventId, ToString8(s1), i1, i2);
    if (eventId != BIGDATA_ID_HELD) {
        QueueEvent(event);
        return;
    }
    Mutex::Autolock lock(mLock);
    mHeldEvent = event;
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2, int i1,
                                         int i2) {
    QueueEvent(new BigDataEvent(EVENT_BIGDATA_OUTPUT_DEVICE, eventId, ToString8(s1),
                                ToString8(s2), i1, i2));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2, int i1) {
    QueueEvent(new BigDataEvent(EVENT_BIGDATA_STRING, eventId, ToString8(s1), ToString8(s2), i1));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, int i1, int i2, int i3) {
    QueueEvent(new BigDataEvent(EVENT_BIGDATA_DUAL_BLUETOOTH, eventId, ToString8(s1), i1, i2,
                                i3));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3) {
    static_assert(BIGDATA_ID_LAST_PKG - BIGDATA_ID_FIRST_PKG + 1 == PKG_SLOTS);
    const bool cached = IsPkgSlotId(eventId);
    if (!cached && !IsQueuedPkgId(eventId)) {
        ALOG_LIMITED(mRefusalLog, ANDROID_LOG_ERROR, "%s", kUnknownType);
        return;
    }
    const sp<BigDataEvent> event = new BigDataEvent(EVENT_BIGDATA_PKG, eventId, ToString8(s1),
                                                    ToString8(s2), ToString8(s3));
    Mutex::Autolock lock(mLock);
    if (cached) {
        mPkgEvents[eventId - BIGDATA_ID_FIRST_PKG] = event;
    } else {
        SendLogEventLogSrv(event);
    }
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3, int i1) {
    // i1 is the usage or the stream; negative ones count as too large.
    const uint32_t index = static_cast<uint32_t>(i1);
    if (eventId == BIGDATA_ID_USAGE && index >= USAGE_SLOTS) {
        ALOG_LIMITED(mRefusalLog, index <= kLastWarnedUsage ? ANDROID_LOG_WARN : ANDROID_LOG_ERROR,
                     "Invalid usage type, stop writing");
        return;
    }
    if (eventId == BIGDATA_ID_STREAM_VOLUME && index >= STREAM_VOLUME_SLOTS) {
        ALOG_LIMITED(mRefusalLog, ANDROID_LOG_ERROR, "Invalid stream type, stop writing");
        return;
    }
    if (eventId != BIGDATA_ID_USAGE && eventId != BIGDATA_ID_STREAM_VOLUME &&
        eventId != kQueuedPkgTypeId) {
        ALOG_LIMITED(mRefusalLog, ANDROID_LOG_ERROR, "%s", kUnknownType);
        return;
    }
    const sp<BigDataEvent> event = new BigDataEvent(EVENT_BIGDATA_PKG_TYPE, eventId,
                                                    ToString8(s1), ToString8(s2), ToString8(s3),
                                                    i1);
    Mutex::Autolock lock(mLock);
    if (eventId == BIGDATA_ID_USAGE) {
        mUsageEvents[index] = event;
    } else if (eventId == BIGDATA_ID_STREAM_VOLUME) {
        mStreamVolumeEvents[index] = event;
    } else {
        SendLogEventLogSrv(event);
    }
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, int i1, int i2, int i3,
                                         int i4) {
    QueueEvent(new BigDataEvent(EVENT_BIGDATA_RECORDING, eventId, ToString8(s1), i1, i2, i3, i4));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3, const char* s4, int i1, int i2, int i3) {
    QueueEvent(new VideoBigDataEvent(eventId, ToString8(s1), ToString8(s2), ToString8(s3),
                                     ToString8(s4), i1, i2, i3));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3, const char* s4, const char* s5,
                                         int i1) {
    QueueEvent(new VideoMediaCodecErrorBigDataEvent(eventId, CopyOrEmpty(s1), CopyOrEmpty(s2),
                                                    CopyOrEmpty(s3), CopyOrEmpty(s4),
                                                    CopyOrEmpty(s5), i1));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3, const char* s4, const char* s5,
                                         const char* s6, int i1) {
    QueueEvent(new VideoMediaCatonVagueBigDataEvent(eventId, CopyOrEmpty(s1), CopyOrEmpty(s2),
                                                    CopyOrEmpty(s3), CopyOrEmpty(s4),
                                                    CopyOrEmpty(s5), CopyOrEmpty(s6), i1));
}

void VyMediaMonitorService::WriteBigData(int eventId, const char* s1, const char* s2,
                                         const char* s3, const char* s4) {
    if (eventId != BIGDATA_ID_PLAY_STATUS) {
        ALOG_LIMITED(mRefusalLog, ANDROID_LOG_ERROR, "%s", kUnknownType);
        return;
    }
    const sp<BigDataEvent> event = new BigDataEvent(EVENT_BIGDATA_PLAY_STATUS, eventId,
                                                    ToString8(s1), ToString8(s2), ToString8(s3),
                                                    ToString8(s4));
    Mutex::Autolock lock(mLock);
    mPlayStatusEvent = event;
}

}  // namespace android
