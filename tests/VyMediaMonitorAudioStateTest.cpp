#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/MonitorHarness.h"
#include "support/ServiceFixture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;
using Lines = std::vector<std::string>;

namespace {

constexpr char kTag[] = "Vymedia_monitor";

class MonitorAudioStateTest : public ::testing::Test {
protected:
    TempWorkDir mDir;
    LogCapture mLog;
};

TEST_F(MonitorAudioStateTest, EachChangeRebuildsThePlayStatusFromThePackedWords) {
    sp<MonitorHarness> s = new MonitorHarness;
    // What each change passes to the play-status statistic; null: ignored.
    const std::pair<std::function<void()>, const char*> steps[] = {
        {[&] { s->MonitorSetForceUse(0, 3); }, "|0000000000000|F:196608 S:0 D:0"},
        {[&] { s->MonitorSetForceUse(1, 2); }, "|0000000000000|F:196610 S:0 D:0"},
        {[&] { s->MonitorSetForceUse(2, 9); }, nullptr},
        {[&] { s->MonitorSetForceUse(0, 4); }, "|0000000000000|F:262146 S:0 D:0"},
        {[&] { s->MonitorSetForceUse(1, 65536); }, "|0000000000000|F:327680 S:0 D:0"},
        {[&] { s->MonitorSetForceUse(0, -1); }, "|0000000000000|F:4294901760 S:0 D:0"},
        {[&] { s->MonitorBroadcastStream(1, 13); }, "|0000000000000|F:4294901760 S:8192 D:0"},
        {[&] { s->MonitorBroadcastStream(1, 14); }, nullptr},
        {[&] { s->MonitorBroadcastStream(1, -1); }, nullptr},
        {[&] { s->MonitorBroadcastStream(2, 3); }, nullptr},
        {[&] { s->MonitorBroadcastStream(1, 0); }, "|0000000000000|F:4294901760 S:8193 D:0"},
        {[&] { s->MonitorBroadcastStream(0, 13); }, "|0000000000000|F:4294901760 S:1 D:0"},
        {[&] { s->MonitorVolumeIndex(0, 5, 2); }, nullptr},
        {[&] { s->MonitorVolumeIndex(14, 5, 2); }, nullptr},
        {[&] { s->MonitorVolumeIndex(3, 7, 2); }, "|0000000000000|F:4294901760 S:1 D:0"},
        {[&] { s->MonitorBroadcastDevice(0x80000002u); },
         "|0070000000000|F:4294901760 S:1 D:2147483650"},
        {[&] { s->MonitorVolumeIndex(3, 7, 4); }, "|0070000000000|F:4294901760 S:1 D:2147483650"},
        {[&] { s->MonitorVolumeIndex(1, 10, 2); }, "|:070000000000|F:4294901760 S:1 D:2147483650"},
        {[&] { s->MonitorVolumeIndex(13, 9, 1); }, "|:070000000000|F:4294901760 S:1 D:2147483650"},
        {[&] { s->MonitorBroadcastDevice(1); }, "|0000000000009|F:4294901760 S:1 D:1"},
        {[&] { s->MonitorBroadcastDevice(3); }, "|:070000000000|F:4294901760 S:1 D:3"},
        {[&] { s->MonitorPlayingApp(nullptr); }, "|:070000000000|F:4294901760 S:1 D:3"},
        {[&] { s->MonitorPlayingApp("com.app"); }, "com.app|:070000000000|F:4294901760 S:1 D:3"},
    };
    Lines expected;
    for (const auto& [change, status] : steps) {
        change();
        if (status != nullptr) {
            expected.push_back(std::string("PLAYING_STATUS|") + status);
        }
        EXPECT_EQ(s->StatusCalls(), expected);
    }
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, "invalid volume source"), 2u);
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, "INVALID OPERATION: null pointer dereference"),
              1u);
    EXPECT_EQ(s->TakeQueued(), Lines()) << "statuses wait in their slot";
    const Lines flushed = s->Flush();
    const std::string status = "15:916600009 s=PLAYING_STATUS,,com.app,:07";
    EXPECT_EQ(std::count_if(flushed.begin(), flushed.end(),
                            [&](const std::string& line) { return line.rfind(status, 0) == 0; }),
              1);
}

TEST_F(MonitorAudioStateTest, AnAudioLossReportNeedsAnOutputAVolumeAndANewApp) {
    sp<MonitorHarness> s = new MonitorHarness;
    struct Case {
        const char* app;
        unsigned device;
        int volume1;  // of source 6 on device 1
        int volume2;  // and on device 2
        const char* reason;
        int subType;
        bool passes;
    };
    const Case cases[] = {
        {"", 2, 5, 5, "LOW", 0, false},  // the app of the last flush: none yet
        {"a", 0, 5, 5, "LOW", 0, false},
        {"a", 4, 5, 5, "MUTE", 0, false},
        {"a", 2, 5, 0, "MUTE", 1, false},
        {"a", 2, 0, 5, "MUTE", 1, true},
        {"a", 2, 0, 5, "LOW", 0, false},  // once per app
        {"b", 1, 5, 0, "MUTE", 3, true},
        {"c", 3, 0, 5, "MUTE", 1, true},
        {"d", 3, 5, 0, "MUTE", 1, true},
        {"e", 2, 5, 0, "MUTE", -1, false},
        {"e", 1, 0, 0, "MUTE", 0, true},
        {"f", 0x80000001u, 0, 0, "LOW", 5, true},
    };
    ActAs(1041, 77);
    for (const Case& c : cases) {
        s->MonitorPlayingApp(c.app);
        s->MonitorBroadcastDevice(c.device);
        s->MonitorVolumeIndex(6, c.volume1, 1);
        s->MonitorVolumeIndex(6, c.volume2, 2);
        s->WriteLogMsg(901, 1, c.subType, String8(c.reason), String8("x"));
        const Lines queued = s->TakeQueued();
        const std::string exception =
                "7:901 s=" + std::string(c.reason) + ",x, i=77,1," + std::to_string(c.subType) +
                ",-1,-1";
        const std::string label = std::string(c.app) + " " + c.reason;
        if (!c.passes) {
            EXPECT_EQ(queued, Lines()) << label;
            continue;
        }
        ASSERT_EQ(queued.size(), 2u) << label;
        EXPECT_EQ(queued[0].rfind("15:916600009 s=PLAYING_STATUS,," + std::string(c.app), 0), 0u)
                << label;
        EXPECT_EQ(queued[1], exception) << label;
    }
    EXPECT_EQ(mLog.CountContaining(kTag, "WriteLogMsg SendCacheEvent"), 6u);
    EXPECT_EQ(s->GetStats().droppedByAudioFilter, 6u);
    EXPECT_EQ(mLog.CountContaining(kTag, "report of event 901 dropped"), 6u);
}

using MonitorAudioStateServiceTest = ServiceFixture;

// Kept for client threads racing the worker, which no single-line fault models.
TEST_F(MonitorAudioStateServiceTest, ClientThreadsCallingAtOnceLeaveTheWorkerServing) {
    // The default cycle: each forced send moves the upload clock on by one.
    ScopedProperty upload("ro.media.uploadduration", "");
    ServiceProbe* s = &Start();
    std::vector<std::future<void>> clients;
    for (int t = 0; t < 4; ++t) {
        clients.push_back(std::async(std::launch::async, [&s, t] {
            ActAs(t % 2 == 0 ? 1013 : 1041);
            const std::string app = "app" + std::to_string(t);
            for (int i = 0; i < 200; ++i) {
                s->MonitorPlayingApp(app.c_str());
                s->MonitorSetForceUse(i % 2, i);
                s->MonitorBroadcastStream(i % 2, t);
                s->MonitorBroadcastDevice(static_cast<unsigned>(i % 4));
                s->MonitorVolumeIndex(1 + t, i % 10, 1 + i % 2);
                s->WriteLogMsg(901, 1, 0, String8(i % 2 == 0 ? "LOW" : "MUTE"), String8("x"));
                s->WriteBigData(916600001, "v", "p", "x", i % 14);
                s->WriteBigData(916600030, "h", i, i % 2);
                s->ForceLogSend(0);
                WrittenText([&s](int fd) { s->Dump(fd, {}); });
            }
        }));
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::future<void>& client : clients) {
        ASSERT_EQ(client.wait_until(deadline), std::future_status::ready);
    }
    // The worker still serves: once the queue has room again (it may have
    // filled and dropped), a report and a forced send go out.
    ActAs(1013);
    const auto served = [](const Lines& lines) { return !UploadsOf(lines, 903).empty(); };
    bool uploaded = false;
    while (!uploaded && std::chrono::steady_clock::now() < deadline) {
        s->WriteLogMsg(903, 1, 0, String8("end"), String8("x"));
        s->ForceLogSend(0);
        uploaded = served(mEvents.WaitFor(served, std::chrono::milliseconds(200)));
    }
    EXPECT_TRUE(uploaded);
}

}  // namespace
