// The entry points of exceptions, log messages, big-data file messages and
// KPIs, the forced send, the dump, and the caller check they share.
#define LOG_TAG "Vymedia_monitor"

#include "service/VyMediaMonitorService.h"

#include <algorithm>
#include <iterator>

#include <binder/IPCThreadState.h>
#include <binder/PermissionCache.h>
#include <log/log.h>
#include <private/android_filesystem_config.h>

#include "service/CallerOutput.h"

namespace android {

namespace {

// What the host's Binder runtime sends ahead of a client's next call: the
// one-way calls that the client refused before sending them, as an int32.
// Never sent on a device.
constexpr uint32_t kDroppedCallsTransaction = B_PACK_CHARS('_', 'D', 'R', 'P');

// Uids AID_AUDIO to AID_MEDIA_CODEC, one bit each from AID_AUDIO upwards.
constexpr uint32_t kFirstAllowedUid = AID_AUDIO;
constexpr uint32_t kAllowedUidSpan = 42;
constexpr uint64_t UidBit(uint32_t uid) { return uint64_t{1} << (uid - kFirstAllowedUid); }
constexpr uint64_t kAllowedUids = UidBit(AID_AUDIO) | UidBit(AID_CAMERA) | UidBit(AID_MEDIA) |
                                  UidBit(AID_MEDIA_DRM) | UidBit(AID_MEDIA_EX) |
                                  UidBit(AID_MEDIA_CODEC);
static_assert(AID_MEDIA_CODEC - kFirstAllowedUid < kAllowedUidSpan);

// A plain log message of this type goes straight to the exception log writer.
constexpr int kDirectLogType = 9;
// A big-data file type with a bad flag goes by its range: to the flow file
// from the first flow type, to the count file from the first count type.
constexpr int kFirstFlowType = 10000;
constexpr int kFirstCountType = 20000;

// One attempt that never waits: for the short answers that need no dump slot.
void WriteLineToCaller(int fd, const String8& line) {
    WriteToCaller(fd, line.string(), line.length(), 0);
}

bool IsAudioLossReport(const String8& reason) { return reason == "MUTE" || reason == "LOW"; }

// Whether a "MUTE" or "LOW" report fits the audio state: an output device is
// selected, and a "MUTE" of a non-zero sub-type still has the volume of
// source 6 up on one of the selected devices.
bool FitsAudioState(const String8& reason, int subType, uint32_t device,
                    const char* device2Volumes, const char* device1Volumes) {
    constexpr uint32_t kDevice1 = 1;
    constexpr uint32_t kDevice2 = 2;
    constexpr int kCheckedVolume = 6 - 1;  // the index of source 6
    if ((device & (kDevice1 | kDevice2)) == 0) {
        return false;
    }
    if (reason != "MUTE" || subType == 0) {
        return true;
    }
    return ((device & kDevice2) != 0 && device2Volumes[kCheckedVolume] != '0') ||
           ((device & kDevice1) != 0 && device1Volumes[kCheckedVolume] != '0');
}

}  // namespace

bool VyMediaMonitorService::CheckUid(int uid) {
    // Unsigned, so that uids below the first wrap far above the span.
    const uint32_t offset = static_cast<uint32_t>(uid) - kFirstAllowedUid;
    return offset < kAllowedUidSpan && ((kAllowedUids >> offset) & 1) != 0;
}

bool VyMediaMonitorService::IsCallerAllowed(uint32_t code) {
    const IPCThreadState* ipc = IPCThreadState::self();
    const int uid = static_cast<int>(ipc->getCallingUid());
    if (CheckUid(uid)) {
        return true;
    }
    mCallCounters.Refused(code - FIRST_CALL_TRANSACTION, uid, ipc->getCallingPid());
    ALOG_LIMITED(mDenialLog, ANDROID_LOG_INFO,
                 "Permission Denial: can't %s VyMediaMonitorService from pid=%d, uid=%d\n",
                 vymm::Operations()[code - FIRST_CALL_TRANSACTION].name, ipc->getCallingPid(),
                 uid);
    return false;
}

String8 VyMediaMonitorService::ToString8(const char* text) {
    if (text == nullptr) {
        ALOG_LIMITED(mNullTextLog, ANDROID_LOG_ERROR,
                     "INVALID OPERATION: null pointer dereference");
        return String8();
    }
    return String8(text);
}

void VyMediaMonitorService::QueueEvent(const sp<LogSrvEvent>& event) {
    Mutex::Autolock lock(mLock);
    SendLogEventLogSrv(event);
}

void VyMediaMonitorService::ForceLogSend(int type) {
    if (!Admit(FORCE_LOG_SEND, type)) {
        return;
    }
    QueueEvent(new LogSrvEvent(EVENT_FORCE_SEND, type, -1, String8(), false));
}

void VyMediaMonitorService::WriteLogMsg(int prior, int type, const char* msg) {
    if (!Admit(WRITE_LOG_MSG_TYPED, prior, type, msg)) {
        return;
    }
    const String8 text = ToString8(msg);
    if (type == kDirectLogType && mExceptionLogWriter != nullptr) {
        Mutex::Autolock lock(mLock);
        mExceptionLogWriter->WriteLogMsg(prior, type, text);
        // The worker journals it: this thread never waits for a file.
        if (mPersistence != nullptr && mLogSendThread != nullptr) {
            mLogSendThread->Nudge();
        }
        return;
    }
    QueueEvent(new LogSrvEvent(EVENT_LOG_MSG, prior, type, text, false));
}

void VyMediaMonitorService::WriteMediaBigData(int pid, int type, const char* msg) {
    if (!Admit(WRITE_MEDIA_BIG_DATA, pid, type, msg)) {
        return;
    }
    const String8 text = ToString8(msg);
    Mutex::Autolock lock(mLock);
    if (CheckFlagSendLogEventLogSrv(pid, type, text) || type < kFirstFlowType) {
        return;
    }
    const EventType fileType = type < kFirstCountType ? EVENT_BD_FLOW_MSG : EVENT_BD_COUNT_MSG;
    SendLogEventLogSrv(new LogSrvEvent(fileType, pid, type, text, true));
}

bool VyMediaMonitorService::CheckFlagSendLogEventLogSrv(int pid, int type, String8 msg) {
    // By flag 1, 2 and 3.
    constexpr EventType kFileEvents[] = {EVENT_BD_FLOW_MSG, EVENT_BD_COUNT_MSG,
                                         EVENT_BD_FLOW_COUNT_MSG};
    const ssize_t index = mStaticTypeFlags.indexOfKey(type);
    if (index < 0) {
        return true;  // unregistered types are dropped without a word
    }
    const uint32_t flag = static_cast<uint32_t>(mStaticTypeFlags.valueAt(index));
    if (flag - 1 >= std::size(kFileEvents)) {
        if (mDebuggable) {
            ALOGD("bad flag used for bigdata type: %d", type);
        }
        return false;
    }
    SendLogEventLogSrv(new LogSrvEvent(kFileEvents[flag - 1], pid, type, msg, true));
    return true;
}

void VyMediaMonitorService::WriteLogMsg(int eventId, int eventLevel, int subType,
                                        const String8& reason, const String8& callingApp) {
    Capture(WRITE_LOG_MSG_EVENT, eventId, eventLevel, subType, reason, callingApp);
    const sp<LogSrvEvent> event =
            new ExceptionEvent(EVENT_EXCEPTION, IPCThreadState::self()->getCallingPid(), eventId,
                               eventLevel, subType, reason, callingApp);
    Mutex::Autolock lock(mLock);
    if (IsAudioLossReport(reason)) {
        {
            Mutex::Autolock stateLock(mAudioStateLock);
            // One report per playing application, with the audio state it
            // happened in sent ahead of it.
            if (!FitsAudioState(reason, subType, mDevice, mVolumeDevice2, mVolumeDevice1) ||
                mPlayingApp == mLastFlushedApp) {
                mCallCounters.DroppedByAudioFilter();
                ALOG_LIMITED(mFilterLog, ANDROID_LOG_INFO,
                             "%s report of event %d dropped: the audio state does not call for it",
                             reason.c_str(), eventId);
                return;
            }
            mLastFlushedApp = mPlayingApp;
        }
        ALOGI("VyMediaMonitorService::WriteLogMsg SendCacheEvent");
        GetActiveStream();
        SendCacheEvent();
    }
    SendLogEventLogSrv(event);
}

void VyMediaMonitorService::WriteLogMsg(int eventId, int eventLevel, int subType,
                                        const String8& reason, const String8& callingApp,
                                        int paraInt, const String8& paraChar,
                                        int associatedEventId) {
    Capture(WRITE_LOG_MSG_EVENT_PARAMS, eventId, eventLevel, subType, reason, callingApp, paraInt,
            paraChar, associatedEventId);
    QueueEvent(new ExceptionEvent(EVENT_EXCEPTION_EXT, IPCThreadState::self()->getCallingPid(),
                                  eventId, eventLevel, subType, reason, callingApp, paraInt,
                                  paraChar, associatedEventId));
}

void VyMediaMonitorService::WriteKpis(const String8& kpis) {
    Capture(WRITE_KPIS, kpis);
    QueueEvent(new KpiEvent(EVENT_KPI, kpis));
}

status_t VyMediaMonitorService::Dump(int fd, const Vector<String16>& args) {
    if (!mDebuggable) {
        return NO_ERROR;
    }
    if (fd < 0) {
        ALOGW("VyMediaMonitorService Dump fd is invalid");
        return NO_ERROR;
    }
    // Built once and never destroyed, so that a dump during exit finds it.
    static const String16* const kDumpPermission = new String16("android.permission.DUMP");
    const IPCThreadState* ipc = IPCThreadState::self();
    if (ipc->getCallingUid() != AID_MEDIA &&
        !PermissionCache::checkCallingPermission(*kDumpPermission)) {
        WriteLineToCaller(fd, String8::format("Permission Denial: can't Dump mediaMonitor from "
                                              "pid=%d, uid=%d\n",
                                              ipc->getCallingPid(),
                                              static_cast<int>(ipc->getCallingUid())));
        return NO_ERROR;
    }
    const int slot = mDumpSlots.Take(ipc->getCallingUid());
    if (slot < 0) {
        mCallCounters.DumpBusy();
        WriteLineToCaller(fd, String8("Dump busy: a dump of this caller, or as many as allowed, "
                                      "is running; try again\n"));
        return NO_ERROR;
    }
    WriteDump(fd, RenderDumpFor(args));
    mDumpSlots.Give(slot);
    return NO_ERROR;
}

String8 VyMediaMonitorService::RenderDump() {
    const sp<MediaLogBase> writers[] = {mExceptionLogWriter, mBDFlowWriter, mBDCountWriter,
                                        mExceptionWriter,    mKpiWriter,    mBigDataWriter};
    String8 text;
    for (const sp<MediaLogBase>& writer : writers) {
        if (writer != nullptr) {
            text.append(writer->DumpText());
        }
    }
    return text;
}

void VyMediaMonitorService::WriteDump(int fd, const String8& text) {
    const size_t written = WriteToCaller(fd, text.string(), text.length(), DUMP_TIMEOUT);
    if (written < text.length()) {
        mCallCounters.DumpGivenUp();
        ALOG_LIMITED(mDumpLog, ANDROID_LOG_WARN,
                     "Dump given up: the caller took %zu of %zu bytes within %d s", written,
                     text.length(), static_cast<int>(nanoseconds_to_seconds(DUMP_TIMEOUT)));
    }
}

status_t VyMediaMonitorService::dump(int fd, const Vector<String16>& args) {
    return Dump(fd, args);
}

status_t VyMediaMonitorService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                           uint32_t flags) {
    if (code == kDroppedCallsTransaction) {
        const int32_t calls = data.readInt32();
        mCallCounters.DroppedBeforeSending(IPCThreadState::self()->getCallingUid(),
                                           static_cast<uint64_t>(std::max(calls, 0)));
        return NO_ERROR;
    }
    if (code >= FORCE_LOG_SEND && code <= LAST_OPERATION) {
        mCallCounters.Called(code - FORCE_LOG_SEND);
    }
    return BnVyMediaMonitorService::onTransact(code, data, reply, flags);
}

}  // namespace android
