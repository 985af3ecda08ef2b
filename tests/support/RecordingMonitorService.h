// A monitor service that records each call it receives as text, with the
// caller's pid and uid, and the calls that exercise all 21 operations.
#ifndef VYMM_TESTS_RECORDING_MONITOR_SERVICE_H
#define VYMM_TESTS_RECORDING_MONITOR_SERVICE_H

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <binder/IPCThreadState.h>

class RecordingMonitorService : public android::BnVyMediaMonitorService {
public:
    using S = const char*;
    using String8 = android::String8;

    struct Call {
        std::string text;
        pid_t pid;
        uid_t uid;
    };

    std::vector<Call> Calls() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const Call& call : Calls()) {
            texts.push_back(call.text);
        }
        return texts;
    }
    // True once count calls have arrived; gives up after ten seconds.
    bool WaitForCalls(size_t count) const {
        std::unique_lock<std::mutex> lock(mMutex);
        return mArrived.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return mCalls.size() >= count; });
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.clear();
    }

    void ForceLogSend(int type) override { Record("ForceLogSend", type); }
    void WriteLogMsg(int prior, int type, S msg) override {
        Record("WriteLogMsg", prior, type, msg);
    }
    void WriteMediaBigData(int pid, int type, S msg) override {
        Record("WriteMediaBigData", pid, type, msg);
    }
    void WriteLogMsg(int id, int level, int subType, const String8& reason,
                     const String8& app) override {
        Record("WriteLogMsg", id, level, subType, reason, app);
    }
    void WriteLogMsg(int id, int level, int subType, const String8& reason, const String8& app,
                     int paraInt, const String8& paraChar, int associated) override {
        Record("WriteLogMsg", id, level, subType, reason, app, paraInt, paraChar, associated);
    }
    void WriteKpis(const String8& kpis) override { Record("WriteKpis", kpis); }
    void WriteBigData(int id, S a, int b, int c) override { Record("WriteBigData", id, a, b, c); }
    void WriteBigData(int id, S a, S b, int c, int d) override {
        Record("WriteBigData", id, a, b, c, d);
    }
    void WriteBigData(int id, S a, S b, int c) override { Record("WriteBigData", id, a, b, c); }
    void WriteBigData(int id, S a, int b, int c, int d) override {
        Record("WriteBigData", id, a, b, c, d);
    }
    void WriteBigData(int id, S a, S b, S c) override { Record("WriteBigData", id, a, b, c); }
    void WriteBigData(int id, S a, S b, S c, int d) override {
        Record("WriteBigData", id, a, b, c, d);
    }
    void WriteBigData(int id, S a, int b, int c, int d, int e) override {
        Record("WriteBigData", id, a, b, c, d, e);
    }
    void WriteBigData(int id, S a, S b, S c, S d, int e, int f, int g) override {
        Record("WriteBigData", id, a, b, c, d, e, f, g);
    }
    void WriteBigData(int id, S a, S b, S c, S d, S e, int f) override {
        Record("WriteBigData", id, a, b, c, d, e, f);
    }
    void WriteBigData(int id, S a, S b, S c, S d, S e, S f, int g) override {
        Record("WriteBigData", id, a, b, c, d, e, f, g);
    }
    void MonitorSetForceUse(int usage, int config) override {
        Record("MonitorSetForceUse", usage, config);
    }
    void MonitorBroadcastStream(int state, int stream) override {
        Record("MonitorBroadcastStream", state, stream);
    }
    void MonitorBroadcastDevice(unsigned int device) override {
        Record("MonitorBroadcastDevice", device);
    }
    void MonitorVolumeIndex(int source, int index, int device) override {
        Record("MonitorVolumeIndex", source, index, device);
    }
    void MonitorPlayingApp(S app) override { Record("MonitorPlayingApp", app); }

    // Writes "dump(<args>)" to fd.
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override {
        std::string text = "dump(";
        for (size_t i = 0; i < args.size(); ++i) {
            text += (i > 0 ? "," : "") + std::string(android::String8(args[i]).c_str());
        }
        text += ")\n";
        return write(fd, text.data(), text.size()) == ssize_t(text.size()) ? android::NO_ERROR
                                                                            : -errno;
    }

private:
    static std::string Format(int value) { return std::to_string(value); }
    static std::string Format(unsigned int value) { return std::to_string(value) + "u"; }
    static std::string Format(S value) {
        return value != nullptr ? "\"" + std::string(value) + "\"" : "null";
    }
    static std::string Format(const String8& value) {
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
        mArrived.notify_all();
    }

    mutable std::mutex mMutex;
    mutable std::condition_variable mArrived;
    std::vector<Call> mCalls;  // guarded by mMutex
};

// Calls the 21 operations in order, with null strings in some places.
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
