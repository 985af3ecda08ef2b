#include <atomic>
#include <fstream>
#include <thread>

#include <android/log.h>
#include <gtest/gtest.h>
#include <utils/Timers.h>

#include "support/FakeWriter.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaMonitorPolicy;
using android::sp;
using Calls = std::vector<std::string>;

namespace {

constexpr long kHour = 3600L * 1000000000L;

class MediaMonitorPolicyTest : public ::testing::Test {
protected:
    sp<FakeWriter> MakeWriter(int32_t type) { return new FakeWriter(mPolicy, type); }

    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    TempWorkDir mDir;
    LogCapture mLog;
    sp<MediaMonitorPolicy> mPolicy = new MediaMonitorPolicy;
};

TEST_F(MediaMonitorPolicyTest, FlushesOnlyFileWritersAtTheirCap) {
    for (int32_t type = 1; type <= 6; ++type) {
        sp<FakeWriter> writer = MakeWriter(type);
        writer->cur = 10;  // at the cap of 10
        // An exception log writer at its cap is emptied, so it is not uploaded.
        EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer));
        const bool fileWriter = type <= 3;
        EXPECT_EQ(writer->calls, fileWriter ? Calls({"WriteToFile", "ResetLogMem"}) : Calls())
                << "type " << type;
    }
    EXPECT_EQ(mLog.Count(ANDROID_LOG_DEBUG, "Vymedia_monitor", "MediaMonitorPolicy::WriteToFile"),
              3u);
}

TEST_F(MediaMonitorPolicyTest, ExceptionLogWriterIsDueByPriorityTimeOrCap) {
    sp<FakeWriter> writer = MakeWriter(android::LOG_TYPE_EXCEPTION_LOG);
    writer->max = 100;
    EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer)) << "empty writer never uploads";

    writer->cur = 5;
    writer->prior = 4;
    EXPECT_TRUE(mPolicy->TriggerLogSendPolicy(writer)) << "priority 4 is urgent";

    writer->prior = -1;
    EXPECT_FALSE(mPolicy->IsNeedSendLog()) << "untimed and under the cap";
    writer->cycle = kHour;
    writer->lastTime = systemTime(SYSTEM_TIME_MONOTONIC);
    writer->cur = 200;
    EXPECT_FALSE(mPolicy->IsNeedSendLog()) << "a timed writer ignores its cap";
    writer->lastTime -= kHour;
    EXPECT_TRUE(mPolicy->IsNeedSendLog());

    writer->lastTime = -1;
    EXPECT_TRUE(mPolicy->IsNeedSendLog()) << "untimed writer over its cap";
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, "Vymedia_monitor",
                              "IsNeedSendLog, exceed max size limit"));
}

TEST_F(MediaMonitorPolicyTest, FileWritersAreJudgedByTheirRecordFile) {
    sp<FakeWriter> writer = MakeWriter(android::LOG_TYPE_BD_COUNT);
    writer->path = "record.log";
    writer->cur = 1;
    writer->fileMax = 8;
    writer->lastTime = 0;
    writer->cycle = 0;
    EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer)) << "no record file, never due";

    std::ofstream("record.log") << "";
    writer->cur = 0;
    EXPECT_FALSE(mPolicy->IsNeedSendLog()) << "empty file and memory";
    writer->cur = 1;
    writer->lastTime = -1;
    EXPECT_FALSE(mPolicy->IsNeedSendLog()) << "untimed";
    writer->lastTime = systemTime(SYSTEM_TIME_MONOTONIC);
    writer->cycle = kHour;
    EXPECT_FALSE(mPolicy->IsNeedSendLog()) << "cycle not over";

    std::ofstream("record.log") << "12345678";
    EXPECT_TRUE(mPolicy->IsNeedSendLog()) << "file at its cap is due at once";
    EXPECT_EQ(writer->mCurFileSize, 8);
}

TEST_F(MediaMonitorPolicyTest, UploadingWritersAreDueOncePerCycle) {
    const long now = systemTime(SYSTEM_TIME_MONOTONIC);
    const char* messages[] = {"need to send log for exception, exceed max time limit",
                              "need to send log for kpi, exceed max time limit",
                              "need to send log for bigdata, exceed max time limit"};
    for (int32_t type = 4; type <= 6; ++type) {
        sp<FakeWriter> writer = MakeWriter(type);
        writer->cycle = kHour;
        EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer)) << "untimed, type " << type;
        writer->lastTime = now;
        EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer)) << "cycle not over, type " << type;
        writer->lastTime = now - kHour;
        EXPECT_TRUE(mPolicy->TriggerLogSendPolicy(writer)) << "type " << type;
        EXPECT_EQ(writer->calls, Calls({"DoSendMediaLog"}));
        EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, "Vymedia_monitor", messages[type - 4]));
    }
    EXPECT_TRUE(mPolicy->IsKpiNeedSend(now - kHour, kHour));
    EXPECT_FALSE(mPolicy->IsBigDataNeedSend(-1, 0));
}

TEST_F(MediaMonitorPolicyTest, UnknownWriterTypeIsNeverDue) {
    for (int32_t type : {0, 7}) {
        sp<FakeWriter> writer = MakeWriter(type);
        writer->cur = 100;
        writer->lastTime = 0;
        writer->cycle = 0;
        EXPECT_FALSE(mPolicy->TriggerLogSendPolicy(writer));
        EXPECT_TRUE(writer->calls.empty());
    }
    EXPECT_EQ(mLog.Count(ANDROID_LOG_INFO, "Vymedia_monitor", "cant't be: bad writer type received"),
              2u);
}

// Writers triggered from two threads at once must each be judged and called
// back alone, never the other one.
TEST_F(MediaMonitorPolicyTest, ConcurrentTriggersJudgeTheirOwnWriter) {
    ScopedProperty quiet("ro.media.debuggable", "false");
    std::atomic<int> strayCalls{0};
    auto run = [&](int32_t type) {
        sp<FakeWriter> writer = MakeWriter(type);
        writer->cur = writer->max;
        for (int i = 0; i < 2000; ++i) {
            writer->calls.clear();
            mPolicy->TriggerLogSendPolicy(writer);
            const Calls expected = type == 1 ? Calls({"WriteToFile", "ResetLogMem"}) : Calls();
            strayCalls += writer->calls != expected;
            writer->cur = writer->max;
        }
    };
    std::thread first(run, 1);
    std::thread second(run, 5);
    first.join();
    second.join();
    EXPECT_EQ(strayCalls, 0);
}

}  // namespace
