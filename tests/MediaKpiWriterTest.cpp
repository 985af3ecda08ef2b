#include <stdlib.h>

#include <random>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaKpiWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaKpi;
using android::String8;
using android::Vector;

namespace {

struct KpiWriter : android::MediaKpiWriter {
    KpiWriter() : MediaKpiWriter(new android::MediaMonitorPolicy) {}
    using MediaKpiWriter::globalMediaLogCycleDuration;
    using MediaKpiWriter::mLastSendTime;
    using MediaKpiWriter::mLogMemSize;

    void Send(Vector<MediaKpi> list) {
        android::Mutex::Autolock lock(mLock);
        SendKpis(list);
    }
};

class MediaKpiWriterTest : public ::testing::Test {
protected:
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
    android::sp<KpiWriter> mWriter = new KpiWriter;
};

TEST_F(MediaKpiWriterTest, WriteKpisNamesEachMalformedTextAndSendsNothing) {
    for (auto [text, error] : {std::pair{"916019003=1:250", "Kpis 916019003=1:250 valueStart error"},
                               {" \t\r\n=5:6", "Kpis  \t\r\n=5:6 contains an empty key"},
                               {"abc", "Kpis abc miss a value"},
                               {"916019003=1", nullptr}}) {
        mLog.Clear();
        mWriter->WriteKpis(String8(text));
        EXPECT_EQ(mLog.Lines().size(), error ? 1u : 0u) << text << "\n" << mLog.ToString();
        EXPECT_TRUE(!error || mLog.Contains(ANDROID_LOG_ERROR, "Vymedia_monitor_KPI", error));
    }

    // Client text of any shape, NULs included: nothing read past it (under
    // the sanitizers), nothing taken that is not a plain number.
    std::mt19937 random(20240611);
    const char alphabet[] = "0123456789=:-+ \tx\0";
    Vector<MediaKpi> list;
    for (int i = 0; i < 3000; ++i) {
        String8 parts[3];
        for (String8& part : parts) {
            std::string text(random() % 24, ' ');
            for (char& c : text) {
                c = alphabet[random() % (sizeof(alphabet) - 1)];
            }
            part = String8(text.data(), text.size());
        }
        mWriter->WriteKpis(parts[0]);
        mWriter->AddOneKpi(list, parts[0], parts[1], parts[2]);
    }
    for (const MediaKpi& kpi : list) {
        EXPECT_TRUE(kpi.eventId >= 0 && kpi.subType >= 0 && kpi.value >= 0);
    }
    EXPECT_TRUE(mEvents.Lines().empty());
}

TEST_F(MediaKpiWriterTest, AddOneKpiTakesOnlyWholeNumbersFromZeroToInt32Max) {
    Vector<MediaKpi> list;
    mWriter->AddOneKpi(list, String8("916019006"), String8(" 42 "), String8("\t2147483647\n"));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].subType, 42);
    EXPECT_EQ(list[0].value, 2147483647);
    for (const String8& bad : {String8("42x"), String8("-1"), String8("2147483648"), String8(" "),
                               String8("99999999999999999999"), String8("4\0", 2)}) {
        mWriter->AddOneKpi(list, String8("1"), String8("2"), bad);
        mWriter->AddOneKpi(list, bad, String8("2"), String8("3"));
    }
    EXPECT_EQ(list.size(), 1u);
}

TEST_F(MediaKpiWriterTest, SendsNamedParametersWithinTheCycleAllowance) {
    ScopedProperty upload("ro.media.uploadduration", "100");
    setenv("VEXEL_REJECT_IDS", "916019002", 1);
    mWriter = new KpiWriter;
    Vector<MediaKpi> list;
    for (int id : {916019001, 916019006, 916019007, 916019008, 916019000, 916019002}) {
        list.add(MediaKpi{id, 2, 37});
    }
    mWriter->Send(list);
    unsetenv("VEXEL_REJECT_IDS");
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, "Vymedia_monitor_KPI",
                              "Unknown kpi eventId(916019002)"));
    const auto event = [](int id, const char* first, const char* second) {
        return "{\"id\":" + std::to_string(id) + ",\"params\":[{\"name\":\"" + first +
               "\",\"int\":2},{\"name\":\"" + second + "\",\"int\":37}]}";
    };
    EXPECT_EQ(mEvents.Lines(), std::vector<std::string>(
                                   {event(916019001, "SupportsL", "SupportsH"),
                                    event(916019006, "PowerType", "PowerConsumption"),
                                    event(916019007, "StabilityType", "TestResult")}));

    list.resize(1);
    for (int i = 3; i < 256; ++i) {
        mWriter->Send(list);
    }
    EXPECT_EQ(mWriter->mLogMemSize, 2048u);
    mLog.Clear();
    mWriter->WriteKpis(String8("abc"));
    EXPECT_TRUE(mLog.Lines().empty()) << "full: not even parsed";

    const long cycle = mWriter->globalMediaLogCycleDuration;
    const long start = systemTime(SYSTEM_TIME_MONOTONIC) - cycle - cycle / 2;
    mWriter->mLastSendTime = start;
    mWriter->TriggerLog();
    EXPECT_EQ(mWriter->mLogMemSize, 0u) << "a new cycle, a new allowance";
    EXPECT_EQ(mWriter->mLastSendTime, start + cycle);
    EXPECT_EQ(mEvents.Lines().size(), 256u) << "the cycle's turn uploads nothing itself";
}

}  // namespace
