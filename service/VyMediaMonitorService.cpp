// Start-up and shutdown: which writers exist, the type-flag table, the
// stale record files.
#define LOG_TAG "Vymedia_monitor"
#define ATRACE_TAG ATRACE_TAG_AUDIO

#include "service/VyMediaMonitorService.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <cutils/properties.h>
#include <log/log.h>
#include <utils/Trace.h>

#include "service/ServiceProperties.h"

namespace android {

namespace {

struct TypeFlag {
    int32_t type;
    int32_t flag;  // 1: flow file, 2: count file, 3: both
};

// The big-data file message types that are recorded, and where.
constexpr TypeFlag kStaticTypeFlags[] = {
        {10000, 1}, {20100, 2}, {20101, 2}, {20001, 2}, {20002, 2},
        {20201, 2}, {20202, 2}, {20300, 2}, {20000, 2},
};

constexpr int32_t kMinBigDataType = 10000;

bool IsLoadable(const TypeFlag& entry) {
    return entry.type >= kMinBigDataType && entry.flag >= 1 && entry.flag <= 3;
}

}  // namespace

int32_t ReadIntProperty(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, defaultValue);
    return atoi(value);
}

bool ReadDebuggable() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("ro.media.debuggable", value, "false");
    return strncmp(value, "true", 4) == 0;
}

VyMediaMonitorService::VyMediaMonitorService()
    : mRadar(0), mBDFlow(0), mBDCount(0), mException(0), mKpi(0), mBigData(0), mDebuggable(false) {
    Init();
}

VyMediaMonitorService::~VyMediaMonitorService() {
    DeInit();
}

void VyMediaMonitorService::onLastStrongRef(const void* id) {
    DeInit();
    BnVyMediaMonitorService::onLastStrongRef(id);
}

void VyMediaMonitorService::Init() {
    {
        Mutex::Autolock lock(mAudioStateLock);
        mForceUse = 0;
        mActiveStreams = 0;
        mDevice = 0;
        memset(mVolumeDevice2, '0', VOLUME_SOURCES);
        mVolumeDevice2[VOLUME_SOURCES] = '\0';
        memcpy(mVolumeDevice1, mVolumeDevice2, sizeof(mVolumeDevice1));
    }

    mRadar = ReadIntProperty("ro.media.radar", "1");
    mBDFlow = ReadIntProperty("ro.media.bdflow", "0");
    mBDCount = ReadIntProperty("ro.media.bdcount", "0");
    mDebuggable = ReadDebuggable();
    mException = ReadIntProperty("ro.media.exception", "1");
    mKpi = ReadIntProperty("ro.media.kpi", "1");
    mBigData = ReadIntProperty("ro.media.bigdata", "1");
    mCapture = CallCapture::Create();

    const int32_t switches[] = {mRadar, mBDFlow, mBDCount, mException, mKpi, mBigData};
    bool anyOn = false;
    for (int32_t value : switches) {
        anyOn = anyOn || value == 1;
    }
    if (anyOn) {
        SetupStaticTypeFlags();
        // Taking the strong reference starts the thread.
        mLogSendThread = new LogSendThread(this);
        mPolicy = new MediaMonitorPolicy();
        CreateWriters();
        RecoverWriters();
    }
    CheckLogFiles();
}

void VyMediaMonitorService::RecoverWriters() {
    mPersistence = WriterPersistence::Create();
    if (mPersistence == nullptr) {
        return;
    }
    mPersistence->Recover(AllWriters());
    // A writer whose cycle passed while no service ran is due now.
    DoWriteCheck();
    PersistBatch();
}

void VyMediaMonitorService::PersistBatch() {
    if (mPersistence != nullptr) {
        mPersistence->PersistBatch(AllWriters());
    }
}

void VyMediaMonitorService::CreateWriters() {
    if (mRadar == 1)
        mExceptionLogWriter = new MediaExceptionLogWriter(mPolicy);
    if (mBDFlow == 1)
        mBDFlowWriter = new MediaBDFlowWriter(mPolicy);
    if (mBDCount == 1)
        mBDCountWriter = new MediaBDCountWriter(mPolicy);
    if (mException == 1)
        mExceptionWriter = new MediaExceptionWriter(mPolicy);
    if (mKpi == 1)
        mKpiWriter = new MediaKpiWriter(mPolicy);
    if (mBigData == 1)
        mBigDataWriter = new MediaBigDataWriter(mPolicy);
}

void VyMediaMonitorService::SetupStaticTypeFlags() {
    for (const TypeFlag& entry : kStaticTypeFlags) {
        if (IsLoadable(entry)) {
            mStaticTypeFlags.add(entry.type, entry.flag);
        }
    }
}

void VyMediaMonitorService::DeInit() {
    if (mCapture != nullptr) {
        mCapture->Exit();
        mCapture.clear();
    }
    if (mLogSendThread != nullptr) {
        mLogSendThread->Exit();
        // What callers sent before the end is in the uploads below.
        for (const sp<LogSrvEvent>& event : mLogSendThread->TakeQueue()) {
            OnSrvEvent(event);
        }
        mLogSendThread.clear();
    }
    // The file writers keep their records on disk; only the uploading
    // writers send what they hold. What is left is kept for the next start.
    ATRACE_NAME("Vymedia.monitor shutdown upload");
    if (mExceptionWriter != nullptr) {
        mExceptionWriter->SendMediaLog();
    }
    if (mKpiWriter != nullptr) {
        mKpiWriter->SendMediaLog();
    }
    if (mBigDataWriter != nullptr) {
        mBigDataWriter->SendMediaLog();
    }
    PersistBatch();
    mPersistence.reset();
    mExceptionLogWriter.clear();
    mBDFlowWriter.clear();
    mBDCountWriter.clear();
    mExceptionWriter.clear();
    mKpiWriter.clear();
    mBigDataWriter.clear();
    mPolicy.clear();
}

void VyMediaMonitorService::CheckLogFiles() {
    CheckBDFlowLogFiles();
    CheckBDCountLogFiles();
}

void VyMediaMonitorService::CheckBDFlowLogFiles() {
    RemoveStaleFile(mBDFlow, BD_FLOW_FILE, "bdflow");
}

void VyMediaMonitorService::CheckBDCountLogFiles() {
    RemoveStaleFile(mBDCount, BD_COUNT_FILE, "bdcount");
}

void VyMediaMonitorService::RemoveStaleFile(int32_t value, const char* path, const char* name) {
    // Only 0 means "switched off for good": other values keep the file.
    struct stat st;
    if (value != 0 || stat(path, &st) != 0) {
        return;
    }
    if (mDebuggable) {
        ALOGD("stat() success for %s while ro.media.%s closed", path, name);
    }
    if (remove(path) != 0 && mDebuggable) {
        ALOGD("remove file %s failed, err: %d", path, errno);
    }
}

}  // namespace android
