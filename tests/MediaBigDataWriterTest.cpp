#include <climits>
#include <regex>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::LogRateLimiter;
using android::MediaBigDataWriter;
using android::Mutex;
using android::sp;
using android::String8;

namespace {

const char kTag[] = "Vymedia_monitor_bigdata";
const std::regex kCtime(R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}\n)");

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
    using MediaBigDataWriter::mLogMemSize;

    void SetStoreBytes(size_t bytes) {
        Mutex::Autolock lock(mBigDataLock);
        mStoreBytes = bytes;
    }
};

String8 S(const char* text) { return String8(text); }
const String8 kA("a"), kB("b");

class MediaBigDataWriterTest : public ::testing::Test {
protected:
    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    LogCapture mLog;
};

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

    // The hard byte limit counts what the new key would add, not only what
    // is stored already.
    writer->mLogMemSize = 0;
    writer->SetStoreBytes(android::MAX_BIGDATA_BYTES - 1);
    writer->WriteBigData(916300001, S("new"), 1, 0);
    EXPECT_EQ(writer->Store().find("new="), std::string::npos) << writer->Store();
    writer->SetStoreBytes(0);
    writer->WriteBigData(916300001, S("q"), 1, 0);

    // A forced upload sends one event a record, of all three tables.
    writer->SendMediaLog();
    const android::WriterStats stats = writer->GetStats();
    EXPECT_EQ(stats.uploads, 1u);
    EXPECT_EQ(stats.eventsSent, 4u);
    EXPECT_EQ(stats.bytes, 0u) << "the upload empties the byte count with the store";
}

}  // namespace
