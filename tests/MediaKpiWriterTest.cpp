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
using android::MediaKpiWriter;
using android::MediaMonitorPolicy;
using android::Mutex;
using android::sp;
using android::String8;
using android::Vector;

namespace {

const char kTag[] = "Vymedia_monitor_KPI";

class KpiWriter : public MediaKpiWriter {
public:
    KpiWriter() : MediaKpiWriter(new MediaMonitorPolicy) {}
    using MediaKpiWriter::globalMediaLogCycleDuration;
    using MediaKpiWriter::mLastSendTime;
    using MediaKpiWriter::mLogMemSize;

    void Send(Vector<MediaKpi> list) {
        Mutex::Autolock lock(mLock);
        SendKpis(list);
    }
};

class MediaKpiWriterTest : public ::testing::Test {
protected:
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
};

TEST_F(MediaKpiWriterTest, WriteKpisNamesEachMalformedTextAndSendsNothing) {
    sp<KpiWriter> writer = new KpiWriter;
    const struct {
        const char* text;
        const char* error;  // null: no error
    } cases[] = {
        {"916019003=1:250", "Kpis 916019003=1:250 valueStart error"},
        {"916019003=1", nullptr},
        {"=5", "Kpis =5 contains an empty key"},
        {" \t\r\n=5:6", "Kpis  \t\r\n=5:6 contains an empty key"},
        {"abc", "Kpis abc miss a value"},
        {"", "Kpis  miss a value"},
        {"a:b=c", nullptr},
        {"a=b=c:", "Kpis a=b=c: valueStart error"},
    };
    for (const auto& c : cases) {
        mLog.Clear();
        writer->WriteKpis(String8(c.text));
        EXPECT_EQ(mLog.Lines().size(), c.error ? 1u : 0u) << c.text << "\n" << mLog.ToString();
        if (c.error) {
            EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag, c.error)) << mLog.ToString();
        }
    }

    // Client text of any shape, NULs included: no crash, no read past it
    // (under the sanitizers), nothing added that is not a plain number.
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
        writer->WriteKpis(parts[0]);
        writer->AddOneKpi(list, parts[0], parts[1], parts[2]);
    }
    for (const MediaKpi& kpi : list) {
        EXPECT_TRUE(kpi.eventId >= 0 && kpi.subType >= 0 && kpi.value >= 0);
    }
    EXPECT_TRUE(mEvents.Lines().empty());
    EXPECT_EQ(writer->mLogMemSize, 0u);
}

TEST_F(MediaKpiWriterTest, AddOneKpiTakesOnlyWholeNumbersFromZeroToInt32Max) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    sp<KpiWriter> writer = new KpiWriter;
    Vector<MediaKpi> list;
    writer->AddOneKpi(list, String8("916019006"), String8(" 42 "), String8("\t2147483647\n"));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].eventId, 916019006);
    EXPECT_EQ(list[0].subType, 42);
    EXPECT_EQ(list[0].value, 2147483647);
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag,
                              "AddOneKpi: event id (916019006) = subType ( 42 ): value (\t2147483647\n)"));

    const String8 rejected[] = {String8("42x"), String8("-1"), String8("2147483648"),
                                String8(""), String8("  "), String8("99999999999999999999"),
                                String8("4 2"), String8("4\0", 2)};
    for (const String8& bad : rejected) {
        writer->AddOneKpi(list, String8("1"), String8("2"), bad);
        writer->AddOneKpi(list, bad, String8("2"), String8("3"));
    }
    EXPECT_EQ(list.size(), 1u);
    for (const LogLine& line : mLog.Lines()) {
        EXPECT_EQ(line.priority, ANDROID_LOG_DEBUG) << "rejected without a log line of its own";
    }
}

TEST_F(MediaKpiWriterTest, SendKpisNamesParametersByEventId) {
    setenv("VEXEL_REJECT_IDS", "916019009", 1);
    sp<KpiWriter> writer = new KpiWriter;
    Vector<MediaKpi> list;
    for (int i = 1; i <= 9; ++i) {
        list.add(MediaKpi{916019000 + i, i, 10 + i});
    }
    list.add(MediaKpi{916019000, 1, 1});
    writer->Send(list);
    unsetenv("VEXEL_REJECT_IDS");

    const char* names[][2] = {{"SupportsL", "SupportsH"},       {"ProtocolType", "Supports"},
                              {"LatencyType", "LatencyTime"},   {"ResourceType", "ResourceConsumption"},
                              {"ResourceType", "ResourceLoad"}, {"PowerType", "PowerConsumption"},
                              {"StabilityType", "TestResult"}};
    std::vector<std::string> expected;
    for (int i = 1; i <= 7; ++i) {
        expected.push_back("{\"id\":" + std::to_string(916019000 + i) + ",\"params\":[{\"name\":\"" +
                           names[i - 1][0] + "\",\"int\":" + std::to_string(i) + "},{\"name\":\"" +
                           names[i - 1][1] + "\",\"int\":" + std::to_string(10 + i) + "}]}");
    }
    EXPECT_EQ(mEvents.Lines(), expected) << "ids without names are not sent";
    EXPECT_EQ(writer->mLogMemSize, 7u * 8u);
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag, "Unknown kpi eventId(916019009)"));
}

TEST_F(MediaKpiWriterTest, AllowsTwoHundredFiftySixEventsPerCycle) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    ScopedProperty upload("ro.media.uploadduration", "100");
    sp<KpiWriter> writer = new KpiWriter;
    Vector<MediaKpi> list;
    for (int i = 0; i < 256; ++i) {
        list.add(MediaKpi{916019001, 0, i});
    }
    writer->Send(list);
    EXPECT_EQ(writer->mLogMemSize, 2048u);
    mLog.Clear();
    writer->WriteKpis(String8("abc"));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag,
                              "WriteKpis: current kpi size(2048) exceed MAX_KPI_SIZE(2048)"));
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, "Kpis abc miss a value"), 0u)
        << "not parsed when full";

    const long cycle = writer->globalMediaLogCycleDuration;
    const long start = systemTime(SYSTEM_TIME_MONOTONIC) - cycle - cycle / 2;
    writer->mLastSendTime = start;
    writer->TriggerLog();
    EXPECT_EQ(writer->mLogMemSize, 0u) << "a new cycle, a new allowance";
    EXPECT_EQ(writer->mLastSendTime, start + cycle);
    EXPECT_EQ(mEvents.Lines().size(), 256u) << "the cycle's turn uploads nothing itself";
}

}  // namespace
