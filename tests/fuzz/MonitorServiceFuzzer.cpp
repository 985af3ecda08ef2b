// Feeds arbitrary transactions to the real service, with every writer
// switched on, due to upload every second and writing its record files in a
// scratch working directory. Input: a byte that picks the transaction (the
// 21 operations, a few codes outside them, or a dump to /dev/null), a byte that picks the
// caller's uid and pid, a byte of switches (interface token, a write check
// after the call), then the parcel. What the call queues is dispatched on
// this thread before the next input, so a run does not depend on a worker.
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <iterator>

#include <android-base/properties.h>
#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>

#include "support/ServiceProbe.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

class FuzzedService : public ServiceProbe {
public:
    FuzzedService() : mWorker(mLogSendThread), mQueue(new HeldQueue(this)) {
        mLogSendThread = mQueue;
        mWorker->Exit();
    }

    void DispatchQueued() {
        for (const HeldQueue::Event& event : mQueue->Take()) {
            OnSrvEvent(event);
        }
    }

private:
    const sp<LogSendThread> mWorker;  // stopped; kept so that it ends here
    const sp<HeldQueue> mQueue;
};

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#define VYMM_FUZZ_TSAN 1
#endif
#endif

// Makes a service whose worker is stopped. libFuzzer's coverage counters are
// plain bytes, which ThreadSanitizer takes for a race while that worker runs
// the same inline code as this thread: until it is joined, this thread's
// reads and writes go unrecorded. Its locks and the join still count.
FuzzedService* NewFuzzedService() {
#ifdef VYMM_FUZZ_TSAN
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
    FuzzedService* service = new FuzzedService;
#ifdef VYMM_FUZZ_TSAN
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
    return service;
}

// The admitted media uids, then root, system, audioserver, shell and an app.
constexpr uid_t kUids[] = {1005, 1006, 1013, 1031, 1040, 1046, 0, 1000, 1041, 2000, 10050};

constexpr uint32_t kOtherCodes[] = {0, IVyMediaMonitorService::LAST_OPERATION + 1,
                                    IBinder::INTERFACE_TRANSACTION, IBinder::DUMP_TRANSACTION};
constexpr uint32_t kOperations = IVyMediaMonitorService::LAST_OPERATION -
                                 IVyMediaMonitorService::FORCE_LOG_SEND + 1;
// One past the codes: a dump.
constexpr uint32_t kPicks = kOperations + std::size(kOtherCodes) + 1;

constexpr uint8_t kWithToken = 1;
constexpr uint8_t kThenWriteCheck = 2;

FuzzedService* gService;
int gDevNull;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Each refused call logs a line; at this rate they would only slow it down.
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    for (const char* key : {"ro.media.radar", "ro.media.bdflow", "ro.media.bdcount",
                            "ro.media.exception", "ro.media.kpi", "ro.media.bigdata",
                            "ro.media.uploadduration", "ro.media.checkduration"}) {
        base::SetProperty(key, "1");
    }
    base::SetProperty("ro.media.debuggable", "true");
    setenv("VEXEL_EVENT_LOG", "/dev/null", 0);
    // Removed at exit, with the record files in it.
    static TempWorkDir scratch;
    std::filesystem::create_directories("data/log");
    gDevNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    gService = NewFuzzedService();
    gService->incStrong(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    const uint32_t pick = data[0] % kPicks;
    const uid_t uid = kUids[data[1] % std::size(kUids)];
    const uint8_t switches = data[2];
    IPCThreadState::self()->restoreCallingIdentity((static_cast<int64_t>(uid) << 32) | data[1]);

    Parcel parcel;
    if ((switches & kWithToken) != 0) {
        parcel.writeInterfaceToken(IVyMediaMonitorService::descriptor);
    }
    parcel.write(data + 3, size - 3);
    Parcel reply;
    if (pick < kOperations) {
        gService->transact(IVyMediaMonitorService::FORCE_LOG_SEND + pick, parcel, &reply);
    } else if (pick < kPicks - 1) {
        gService->transact(kOtherCodes[pick - kOperations], parcel, &reply);
    } else {
        gService->dump(gDevNull, Vector<String16>());
    }
    if ((switches & kThenWriteCheck) != 0) {
        gService->Queue(new VyMediaMonitorService::LogSrvEvent(
                VyMediaMonitorService::EVENT_WRITE_CHECK, -1, -1, String8(), false));
    }
    gService->DispatchQueued();
    return 0;
}
