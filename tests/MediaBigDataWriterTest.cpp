// Registered twice: with the host reporting library on the search path, and
// without it (MediaBigDataWriterAbsent.*).
#include <chrono>
#include <climits>
#include <fstream>
#include <regex>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::LogRateLimiter;
using android::MediaBigDataWriter;
using android::Mutex;
using android::sp;
using android::String8;

namespace {

const char kTag[] = "Vymedia_monitor_bigdata";
const char kTrigger[] = "MediaLogBase::TriggerLogStrategy";
const std::regex kCtime(R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}\n)");

std::string Events() { return ReadFile("events.jsonl"); }

std::string Render(int value) { return std::to_string(value); }
std::string Render(const String8& value) { return value.string(); }
std::string Render(const android::BigDataKeyValuesVector& record);
template <typename Key, typename Value>
std::string Render(const android::DefaultKeyedVector<Key, Value>& map) {
    std::string out;
    for (size_t i = 0; i < map.size(); ++i) {
        out += (i == 0 ? "" : " ") + Render(map.keyAt(i)) + "=" + Render(map.valueAt(i));
    }
    return "{" + out + "}";
}
std::string Render(const android::BigDataKeyValuesVector& record) {
    return Render(record.intValues) + Render(record.strValues);
}

class TestWriter : public MediaBigDataWriter {
public:
    TestWriter() : MediaBigDataWriter(new android::MediaMonitorPolicy) {}

    // "C{id={k=v ...} ...} S{...} K{id={ints}{texts} ...}", a HAPPEN_TIME shown as <ctime>.
    std::string Store() {
        Mutex::Autolock lock(mBigDataLock);
        return std::regex_replace("C" + Render(mBigDataCounts) + " S" + Render(mBigDataStrings) +
                                          " K" + Render(mBigDataKeyValues),
                                  kCtime, "<ctime>");
    }
    using MediaBigDataWriter::globalMediaLogCycleDuration;
    using MediaBigDataWriter::mBigDataLock;
    using MediaBigDataWriter::mLastSendTime;
    using MediaBigDataWriter::mLogMemSize;
};

String8 S(const char* text) { return String8(text); }
const String8 kA("a"), kB("b"), kC("c"), kD("d"), kE("e"), kF("f");

class MediaBigDataWriterTest : public ::testing::Test {
protected:
    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
};

using MediaBigDataWriterAbsent = MediaBigDataWriterTest;

TEST_F(MediaBigDataWriterTest, EachRecorderFillsItsKeysAndLogsUnknownIds) {
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigDataString(916120001, kA, kB, 5);
    writer->WriteBigDataPkg(916600002, kA, kB, kC);
    writer->WriteBigDataPkg(916600009, kA, kB, kC);  // unknown to this recorder
    writer->WriteBigDataPkgType(916000000, kA, kB, kC, 5);
    writer->WriteBigDataPlayStatus(916600009, kA, kB, kC, kD);
    writer->WriteBigData(916220004, kA, 5, 6);
    writer->WriteBigData(916700001, kA, 5, 6, 7, 8);  // to one sub-recorder
    writer->WriteBigData(916700011, kA, 5, 6, 7, 8);  // to the other
    writer->WriteBigData(916700002, kA, 5, 6, 7, 8);  // to none: unknown
    writer->WriteMediaCodecErrorBigData(918017008, kA, kB, kC, kD, kE, 5);
    writer->WriteMediaCatonVagueBigData(918017009, kA, kB, kC, kD, kE, kF, 5);
    String8 a(kA), b(kB), c(kC), d(kD);
    writer->WriteVideoBigData(918017002, a, b, c, d, INT_MIN, 123456789, 5);  // cut to 9 characters
    writer->WriteBigDataForOutputDevice(916019104, kA, kB, 5, 6);
    writer->WriteBigDataForOutputDevice(916019105, kA, kB, 5, 6);  // a platform event, not stored
    writer->WriteBigDataForDualBluetooth(916700014, kA, 5, 6, 7);
    EXPECT_EQ(writer->Store(),
              "C{} S{916000000={PARAMETER=c a=b} 916600002={HAPPEN_TIME=<ctime> PARAMETER=c a=b} "
              "916600009={HAPPEN_TIME=<ctime> PARAMETER=d VOLUME=c a=b}} "
              "K{916019104={Total=5 a=5}{pkgName=b} 916120001={DURATION=5}{F1NAME=b PNAME=a} "
              "916220004={a=5}{} "
              "916700001={BITWIDTH=7 CHANNELCOUNT=8 SAMPLERATE=6 SOURCE=5}{PACKAGENAME=a} "
              "916700011={STREAMTYPE=7 USESPLITSTREAM=5 USESPLITSTREAMDEVICETYPE=6}{} "
              "916700014={curStreamType=6 preStreamType=5}{pkgName=a} "
              "918017002={TIMES=5}{CODECNAME=c PACKAGENAME=a TYPEINFO=b TYPENUM=123456789 "
              "VIDEOFPS=-21474836 VIDEOSIZE=d} "
              "918017008={TIMES=5}{APPPRIORITY=b FRAMERATE=d PACKAGENAME=a PRIORITY=e "
              "RESOLUTION=c} 918017009={TIMES=5}{FRAMERATECHANGE=c ISSURFACE=b ISVAGUE=f "
              "PACKAGENAME=a RENDERINGFPS=e RESOLUTIONCHANGE=d}}");
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, "Unknown bigdata type"), 2u);
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_INFO, "qoview",
                              "eventId=916019105 SET_STREAM_VOLUME=5 pkgName=b OUTPUT_DEVICE=6"));
    // Once per call, and the sub-recorders before their caller does again.
    EXPECT_EQ(mLog.Count(ANDROID_LOG_DEBUG, "Vymedia_monitor", kTrigger), 17u);
    for (const char* line :
         {"WriteBigData eventId(916700001), pkgName(a), source(5), sampleRate(6), btWidth(7),"
          "         channelCount(8)",
          "WriteBigData eventId(916700011), pkgName(a), useSplit(5), splitStreamDevice(6),"
          "         streamType(7)"}) {
        EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag, line)) << line;
    }
}

TEST_F(MediaBigDataWriterTest, ChargeCountersAndTextsThenAtTheCapOnlyVideoAndOutputDevice) {
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916300001, S("k"), 5, 0);
    EXPECT_EQ(writer->mLogMemSize, 4u);
    writer->WriteBigData(916300001, S("k"), INT_MAX, 0);  // would wrap
    writer->WriteBigData(916300001, S("k"), -6, 0);       // would turn negative
    writer->WriteBigData(916300001, S("k"), -5, 0);
    writer->WriteBigData(916300001, S("n"), -3, 0);  // a first delta is kept as it is
    writer->WriteBigData(916300001, S("m"), INT_MAX, 0);
    writer->WriteBigData(916300001, S("m"), 1, 0);
    EXPECT_EQ(writer->mLogMemSize, 12u) << "existing keys charge nothing";

    writer->WriteBigDataPkg(916600039, S("on"), S(""), S(""));
    EXPECT_EQ(writer->mLogMemSize, 8u) << "a new text sets the charge";
    writer->WriteBigData(916300001, S("p"), 1, 0);
    writer->WriteBigDataPkg(916600039, S("on"), S(""), S(""));
    EXPECT_EQ(writer->mLogMemSize, 12u) << "the same text leaves it";
    writer->WriteBigDataPkg(916600039, S("off"), S(""), S(""));
    EXPECT_EQ(writer->mLogMemSize, 8u) << "a changed text sets it too";

    writer->WriteBigData(916700010, S(""), -1, -1);  // no number, no text: no record
    const std::string stored =
            "C{916300001={k=0 m=2147483647 n=-3 p=1}} S{916600039={ENABLE=off}} K{";
    EXPECT_EQ(writer->Store(), stored + "}");

    writer->mLogMemSize = android::MAX_BIGDATA_SIZE;
    writer->WriteBigDataString(916120001, kA, kB, 5);
    EXPECT_EQ(writer->Store(), stored + "}");
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag,
                              "WriteException: current bigdata size(2048) exceed "
                              "MAX_BIGDATA_SIZE(2048)"));
    String8 s("s");
    writer->WriteVideoBigData(918017000, s, s, s, s, 1, 2, 3);
    writer->WriteBigDataForOutputDevice(916019104, kA, kB, 5, 6);
    EXPECT_EQ(writer->Store(), stored + "916019104={Total=5 a=5}{pkgName=b} 918017000={TIMES=3}{"
                                        "NEWCODECNAME=s OLDCODECNAME=s PACKAGENAME=s PRIORITY=2 "
                                        "VIDEOFPS=1 VIDEOSIZE=s}}");
}

TEST_F(MediaBigDataWriterTest, UploadsEachTableInKeyOrderOnceDueThenEmptiesTheStore) {
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916019301, S("x"), 0, 0);
    {  // under ids that are counted but never uploaded
        Mutex::Autolock lock(writer->mBigDataLock);
        writer->UpdateBigDatas(916219002, S("kept"), 1);
        writer->UpdateBigDatas(916019401, S("kept"), 1);
    }
    writer->WriteBigDataPkg(916600038, S("new"), S("pre"), S(""));
    writer->WriteBigData(916600030, S("pkg"), 3, 44100);
    const long cycle = writer->globalMediaLogCycleDuration;
    const long due = systemTime(SYSTEM_TIME_MONOTONIC) - cycle;
    writer->mLastSendTime = due;
    writer->TriggerLog();
    EXPECT_EQ(Events(),
              "{\"id\":916019301,\"params\":[{\"name\":\"Total\",\"int\":1},"
              "{\"name\":\"x\",\"int\":1}]}\n"
              "{\"id\":916600038,\"params\":[{\"name\":\"NEW_PKG\",\"str\":\"new\"},"
              "{\"name\":\"PRE_PKG\",\"str\":\"pre\"}]}\n"
              "{\"id\":916600030,\"params\":[{\"name\":\"SAMPLERATE\",\"int\":44100},"
              "{\"name\":\"SOURCE\",\"int\":3},{\"name\":\"PACKAGENAME\",\"str\":\"pkg\"}]}\n");
    EXPECT_EQ(writer->mLogMemSize, 0u);
    EXPECT_EQ(writer->mLastSendTime, due + cycle);

    writer->SendMediaLog();
    EXPECT_EQ(writer->mLastSendTime, due + 2 * cycle) << "an empty upload still moves on";
}

TEST_F(MediaBigDataWriterAbsent, DumpsCountersAndTextsAndAnUploadLogsEachIdThenEmpties) {
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916019301, S("x"), 0, 0);
    writer->WriteBigData(916019301, S("x"), 0, 0);
    writer->WriteBigData(916300001, S("y"), 1, 0);
    writer->WriteBigDataPkg(916600003, S("a"), S("p"), S("q"));
    writer->WriteBigData(916600030, S("pkg"), 3, 44100);
    EXPECT_EQ(std::regex_replace(DumpText(*writer), kCtime, "<ctime>"),
              "\n\n---------BigData Record Begin---------\n\n"
              "eventId: 916019301\ntype: Total, value: 2\ntype: x, value: 2\n"
              "eventId: 916300001\ntype: y, value: 1\n"
              "eventId: 916600003\ntype: HAPPEN_TIME, valueStr: <ctime>\n"
              "type: PARAMETER, valueStr: q\ntype: a, valueStr: p\n")
            << "the key/value record is not shown";

    writer->SendMediaLog();
    for (const char* line :
         {"Unknown bigdata eventId(916019301)", "Unknown bigdata eventId(916300001)",
          "Unknown bigDataStr eventId(916600003)", "Unknown bigdata eventId(916600030)"}) {
        EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, line), 1u) << line;
    }
    EXPECT_EQ(writer->Store(), "C{} S{} K{}");
    EXPECT_EQ(Events(), "");
}

TEST_F(MediaBigDataWriterTest, DistinctLongTextKeysStopAtTheByteLimitKeepingTheCharge) {
    ScopedProperty quiet("ro.media.debuggable", "false");  // no debug line per call
    sp<TestWriter> writer = new TestWriter;
    const size_t keyBytes = 1024;
    const std::string filler(keyBytes - 6, 'k');
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100000; ++i) {
        writer->WriteBigDataPkg(916600010, String8::format("%06d%s", i, filler.c_str()), S(""),
                                S("v"));
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count();
    const size_t refusals = mLog.CountContaining(kTag, "bigdata store full");
    EXPECT_GE(refusals, 1u);
    EXPECT_LE(refusals, LogRateLimiter::BURST + LogRateLimiter::PER_SECOND * (seconds + 1));
    int cur = -1;
    int max = -1;
    {
        Mutex::Autolock lock(writer->mBigDataLock);
        writer->GetMemInfos(&cur, &max);
    }
    EXPECT_EQ(cur, 8) << "a new text still sets the charge to 8";

    // Recorders that ignore the cap stop at the byte limit too.
    writer->WriteBigDataForOutputDevice(916019104, String8(filler.c_str()), kB, 5, 6);
    writer->SendMediaLog();
    std::vector<std::string> events = mEvents.Lines();
    ASSERT_EQ(events.size(), 1u);
    size_t params = 0;
    for (size_t at = events[0].find("\"name\""); at != std::string::npos;
         at = events[0].find("\"name\"", at + 1)) {
        ++params;
    }
    EXPECT_LE(params * (keyBytes + 1), android::MAX_BIGDATA_BYTES);
    EXPECT_GE(params * (keyBytes + 1) * 2, android::MAX_BIGDATA_BYTES) << "half of it in use";

    writer->WriteBigDataPkg(916600010, S("again"), S(""), S("v"));
    writer->SendMediaLog();
    events = mEvents.Lines();
    EXPECT_EQ(events.back(), "{\"id\":916600010,\"params\":[{\"name\":\"again\",\"str\":\"v\"}]}")
            << "an upload makes room again";
}

}  // namespace
