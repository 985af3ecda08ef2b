// Registered twice: with the host reporting library on the search path, and
// without it (MediaBigDataWriterAbsent.*).
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaBigDataWriter;
using android::Mutex;
using android::sp;
using android::String8;

namespace {

const char kTag[] = "Vymedia_monitor_bigdata";
const char kTrigger[] = "MediaLogBase::TriggerLogStrategy";
const char kUnknown[] = "Unknown bigdata type";
const std::regex kCtime(R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}\n)");

std::string ReadFile(const char* path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string Render(int value) { return std::to_string(value); }
std::string Render(const String8& value) {
    return std::regex_match(value.string(), kCtime) ? "<ctime>" : value.string();
}
template <typename Value>
std::string Render(const android::DefaultKeyedVector<String8, Value>& fields) {
    std::string out;
    for (size_t i = 0; i < fields.size(); ++i) {
        out += " " + std::string(fields.keyAt(i).string()) + "=" + Render(fields.valueAt(i));
    }
    return out;
}
std::string Render(const android::BigDataKeyValuesVector& record) {
    return Render(record.intValues) + " |" + Render(record.strValues);
}
template <typename Value>
void Render(std::string& out, const char* table,
            const android::DefaultKeyedVector<int, Value>& entries) {
    for (size_t i = 0; i < entries.size(); ++i) {
        out += (out.empty() ? "" : "; ") + (table + std::to_string(entries.keyAt(i))) +
               Render(entries.valueAt(i));
    }
}

class TestWriter : public MediaBigDataWriter {
public:
    TestWriter() : MediaBigDataWriter(new android::MediaMonitorPolicy) {}

    // The store as "C<id> k=v ...", "S<id> k=v ..." and "K<id> ints | texts"
    // joined by "; ", a HAPPEN_TIME in ctime's form shown as <ctime>.
    std::string Store() {
        Mutex::Autolock lock(mBigDataLock);
        std::string out;
        Render(out, "C", mBigDataCounts);
        Render(out, "S", mBigDataStrings);
        Render(out, "K", mBigDataKeyValues);
        return out;
    }
    int Charge() {
        Mutex::Autolock lock(mBigDataLock);
        int cur = -1;
        int max = -1;
        GetMemInfos(&cur, &max);
        return cur;
    }
    long LastSendTime() {
        Mutex::Autolock lock(mBigDataLock);
        return mLastSendTime;
    }
    void SetLastSendTime(long time) {
        Mutex::Autolock lock(mBigDataLock);
        mLastSendTime = time;
    }
    // Counters under ids that no recorder writes.
    void Count(int eventId, const char* key) {
        Mutex::Autolock lock(mBigDataLock);
        UpdateBigDatas(eventId, String8(key), 1);
    }
    using MediaBigDataWriter::globalMediaLogCycleDuration;
};

String8 S(const char* text) { return String8(text); }

// Every recorder, called with the texts "a".."f" and the numbers 5, 6, 7, 8.
const String8 kA("a"), kB("b"), kC("c"), kD("d"), kE("e"), kF("f");
struct Recorder {
    const char* name;
    std::function<void(TestWriter&, int)> call;
    const char* debugLine;  // with %d for the id; null when it logs none of its own
};
const Recorder kString{"WriteBigDataString",
                       [](TestWriter& w, int id) { w.WriteBigDataString(id, kA, kB, 5); },
                       "WriteBigData eventId(%d), subType(a), extStr(b), ext2(5)"};
const Recorder kPkg{"WriteBigDataPkg",
                    [](TestWriter& w, int id) { w.WriteBigDataPkg(id, kA, kB, kC); },
                    "WriteBigData eventId(%d), subType(a), pkgName(b), param(c)"};
const Recorder kPkgType{"WriteBigDataPkgType",
                        [](TestWriter& w, int id) { w.WriteBigDataPkgType(id, kA, kB, kC, 5); },
                        "WriteBigData eventId(%d), subType(a), param(c), type(5)"};
const Recorder kPlay{"WriteBigDataPlayStatus",
                     [](TestWriter& w, int id) { w.WriteBigDataPlayStatus(id, kA, kB, kC, kD); },
                     "WriteBigData eventId(%d), subType(a), volume(c), param(d)"};
const Recorder kBig{"WriteBigData", [](TestWriter& w, int id) { w.WriteBigData(id, kA, 5, 6); },
                    "WriteBigData eventId(%d), subType(a), ext1(5), ext2(6)"};
// The six-argument WriteBigData, by the sub-recorder it reaches.
const auto kBig6Call = [](TestWriter& w, int id) { w.WriteBigData(id, kA, 5, 6, 7, 8); };
const Recorder kBluetoothHD{"WriteBigDataBluetoothHDRecording", kBig6Call,
                            "WriteBigData eventId(%d), pkgName(a), source(5), sampleRate(6), "
                            "btWidth(7),         channelCount(8)"};
const Recorder kSplitStream{"WriteVirtualSplitStreamRecording", kBig6Call,
                            "WriteBigData eventId(%d), pkgName(a), useSplit(5), "
                            "splitStreamDevice(6),         streamType(7)"};
const Recorder kCodec{
        "WriteMediaCodecErrorBigData",
        [](TestWriter& w, int id) { w.WriteMediaCodecErrorBigData(id, kA, kB, kC, kD, kE, 5); },
        nullptr};
const Recorder kCaton{
        "WriteMediaCatonVagueBigData",
        [](TestWriter& w, int id) { w.WriteMediaCatonVagueBigData(id, kA, kB, kC, kD, kE, kF, 5); },
        nullptr};
const Recorder kVideo{"WriteVideoBigData",
                      [](TestWriter& w, int id) {
                          String8 a(kA), b(kB), c(kC), d(kD);
                          w.WriteVideoBigData(id, a, b, c, d, 6, 7, 5);
                      },
                      nullptr};
const Recorder kOut{"WriteBigDataForOutputDevice",
                    [](TestWriter& w, int id) { w.WriteBigDataForOutputDevice(id, kA, kB, 5, 6); },
                    "WriteBigData eventId(%d), subtype(a), pkgName(b), ext1(5), ext2(6)"};
const Recorder kDual{"WriteBigDataForDualBluetooth",
                     [](TestWriter& w, int id) { w.WriteBigDataForDualBluetooth(id, kA, 5, 6, 7); },
                     "WriteBigData eventId(%d), pkgName(a), type1(5), type2(6), type3(7)"};

// An empty store means the id is unknown to the recorder.
const struct Case {
    const Recorder& recorder;
    int id;
    const char* store;
} kCases[] = {
        {kString, 907400028, "S907400028 a=b"},
        {kString, 916120001, "K916120001 DURATION=5 | F1NAME=b PNAME=a"},
        {kString, 918017006, "K918017006 C_COUNT=5 | FUNCTION_NAME=b PROCESS_NAME=a"},
        {kString, 918027006, "K918027006 C_COUNT=5 | FUNCTION_NAME=b PROCESS_NAME=a"},
        {kString, 990971030, "K990971030 TIMES=5 | BIGTYPE=b PACKAGENAME=a"},
        {kPkg, 916600002, "S916600002 HAPPEN_TIME=<ctime> PARAMETER=c a=b"},
        {kPkg, 916600008, "S916600008 HAPPEN_TIME=<ctime> PARAMETER=c a=b"},
        {kPkg, 916600011, "S916600011 a=c"},
        {kPkg, 916600038, "S916600038 NEW_PKG=a PRE_PKG=b"},
        {kPkg, 916600039, "S916600039 ENABLE=a"},
        {kPkg, 990971022, "S990971022 ACTION=c ACTIVITY=a PACKAGENAME=b"},
        {kPkg, 916600009, ""},
        {kPkg, 916600037, ""},
        {kPkgType, 916000000, "S916000000 PARAMETER=c a=b"},
        {kPkgType, 916600001, "S916600001 HAPPEN_TIME=<ctime> PARAMETER=c a=b"},
        {kPkgType, 916600007, "S916600007 HAPPEN_TIME=<ctime> PARAMETER=c a=b"},
        {kPlay, 916600009, "S916600009 HAPPEN_TIME=<ctime> PARAMETER=d VOLUME=c a=b"},
        {kBig, 916019101, "C916019101 Total=5 a=5"},
        {kBig, 916019203, "C916019203 Total=5 a=5"},
        {kBig, 916019301, "C916019301 Total=1 a=1"},
        {kBig, 916220004, "K916220004 a=5 |"},
        {kBig, 916220007, "K916220007 a=5 |"},
        {kBig, 916300001, "C916300001 a=5"},
        {kBig, 916300002, "C916300002 a=1"},
        {kBig, 916400001, "C916400001 a=1"},
        {kBig, 916600020, "C916600020 a=5"},
        {kBig, 916600030, "K916600030 SAMPLERATE=6 SOURCE=5 | PACKAGENAME=a"},
        {kBig, 916600040, "K916600040 DURATION=6 USER_CHANGED=5 | DEVICE_TYPE=a"},
        {kBig, 916700010, "K916700010 CHANNELCOUNT=5 USETIME=6 |"},
        {kBig, 916700012, "K916700012 USEEXTRAPROTOCOL=5 USESPLITSTREAMDEVICETYPE=6 |"},
        {kBig, 918017001, "K918017001 | PACKAGENAME=a"},
        {kBig, 918017007, "K918017007 DECODER=5 ENCODER=6 | PACKAGENAME=a"},
        {kBig, 990982018, "K990982018 CHANNELCOUNT=5 CHANNELMASK=6 | PACKAGENAME=a"},
        {kBig, 990982019, "K990982019 DEVICETYPE=5 |"},
        {kBig, 916019104, ""},
        {kBig, 916220006, ""},
        {kSplitStream, 916700011,
         "K916700011 STREAMTYPE=7 USESPLITSTREAM=5 USESPLITSTREAMDEVICETYPE=6 |"},
        {kBluetoothHD, 916700001,
         "K916700001 BITWIDTH=7 CHANNELCOUNT=8 SAMPLERATE=6 SOURCE=5 | PACKAGENAME=a"},
        {kBluetoothHD, 916700002, ""},
        {kCodec, 990971029,
         "K990971029 TIMES=5 | BIGTYPE=a COLORSTANDARD=b COLORTRANSFER=c RESOLUTIONCHANGE=d"},
        {kCodec, 918017008,
         "K918017008 TIMES=5 | APPPRIORITY=b FRAMERATE=d PACKAGENAME=a PRIORITY=e RESOLUTION=c"},
        {kCaton, 918017009,
         "K918017009 TIMES=5 | FRAMERATECHANGE=c ISSURFACE=b ISVAGUE=f PACKAGENAME=a "
         "RENDERINGFPS=e RESOLUTIONCHANGE=d"},
        {kVideo, 918017002,
         "K918017002 TIMES=5 | CODECNAME=c PACKAGENAME=a TYPEINFO=b TYPENUM=7 VIDEOFPS=6 "
         "VIDEOSIZE=d"},
        {kVideo, 918017000,
         "K918017000 TIMES=5 | NEWCODECNAME=c OLDCODECNAME=b PACKAGENAME=a PRIORITY=7 VIDEOFPS=6 "
         "VIDEOSIZE=d"},
        {kVideo, 918017001, ""},
        {kOut, 916019104, "K916019104 Total=5 a=5 | pkgName=b"},
        {kDual, 990982020, "K990982020 LEFTRIGHTTIME=7 SPATIALOUTPUTTIME=5 SPATIALTIME=6 |"},
        {kDual, 916700014, "K916700014 curStreamType=6 preStreamType=5 | pkgName=a"},
        {kDual, 916700013, "K916700013 localStreamType=5 oppositeStreamType=6 preemptFlag=7 |"},
};

std::string Format(const char* format, int id) {
    char text[256];
    snprintf(text, sizeof(text), format, id);
    return text;
}

class MediaBigDataWriterTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("VEXEL_EVENT_LOG", "events.jsonl", 1); }
    void TearDown() override {
        unsetenv("VEXEL_EVENT_LOG");
        unsetenv("VEXEL_REJECT_IDS");
    }
    // Two counter ids, one text id and one key/value record.
    static sp<TestWriter> FilledWriter() {
        sp<TestWriter> writer = new TestWriter;
        writer->WriteBigData(916019301, S("x"), 0, 0);
        writer->WriteBigData(916019301, S("x"), 0, 0);
        writer->WriteBigData(916300001, S("y"), 1, 0);
        writer->WriteBigDataPkg(916600003, S("a"), S("p"), S("q"));
        writer->WriteBigData(916600030, S("pkg"), 3, 44100);
        return writer;
    }
    static std::string Events() { return ReadFile("events.jsonl"); }

    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    TempWorkDir mDir;
    LogCapture mLog;
};

using MediaBigDataWriterAbsent = MediaBigDataWriterTest;

TEST_F(MediaBigDataWriterTest, EveryRecorderFillsItsKeysAndLogsUnknownIds) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(std::string(c.recorder.name) + " " + std::to_string(c.id));
        sp<TestWriter> writer = new TestWriter;
        mLog.Clear();
        c.recorder.call(*writer, c.id);
        const bool known = *c.store != '\0';
        EXPECT_EQ(writer->Store(), c.store);
        EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, kUnknown), known ? 0u : 1u);
        // The sub-recorders consult the policy before their caller does again.
        const bool sub = &c.recorder == &kBluetoothHD || &c.recorder == &kSplitStream;
        EXPECT_EQ(mLog.Count(ANDROID_LOG_DEBUG, "Vymedia_monitor", kTrigger),
                  known && sub ? 2u : 1u);
        if (known && c.recorder.debugLine != nullptr) {
            EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag, Format(c.recorder.debugLine, c.id)))
                    << mLog.ToString();
        }
    }
}

TEST_F(MediaBigDataWriterTest, CountersSaturateRefuseNegativeSumsAndChargeByKey) {
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916300001, S("k"), 5, 0);
    EXPECT_EQ(writer->Charge(), 4);
    writer->WriteBigData(916300001, S("k"), INT_MAX, 0);  // would wrap
    writer->WriteBigData(916300001, S("k"), -6, 0);       // would turn negative
    writer->WriteBigData(916300001, S("k"), -5, 0);
    writer->WriteBigData(916300001, S("n"), -3, 0);  // a first delta is kept as it is
    writer->WriteBigData(916300001, S("m"), INT_MAX, 0);
    writer->WriteBigData(916300001, S("m"), 1, 0);
    EXPECT_EQ(writer->Charge(), 12) << "existing keys charge nothing";

    writer->WriteBigDataPkg(916600039, S("on"), S(""), S(""));
    EXPECT_EQ(writer->Charge(), 8) << "a new text sets the charge";
    writer->WriteBigData(916300001, S("p"), 1, 0);
    mLog.Clear();
    writer->WriteBigDataPkg(916600039, S("on"), S(""), S(""));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag, "Already exists."));
    EXPECT_EQ(writer->Charge(), 12);
    writer->WriteBigDataPkg(916600039, S("off"), S(""), S(""));
    EXPECT_EQ(writer->Charge(), 8) << "a changed text sets it too";

    writer->WriteBigData(916700010, S(""), -1, -1);  // no number, no text: no record
    EXPECT_EQ(writer->Store(), "C916300001 k=0 m=2147483647 n=-3 p=1; S916600039 ENABLE=off");
}

TEST_F(MediaBigDataWriterTest, AtTheCapOnlyVideoAndOutputDeviceRecord) {
    for (const Case& c : kCases) {
        if (*c.store == '\0') {
            continue;
        }
        SCOPED_TRACE(std::string(c.recorder.name) + " " + std::to_string(c.id));
        sp<TestWriter> writer = new TestWriter;
        for (int i = 0; i < 512; ++i) {
            writer->WriteBigData(916300001, String8::format("k%03d", i), 1, 0);
        }
        ASSERT_EQ(writer->Charge(), 2048);
        const std::string full = writer->Store();
        mLog.Clear();
        c.recorder.call(*writer, c.id);
        if (&c.recorder == &kVideo || &c.recorder == &kOut) {
            EXPECT_EQ(writer->Store(), full + "; " + c.store);
            continue;
        }
        EXPECT_EQ(writer->Store(), full);
        EXPECT_EQ(mLog.Count(ANDROID_LOG_DEBUG, "Vymedia_monitor", kTrigger), 0u);
        const char* who = &c.recorder == &kCodec   ? "WriteMediaCodecErrorBigData"
                          : &c.recorder == &kCaton ? "WriteMediaCatonVagueBigData"
                                                   : "WriteException";
        EXPECT_TRUE(mLog.Contains(
                ANDROID_LOG_DEBUG, kTag,
                std::string(who) + ": current bigdata size(2048) exceed MAX_BIGDATA_SIZE(2048)"))
                << mLog.ToString();
    }
}

TEST_F(MediaBigDataWriterTest, ReportsThePlatformEventAndCutsLongVideoNumbers) {
    sp<TestWriter> writer = new TestWriter;
    kOut.call(*writer, 916019105);
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_INFO, "qoview",
                              "eventId=916019105 SET_STREAM_VOLUME=5 pkgName=b OUTPUT_DEVICE=6"));
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, kUnknown), 0u);
    EXPECT_EQ(writer->Store(), "");

    String8 s("s");
    writer->WriteVideoBigData(918017002, s, s, s, s, INT_MIN, 123456789, 1);
    EXPECT_EQ(writer->Store(),
              "K918017002 TIMES=1 | CODECNAME=s PACKAGENAME=s TYPEINFO=s "
              "TYPENUM=123456789 VIDEOFPS=-21474836 VIDEOSIZE=s");
}

TEST_F(MediaBigDataWriterTest, DumpsCountersAndTextsButNotRecords) {
    const std::string dump = DumpText(*FilledWriter());
    EXPECT_TRUE(std::regex_match(
            dump, std::regex("\n\n---------BigData Record Begin---------\n\n"
                             "eventId: 916019301\ntype: Total, value: 2\ntype: x, value: 2\n"
                             "eventId: 916300001\ntype: y, value: 1\n"
                             "eventId: 916600003\ntype: HAPPEN_TIME, valueStr: [^\n]+\n\n"
                             "type: PARAMETER, valueStr: q\ntype: a, valueStr: p\n")))
            << dump;
}

TEST_F(MediaBigDataWriterTest, UploadsEachTableInKeyOrderThenEmptiesTheStore) {
    setenv("VEXEL_REJECT_IDS", "916600020,990971022,918017001", 1);
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916019301, S("x"), 0, 0);
    writer->WriteBigData(916600020, S("r"), 1, 0);
    writer->Count(916219002, "kept");
    writer->Count(916019401, "kept");
    writer->WriteBigDataPkg(916600038, S("new"), S("pre"), S(""));
    writer->WriteBigDataPkg(990971022, S("act"), S("pkg"), S("go"));
    writer->WriteBigData(916600030, S("pkg"), 3, 44100);
    writer->WriteBigData(918017001, S("pkg"), 0, 0);
    const long before = writer->LastSendTime();

    writer->SendMediaLog();
    EXPECT_EQ(Events(),
              "{\"id\":916019301,\"params\":[{\"name\":\"Total\",\"int\":1},"
              "{\"name\":\"x\",\"int\":1}]}\n"
              "{\"id\":916600038,\"params\":[{\"name\":\"NEW_PKG\",\"str\":\"new\"},"
              "{\"name\":\"PRE_PKG\",\"str\":\"pre\"}]}\n"
              "{\"id\":916600030,\"params\":[{\"name\":\"SAMPLERATE\",\"int\":44100},"
              "{\"name\":\"SOURCE\",\"int\":3},{\"name\":\"PACKAGENAME\",\"str\":\"pkg\"}]}\n");
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag, "Unknown bigdata eventId(916600020)"));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag, "Unknown bigDataStr eventId(990971022)"));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag, "Unknown bigdata eventId(918017001)"));
    EXPECT_EQ(writer->Store(), "");
    EXPECT_EQ(writer->Charge(), 0);
    EXPECT_EQ(writer->LastSendTime(), before + writer->globalMediaLogCycleDuration);

    writer->SendMediaLog();
    EXPECT_EQ(writer->LastSendTime(), before + 2 * writer->globalMediaLogCycleDuration)
            << "an empty upload still moves on";
}

TEST_F(MediaBigDataWriterTest, PolicyUploadsOnceTheCycleHasPassed) {
    ScopedProperty cycle("ro.media.uploadduration", "1");
    constexpr long kSecond = 1000000000L;
    sp<TestWriter> writer = new TestWriter;
    writer->WriteBigData(916300001, S("k"), 1, 0);
    writer->SetLastSendTime(systemTime(SYSTEM_TIME_MONOTONIC) + 3600 * kSecond);
    writer->TriggerLog();
    EXPECT_EQ(Events(), "") << "not due yet";

    const long due = systemTime(SYSTEM_TIME_MONOTONIC) - kSecond;
    writer->SetLastSendTime(due);
    writer->TriggerLog();
    EXPECT_EQ(Events(), "{\"id\":916300001,\"params\":[{\"name\":\"k\",\"int\":1}]}\n");
    EXPECT_EQ(writer->LastSendTime(), due + kSecond);
    EXPECT_EQ(writer->Store(), "");
}

TEST_F(MediaBigDataWriterAbsent, UploadLogsOneErrorPerIdAndStillEmpties) {
    sp<TestWriter> writer = FilledWriter();
    writer->SendMediaLog();
    for (const char* line :
         {"Unknown bigdata eventId(916019301)", "Unknown bigdata eventId(916300001)",
          "Unknown bigDataStr eventId(916600003)", "Unknown bigdata eventId(916600030)"}) {
        EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, line), 1u) << line;
    }
    EXPECT_EQ(mLog.CountContaining(kTag, "Unknown big"), 4u);
    EXPECT_EQ(writer->Store(), "");
    EXPECT_EQ(Events(), "");
}

}  // namespace
