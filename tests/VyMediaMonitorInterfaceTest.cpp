#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <gtest/gtest.h>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "support/ChildProcess.h"
#include "support/RecordingMonitorService.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

using I = IVyMediaMonitorService;
constexpr char kName[] = "Vymedia.monitor";

// The client program, run as an audio-side uid that is not ours when we are
// root, prints its pid, calls every operation, then 50 times from each of 4
// threads at once, then dumps to its standard output and to a pipe it closed.
TEST(MonitorInterfaceTest, ClientCallsArriveInOrderWithTheCallersIdentity) {
    ScopedBinderDir dir;
    const sp<RecordingMonitorService> service = new RecordingMonitorService;
    const bool root = geteuid() == 0;
    ChildProcess client(Peer({"client", kName, root ? "1047" : "-"}));
    ASSERT_EQ(defaultServiceManager()->addService(String16(kName), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    const int status = client.Finish();
    ProcessState::self()->stopThreadPool();
    ASSERT_EQ(status, 0) << client.output();
    const pid_t pid = client.pid();
    // Writing to the closed pipe once killed us with SIGPIPE.
    EXPECT_EQ(client.output(), std::to_string(pid) + "\ndump(-a,x y)\n" + std::to_string(-EPIPE) + "\n");

    // The same calls made directly, without the interface.
    const sp<RecordingMonitorService> direct = new RecordingMonitorService;
    CallEveryOperation(direct.get());
    const std::vector<RecordingMonitorService::Call> expected = direct->Calls();
    const std::vector<RecordingMonitorService::Call> calls = service->Calls();
    ASSERT_EQ(calls.size(), expected.size() + 4 * 50);
    std::map<int, int> next;
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].pid, pid);
        EXPECT_EQ(calls[i].uid, root ? 1047u : getuid());
        if (i < expected.size()) {
            EXPECT_EQ(calls[i].text, expected[i].text);
            continue;
        }
        int thread = -1;
        int call = -1;
        ASSERT_EQ(sscanf(calls[i].text.c_str(), "MonitorVolumeIndex(%d,%d,0)", &thread, &call), 2)
                << calls[i].text;
        EXPECT_EQ(call, next[thread]++) << "thread " << thread;
    }
    EXPECT_EQ(next.size(), 4u);
}

// Arguments that do not unmarshal make no call: a text whose length runs
// past the end, or whose terminator is missing, a C string marked present
// with none after it.
TEST(MonitorInterfaceTest, ArgumentsThatDoNotUnmarshalMakeNoCall) {
    const sp<RecordingMonitorService> service = new RecordingMonitorService;
    const auto transact = [&service](uint32_t code, std::initializer_list<int32_t> words,
                                     const String16& token = I::descriptor) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(token);
        for (const int32_t word : words) {
            data.writeInt32(word);
        }
        data.setDataPosition(0);
        return service->onTransact(code, data, &reply, 0);
    };
    EXPECT_EQ(transact(I::WRITE_KPIS, {1000}), BAD_VALUE);
    EXPECT_EQ(transact(I::WRITE_KPIS, {3, 0x64636261 /* "abcd" */}), BAD_VALUE);
    EXPECT_EQ(transact(I::MONITOR_PLAYING_APP, {1}), BAD_VALUE);
    // Nor does a well-formed call addressed to another interface.
    EXPECT_EQ(transact(I::MONITOR_VOLUME_INDEX, {1, 2, 3}, String16("other.interface")),
              PERMISSION_DENIED);
    EXPECT_TRUE(service->Calls().empty());
}

}  // namespace
