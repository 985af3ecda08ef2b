#include <errno.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/ClientProcess.h"
#include "support/RecordingMonitorService.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

constexpr char kName[] = "Vymedia.monitor";

// What CallEveryOperation sends, as the service records it.
const std::vector<std::string> kEveryOperation = {
        "ForceLogSend(3)",
        "WriteLogMsg(4,9,\"log msg\")",
        "WriteMediaBigData(1234,5,null)",
        "WriteLogMsg(916000001,2,7,'reason','com.app')",
        "WriteLogMsg(916000002,1,-1,'','app',42,'para',916000003)",
        "WriteKpis('916019001:a=1;b=2')",
        "WriteBigData(7,\"s1\",1,2)",
        "WriteBigData(8,\"s1\",null,1,2)",
        "WriteBigData(9,\"s1\",\"s2\",-3)",
        "WriteBigData(10,\"s1\",1,2,3)",
        "WriteBigData(11,null,\"s2\",\"s3\")",
        "WriteBigData(12,\"s1\",\"s2\",\"s3\",4)",
        "WriteBigData(13,\"\",1,2,3,4)",
        "WriteBigData(14,\"s1\",\"s2\",\"s3\",\"s4\",5,6,7)",
        "WriteBigData(15,\"s1\",\"s2\",\"s3\",\"s4\",\"s5\",6)",
        "WriteBigData(16,\"s1\",\"s2\",\"s3\",\"s4\",\"s5\",null,7)",
        "MonitorSetForceUse(1,10)",
        "MonitorBroadcastStream(1,3)",
        "MonitorBroadcastDevice(2147483650u)",
        "MonitorVolumeIndex(3,11,2)",
        "MonitorPlayingApp(null)",
};

class MonitorInterfaceTest : public ::testing::Test {
protected:
    void Publish() {
        ASSERT_EQ(defaultServiceManager()->addService(String16(kName), service), NO_ERROR);
        ProcessState::self()->startThreadPool();
    }
    void TearDown() override { ProcessState::self()->stopThreadPool(); }

    ScopedBinderDir dir;
    const sp<RecordingMonitorService> service = new RecordingMonitorService;
};

TEST_F(MonitorInterfaceTest, EveryOperationArrivesWithTheCallersIdentity) {
    // As root the client runs as an audio-side uid that is not ours.
    const bool root = geteuid() == 0;
    // Started first: its getService waits for the service to appear.
    ClientProcess client({kName, root ? "1047" : "-", "every"});
    Publish();
    ASSERT_EQ(client.Wait(), 0);
    EXPECT_EQ(service->Texts(), kEveryOperation);
    for (const RecordingMonitorService::Call& call : service->Calls()) {
        EXPECT_EQ(call.pid, client.pid());
        EXPECT_EQ(call.uid, root ? 1047u : getuid());
    }
    if (!root) {
        GTEST_SKIP() << "the call from another uid needs root";
    }
}

TEST_F(MonitorInterfaceTest, CallsOfEachClientThreadArriveInOrder) {
    Publish();
    ClientProcess client({kName, "-", "threads", "4", "50"});
    ASSERT_EQ(client.Wait(), 0);
    const std::vector<std::string> texts = service->Texts();
    ASSERT_EQ(texts.size(), 200u);
    std::map<int, int> next;
    for (const std::string& text : texts) {
        int thread = -1;
        int call = -1;
        ASSERT_EQ(sscanf(text.c_str(), "MonitorVolumeIndex(%d,%d,0)", &thread, &call), 2) << text;
        EXPECT_EQ(call, next[thread]++) << "thread " << thread;
    }
    EXPECT_EQ(next.size(), 4u);
}

TEST_F(MonitorInterfaceTest, DumpWritesToTheCallersDescriptor) {
    Publish();
    ClientProcess client({kName, "-", "dump", "-a", "x y"});
    ASSERT_EQ(client.Wait(), 0);
    EXPECT_EQ(client.output(), "dump(-a,x y)\n");

    // A caller that closed its end gets the write's error; we live on.
    ClientProcess closed({kName, "-", "dump-to-closed-pipe"});
    ASSERT_EQ(closed.Wait(), 0);
    EXPECT_EQ(closed.output(), std::to_string(-EPIPE) + "\n");
}

TEST_F(MonitorInterfaceTest, MalformedTransactionsCallNothing) {
    const auto transact = [&](uint32_t code, const std::function<void(Parcel*)>& fill) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(IVyMediaMonitorService::descriptor);
        fill(&data);
        return service->transact(code, data, &reply);
    };
    Parcel wrongToken;
    Parcel reply;
    wrongToken.writeInterfaceToken(String16("other.IService"));
    wrongToken.writeInt32(1);
    EXPECT_EQ(service->transact(IVyMediaMonitorService::FORCE_LOG_SEND, wrongToken, &reply),
              PERMISSION_DENIED);
    EXPECT_EQ(transact(IVyMediaMonitorService::FORCE_LOG_SEND, [](Parcel*) {}), BAD_VALUE);
    EXPECT_EQ(transact(IVyMediaMonitorService::WRITE_LOG_MSG_TYPED, [](Parcel* p) {
                  p->writeInt32(1);
                  p->writeInt32(2);
                  p->writeInt32(1);
                  p->write("abcd", 4);  // no terminator
              }),
              BAD_VALUE);
    EXPECT_EQ(transact(IVyMediaMonitorService::MONITOR_PLAYING_APP,
                       [](Parcel* p) { p->writeInt32(2); }),
              BAD_VALUE)
            << "a presence marker is 0 or 1";
    EXPECT_EQ(transact(IVyMediaMonitorService::WRITE_KPIS, [](Parcel* p) { p->writeInt32(1000); }),
              BAD_VALUE);
    EXPECT_EQ(transact(0, [](Parcel*) {}), UNKNOWN_TRANSACTION);
    EXPECT_EQ(transact(IVyMediaMonitorService::LAST_OPERATION + 1, [](Parcel*) {}),
              UNKNOWN_TRANSACTION);
    EXPECT_TRUE(service->Calls().empty());

    EXPECT_EQ(IVyMediaMonitorService::FORCE_LOG_SEND, 1);
    EXPECT_EQ(IVyMediaMonitorService::LAST_OPERATION, 21);
    EXPECT_EQ(transact(IVyMediaMonitorService::MONITOR_PLAYING_APP,
                       [](Parcel* p) { p->writeInt32(0); }),
              NO_ERROR);
    EXPECT_EQ(service->Texts(), std::vector<std::string>{"MonitorPlayingApp(null)"});
}

}  // namespace
