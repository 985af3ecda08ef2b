#include <stdlib.h>

#include <limits>
#include <string>
#include <tuple>

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

TEST(MediaKpiWriterTest, NamesMalformedTextsAndSendsNamedEventsWithinTheCycleAllowance) {
    TempWorkDir dir;
    EventLog events;
    LogCapture log;
    android::sp<KpiWriter> writer = new KpiWriter;
    for (auto [text, error] : {std::pair{"916019003=1:250", "Kpis 916019003=1:250 valueStart error"},
                               {" \t\r\n=5:6", "Kpis  \\t\\x0d\\n=5:6 contains an empty key"},
                               {"abc", "Kpis abc miss a value"},
                               {"916019003=1", nullptr}}) {
        log.Clear();
        writer->WriteKpis(String8(text));
        EXPECT_EQ(log.Lines().size(), error ? 1u : 0u) << text << "\n" << log.ToString();
        EXPECT_TRUE(!error || log.Contains(ANDROID_LOG_ERROR, "Vymedia_monitor_KPI", error));
    }
    // A flood of them logs little, each text cut short, and forges no line.
    log.Clear();
    const String8 flood((std::string("abc\nforged ") + std::string(1000, 'x')).c_str());
    for (int i = 0; i < 5000; ++i) {
        writer->WriteKpis(flood);
    }
    size_t bytes = 0;
    for (const LogLine& line : log.Lines()) {
        bytes += line.message.size();
        EXPECT_EQ(line.message.find('\n'), std::string::npos) << line.message;
    }
    EXPECT_LT(bytes, 64u * 1024);

    // Each id the library or the name table lacks comes before one that goes out.
    Vector<MediaKpi> list;
    for (int id : {916019001, 916019002, 916019006, 916019000, 916019007, 916019008}) {
        list.add(MediaKpi{id, 2, 37});
    }
    setenv("VEXEL_REJECT_IDS", "916019002", 1);
    writer->Send(list);
    unsetenv("VEXEL_REJECT_IDS");
    const auto event = [](int id, const char* first, const char* second) {
        return "{\"id\":" + std::to_string(id) + ",\"params\":[{\"name\":\"" + first +
               "\",\"int\":2},{\"name\":\"" + second + "\",\"int\":37}]}";
    };
    EXPECT_EQ(events.Lines(), std::vector<std::string>(
                                  {event(916019001, "SupportsL", "SupportsH"),
                                   event(916019006, "PowerType", "PowerConsumption"),
                                   event(916019007, "StabilityType", "TestResult")}));

    list.resize(1);
    for (int i = 3; i < 256; ++i) {
        writer->Send(list);
    }
    EXPECT_EQ(writer->mLogMemSize, 2048u) << "only events sent are charged";
    writer->WriteKpis(String8("abc"));
    EXPECT_EQ(writer->GetStats().refused[android::REFUSED_CAP], 1u) << "full: not even parsed";

    const long cycle = writer->globalMediaLogCycleDuration;
    const long start = systemTime(SYSTEM_TIME_MONOTONIC) - cycle - cycle / 2;
    writer->mLastSendTime = start;
    writer->TriggerLog();
    EXPECT_EQ(writer->mLogMemSize, 0u) << "a new cycle, a new allowance";
    EXPECT_EQ(writer->mLastSendTime, start + cycle);
}

// The longest cycle a property can set is a quarter of the clock's range:
// the fifth upload's grid stops at its end instead of wrapping round to "due".
TEST(MediaKpiWriterTest, TheLongestCycleLeavesTheWriterNeverDue) {
    ScopedProperty upload("ro.media.uploadduration", "2147483647");
    android::sp<KpiWriter> writer = new KpiWriter;
    for (int i = 0; i < 5; ++i) {
        writer->SendMediaLog();
    }
    EXPECT_EQ(writer->mLastSendTime, std::numeric_limits<int64_t>::max());
}

}  // namespace
