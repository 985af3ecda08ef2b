// The audio state the framework reports, its play-status statistic, and the
// flush of the cached audio statistics that goes ahead of an audio exception.
#define LOG_TAG "Vymedia_monitor"

#include "service/VyMediaMonitorService.h"

#include <string.h>

#include <bounds_checked.h>
#include <log/log.h>

#include "service/BigDataEventIds.h"

namespace android {

namespace {

constexpr int kStreams = 14;  // each has a bit of the stream word
constexpr int kStatusSize = 64;
// Device-word bit that selects the device-2 volumes, else device 1's.
constexpr uint32_t kDevice2 = 2;
constexpr int kForceUseHigh = 0;  // the usage kept in the high half
constexpr int kForceUseLow = 1;

}  // namespace

void VyMediaMonitorService::MonitorSetForceUse(int usage, int config) {
    // Added, not masked, into its half: a large config spills over.
    const uint32_t value = static_cast<uint32_t>(config);
    {
        Mutex::Autolock lock(mAudioStateLock);
        if (usage == kForceUseHigh) {
            mForceUse = (mForceUse & 0xffff) + (value << 16);
        } else if (usage == kForceUseLow) {
            mForceUse = value + ((mForceUse >> 16) << 16);
        } else {
            return;
        }
    }
    WritePlayingStatus();
}

void VyMediaMonitorService::MonitorBroadcastStream(int state, int stream) {
    const uint32_t bit = static_cast<uint32_t>(stream);
    if (bit >= kStreams || (state != 0 && state != 1)) {
        return;
    }
    {
        Mutex::Autolock lock(mAudioStateLock);
        if (state == 1) {
            mActiveStreams |= 1u << bit;
        } else {
            mActiveStreams &= ~(1u << bit);
        }
    }
    WritePlayingStatus();
}

void VyMediaMonitorService::MonitorBroadcastDevice(unsigned int device) {
    {
        Mutex::Autolock lock(mAudioStateLock);
        mDevice = device;
    }
    WritePlayingStatus();
}

void VyMediaMonitorService::MonitorVolumeIndex(int source, int index, int device) {
    if (source < 1 || source > VOLUME_SOURCES) {
        ALOG_LIMITED(mRefusalLog, ANDROID_LOG_ERROR, "invalid volume source");
        return;
    }
    // Any index is kept as the one character '0' + index, cut to a byte.
    const char digit = static_cast<char>('0' + static_cast<unsigned>(index));
    {
        Mutex::Autolock lock(mAudioStateLock);
        if (device == 1) {
            mVolumeDevice1[source - 1] = digit;
        } else if (device == 2) {
            mVolumeDevice2[source - 1] = digit;
        }
    }
    WritePlayingStatus();
}

void VyMediaMonitorService::MonitorPlayingApp(const char* app) {
    const String8 name = ToString8(app);
    {
        Mutex::Autolock lock(mAudioStateLock);
        mPlayingApp = name;
    }
    WritePlayingStatus();
}

void VyMediaMonitorService::WritePlayingStatus() {
    uint32_t forceUse;
    uint32_t streams;
    uint32_t device;
    char volumes[VOLUME_SOURCES + 1];
    String8 app;
    {
        Mutex::Autolock lock(mAudioStateLock);
        forceUse = mForceUse;
        streams = mActiveStreams;
        device = mDevice;
        memcpy(volumes, (device & kDevice2) != 0 ? mVolumeDevice2 : mVolumeDevice1,
               sizeof(volumes));
        app = mPlayingApp;
    }
    char status[kStatusSize] = {};
    if (snprintf_s(status, sizeof(status), sizeof(status) - 1, "F:%u S:%u D:%u", forceUse, streams,
                   device) == -1) {
        ALOGE("WritePlayingStatus snprintf_s fail!");
        return;
    }
    WriteBigData(BIGDATA_ID_PLAY_STATUS, "PLAYING_STATUS", app.c_str(), volumes, status);
}

void VyMediaMonitorService::GetActiveStream() {
    uint32_t streams;
    {
        Mutex::Autolock lock(mAudioStateLock);
        streams = mActiveStreams;
    }
    for (int stream = 0; stream < kStreams; ++stream) {
        if ((streams & (1u << stream)) != 0) {
            SendVolumeCacheEvent(stream);
        }
    }
}

void VyMediaMonitorService::SendVolumeCacheEvent(int stream) {
    if (static_cast<uint32_t>(stream) >= STREAM_VOLUME_SLOTS) {
        ALOGE("Invalid stream type, stop sending BigDataEventStreamVolume");
        return;
    }
    SendCacheEventSingle(mStreamVolumeEvents[stream]);
}

void VyMediaMonitorService::SendCacheEvent() {
    // 916600002 to 916600007, the usages of 916600007, the play status, then
    // 916600008.
    for (int id = BIGDATA_ID_FIRST_PKG; id <= BIGDATA_ID_USAGE; ++id) {
        SendCacheEventSingle(mPkgEvents[id - BIGDATA_ID_FIRST_PKG]);
    }
    for (const sp<BigDataEvent>& usage : mUsageEvents) {
        SendCacheEventSingle(usage);
    }
    SendCacheEventSingle(mPlayStatusEvent);
    SendCacheEventSingle(mPkgEvents[BIGDATA_ID_LAST_PKG - BIGDATA_ID_FIRST_PKG]);
}

void VyMediaMonitorService::SendCacheEventSingle(const sp<BigDataEvent>& event) {
    if (event == nullptr) {
        ALOGW("BigDataEvent is nullptr, stop sending");
        return;
    }
    SendLogEventLogSrv(event);
}

}  // namespace android
