// The service behind the host transport, called by the client program run
// as another uid: the caller check sees the kernel's identity of the caller.
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/MonitorHarness.h"
#include "support/ChildProcess.h"
#include "support/ServiceFixture.h"

using namespace android;

namespace {

class MonitorRemoteTest : public PublishedServiceFixture {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "calling from another uid needs root";
        }
    }

    // Runs the client program (it calls every operation) as uid against
    // service; its pid once it has ended.
    pid_t RunClient(const sp<IBinder>& service, uid_t uid) {
        ChildProcess client(Peer({"client", kServiceName, std::to_string(uid)}));
        EXPECT_EQ(defaultServiceManager()->addService(String16(kServiceName), service), NO_ERROR);
        ProcessState::self()->startThreadPool();
        const int status = client.Finish();
        ProcessState::self()->stopThreadPool();
        EXPECT_EQ(status, 0) << client.output();
        return client.pid();
    }
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

}  // namespace
