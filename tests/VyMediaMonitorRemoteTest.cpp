// The service behind the host transport, called by the client program run
// as another uid: the caller check sees the kernel's identity of the caller.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/MonitorHarness.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;

namespace {

constexpr char kName[] = "Vymedia.monitor";

class MonitorRemoteTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "calling from another uid needs root";
        }
    }

    // Publishes service, runs the client program as uid (it calls every
    // operation) and returns the client's pid once it has ended.
    pid_t RunClient(const sp<IBinder>& service, uid_t uid) {
        const std::string command = std::string("timeout 30 ") + BINDER_TEST_CLIENT + " " +
                                    kName + " " + std::to_string(uid);
        // Started first: its getService waits for the service to appear.
        FILE* client = popen(command.c_str(), "re");
        EXPECT_NE(client, nullptr);
        if (client == nullptr) {
            return -1;
        }
        EXPECT_EQ(defaultServiceManager()->addService(String16(kName), service), NO_ERROR);
        ProcessState::self()->startThreadPool();
        std::string output;
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof(buffer), client)) > 0;) {
            output.append(buffer, n);
        }
        EXPECT_EQ(pclose(client), 0) << output;
        ProcessState::self()->stopThreadPool();
        return atoi(output.c_str());
    }

    ScopedBinderDir mBinderDir;
    TempWorkDir mDir;
    LogCapture mLog;
};

TEST_F(MonitorRemoteTest, ARefusedUidIsNamedByItsKernelIdentityAndQueuesNothingChecked) {
    sp<MonitorHarness> service = new MonitorHarness;
    const pid_t pid = RunClient(service, 1047);
    for (const char* operation : {"ForceLogSend", "WriteLogMsg", "WriteMediaBigData"}) {
        EXPECT_TRUE(mLog.Contains(ANDROID_LOG_INFO, "Vymedia_monitor",
                                  std::string("Permission Denial: can't ") + operation +
                                          " VyMediaMonitorService from pid=" +
                                          std::to_string(pid) + ", uid=1047\n"))
                << operation << "\n"
                << mLog.ToString();
    }
    std::vector<std::string> queued = service->TakeQueued();
    ASSERT_FALSE(queued.empty()) << "the unchecked operations went through";
    for (const std::string& event : queued) {
        const int type = atoi(event.c_str());
        EXPECT_TRUE(type > 4 && type != 16) << event;
    }
}

TEST_F(MonitorRemoteTest, TheMediaUidsForcedSendUploadsWhatTheExceptionWriterHolds) {
    EventLog events;
    sp<LiveMonitorService> service = new LiveMonitorService;
    service->WriteLogMsg(901, 1, 0, String8("held"), String8("app"));
    RunClient(service, 1013);
    const auto uploaded = [](const std::vector<std::string>& lines) {
        for (const std::string& line : lines) {
            if (line.rfind("{\"id\":901,", 0) == 0) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(uploaded(events.WaitFor(uploaded)));
    EXPECT_EQ(mLog.CountContaining("Vymedia_monitor", "Permission Denial"), 0u);
    service->StopWorker();
}

}  // namespace
