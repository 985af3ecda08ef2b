// A monitor service that records each call it receives as text, with the
// caller's pid and uid, and the calls that exercise all 21 operations.
#ifndef VYMM_TESTS_RECORDING_MONITOR_SERVICE_H
#define VYMM_TESTS_RECORDING_MONITOR_SERVICE_H

#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <binder/IPCThreadState.h>

#define VYMM_RECORDED(name, params, ...) \
    void name params override { Record(#name, __VA_ARGS__); }

class RecordingMonitorService : public android::BnVyMediaMonitorService {
public:
    using S = const char*;
    using S8 = const android::String8&;
    struct Call {
        std::string text;
        pid_t pid;
        uid_t uid;
    };

    std::vector<Call> Calls() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.clear();
    }

    VYMM_RECORDED(ForceLogSend, (int a), a)
    VYMM_RECORDED(WriteLogMsg, (int a, int b, S c), a, b, c)
    VYMM_RECORDED(WriteMediaBigData, (int a, int b, S c), a, b, c)
    VYMM_RECORDED(WriteLogMsg, (int a, int b, int c, S8 d, S8 e), a, b, c, d, e)
    VYMM_RECORDED(WriteLogMsg, (int a, int b, int c, S8 d, S8 e, int f, S8 g, int h),
                  a, b, c, d, e, f, g, h)
    VYMM_RECORDED(WriteKpis, (S8 a), a)
    VYMM_RECORDED(WriteBigData, (int a, S b, int c, int d), a, b, c, d)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, int d, int e), a, b, c, d, e)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, int d), a, b, c, d)
    VYMM_RECORDED(WriteBigData, (int a, S b, int c, int d, int e), a, b, c, d, e)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, S d), a, b, c, d)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, S d, int e), a, b, c, d, e)
    VYMM_RECORDED(WriteBigData, (int a, S b, int c, int d, int e, int f), a, b, c, d, e, f)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, S d, S e, int f, int g, int h),
                  a, b, c, d, e, f, g, h)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, S d, S e, S f, int g), a, b, c, d, e, f, g)
    VYMM_RECORDED(WriteBigData, (int a, S b, S c, S d, S e, S f, S g, int h),
                  a, b, c, d, e, f, g, h)
    VYMM_RECORDED(MonitorSetForceUse, (int a, int b), a, b)
    VYMM_RECORDED(MonitorBroadcastStream, (int a, int b), a, b)
    VYMM_RECORDED(MonitorBroadcastDevice, (unsigned int a), a)
    VYMM_RECORDED(MonitorVolumeIndex, (int a, int b, int c), a, b, c)
    VYMM_RECORDED(MonitorPlayingApp, (S a), a)

    // Writes "dump(<args>)" to fd.
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override {
        std::string text = "dump(";
        for (size_t i = 0; i < args.size(); ++i) {
            text += (i > 0 ? "," : "") + std::string(android::String8(args[i]).c_str());
        }
        text += ")\n";
        return write(fd, text.data(), text.size()) == ssize_t(text.size()) ? android::OK : -errno;
    }

private:
    static std::string Format(int value) { return std::to_string(value); }
    static std::string Format(unsigned int value) { return std::to_string(value) + "u"; }
    static std::string Format(S value) { return value ? '"' + std::string(value) + '"' : "null"; }
    static std::string Format(S8 value) {
        return "'" + std::string(value.c_str(), value.size()) + "'";
    }

    template <typename... Args>
    void Record(const char* operation, const Args&... args) {
        std::string text;
        ((text += (text.empty() ? "" : ",") + Format(args)), ...);
        const android::IPCThreadState* ipc = android::IPCThreadState::self();
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back({std::string(operation) + "(" + text + ")", ipc->getCallingPid(),
                          ipc->getCallingUid()});
    }

    mutable std::mutex mMutex;
    std::vector<Call> mCalls;  // guarded by mMutex
};

// Calls the 21 operations in order, with distinct arguments and null strings
// in some places.
inline void CallEveryOperation(android::IVyMediaMonitorService* service) {
    using android::String8;
    service->ForceLogSend(3);
    service->WriteLogMsg(4, 9, "log msg");
    service->WriteMediaBigData(1234, 5, nullptr);
    service->WriteLogMsg(916000001, 2, 7, String8("reason"), String8("com.app"));
    service->WriteLogMsg(916000002, 1, -1, String8(""), String8("app"), 42, String8("para"),
                         916000003);
    service->WriteKpis(String8("916019001:a=1;b=2"));
    service->WriteBigData(7, "s1", 1, 2);
    service->WriteBigData(8, "s1", nullptr, 1, 2);
    service->WriteBigData(9, "s1", "s2", -3);
    service->WriteBigData(10, "s1", 1, 2, 3);
    service->WriteBigData(11, nullptr, "s2", "s3");
    service->WriteBigData(12, "s1", "s2", "s3", 4);
    service->WriteBigData(13, "", 1, 2, 3, 4);
    service->WriteBigData(14, "s1", "s2", "s3", "s4", 5, 6, 7);
    service->WriteBigData(15, "s1", "s2", "s3", "s4", "s5", 6);
    service->WriteBigData(16, "s1", "s2", "s3", "s4", "s5", nullptr, 7);
    service->MonitorSetForceUse(1, 10);
    service->MonitorBroadcastStream(1, 3);
    service->MonitorBroadcastDevice(0x80000002u);
    service->MonitorVolumeIndex(3, 11, 2);
    service->MonitorPlayingApp(nullptr);
}

#endif
