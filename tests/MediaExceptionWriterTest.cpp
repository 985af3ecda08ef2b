#include <stdlib.h>

#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaExceptionWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::String8;

namespace {

const char kTag[] = "Vymedia_monitor_exception";
const std::string kHead = "\n---------ExceptionLog Record Begin---------\n";

struct ExceptionWriter : android::MediaExceptionWriter {
    ExceptionWriter() : MediaExceptionWriter(new android::MediaMonitorPolicy) {}
    using MediaExceptionWriter::globalMediaLogCycleDuration;
    using MediaExceptionWriter::mLastSendTime;
    using MediaExceptionWriter::mLogMemSize;
};

String8 S(const std::string& text) { return String8(text.c_str()); }

TEST(MediaExceptionWriterTest, MergesReportsByKeyAndChargesNewTextsOnce) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    android::sp<ExceptionWriter> writer = new ExceptionWriter;
    writer->WriteException(10, 901, 1, 2, S("timeout"), S("AudioTrack"));
    writer->WriteException(11, 901, 1, 2, S("timeout"), S("MediaPlayer"));
    EXPECT_EQ(writer->mLogMemSize, 12u + 10u + 13u + 14u) << "a repeated text is not charged";
    writer->WriteException(12, 901, 3, 2, S(""), S("AudioTrack"));
    writer->WriteException(13, 901, 1, 2, S("eof"), S("AudioTrack"), 7, S("x"), 902);
    EXPECT_EQ(writer->mLogMemSize, 49u + 25u + 6u + 4u + 8u);
    EXPECT_EQ(DumpText(*writer),
              kHead + "eventId:901\neventLevel:1\nreason:eof:1;timeout:2\n"
                      "callingApp:AudioTrack:2;MediaPlayer:1\ncount:3\nparaInt:7\nparaChar:x:1\n"
                      "associatedEventId:902\n"
                      "eventId:901\neventLevel:3\nreason:\ncallingApp:AudioTrack:1\ncount:1\n"
                      "paraInt:-1\nparaChar:\nassociatedEventId:-1\n");
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, kTag,
                             "new eventId(901), eventLevel(1), subType(2), reason(eof:1;timeout:2),"
                             "        callingapp (AudioTrack:2;MediaPlayer:1), count(3), "
                             "paraInt(7), paraChar(x:1), associatedEventId(902)"));
}

TEST(MediaExceptionWriterTest, UploadsOncePerCycleWithLongFormKeysOnlyAfterLongForm) {
    ScopedProperty upload("ro.media.uploadduration", "100");
    TempWorkDir dir;
    EventLog events;
    LogCapture log;
    setenv("VEXEL_REJECT_IDS", "903", 1);
    android::sp<ExceptionWriter> writer = new ExceptionWriter;
    writer->WriteException(1, 901, 1, 2, S("r"), S(""));
    writer->WriteException(1, 902, 2, 0, S("s"), S("app"));
    writer->WriteException(1, 902, 2, 0, S("s"), S("app"), 5, S(""), 77);
    writer->WriteException(1, 903, 1, 1, S("lost"), S("app"));
    writer->WriteException(1, 904, 0, 0, S(""), S(""), -3, S("p"), 1);
    EXPECT_TRUE(events.Lines().empty()) << "not due within a cycle of creation";

    const long cycle = writer->globalMediaLogCycleDuration;
    const long start = systemTime(SYSTEM_TIME_MONOTONIC) - 2 * cycle - cycle / 2;
    writer->mLastSendTime = start;
    writer->TriggerLog();
    unsetenv("VEXEL_REJECT_IDS");
    const std::string level = R"({"name":"EeventLevel","int":)";
    EXPECT_EQ(events.Lines(),
              std::vector<std::string>({
                  R"({"id":901,"params":[)" + level + R"(1},{"name":"SubType","int":2},)"
                      R"({"name":"Reason","str":"r:1"},{"name":"Count","int":1}]})",
                  R"({"id":902,"params":[)" + level + R"(2},{"name":"SubType","int":0},)"
                      R"({"name":"Reason","str":"s:2"},{"name":"CallingApp","str":"app:2"},)"
                      R"({"name":"Count","int":2},{"name":"ParaInt","int":5},)"
                      R"({"name":"AssociatedEeventID","int":77}]})",
                  R"({"id":904,"params":[)" + level + R"(0},{"name":"SubType","int":0},)"
                      R"({"name":"Count","int":1},{"name":"ParaInt","int":-3},)"
                      R"({"name":"ParaChar","str":"p:1"},{"name":"AssociatedEeventID","int":1}]})",
              }));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, kTag, "Unknown exception eventId(903)"));
    EXPECT_EQ(writer->mLastSendTime, start + cycle) << "moves by one cycle, not to now";
    EXPECT_EQ(DumpText(*writer), kHead);
}

TEST(MediaExceptionWriterTest, BoundsUploadStringsAndDropsReportsWhenFull) {
    android::sp<ExceptionWriter> writer = new ExceptionWriter;
    const std::string longest(61, 'r');  // with ":1", 63 characters
    for (const std::string& reason : {longest + "r", longest, std::string("a")}) {
        writer->WriteException(1, 901, 1, 0, S(reason), S(""));
    }
    EXPECT_EQ(writer->mLogMemSize, 12u + 61u + 3u);

    for (int subType = 1; writer->mLogMemSize < 10240; ++subType) {
        writer->WriteException(1, 901, 2, subType, S(""), S(""));
    }
    const std::string full = DumpText(*writer);
    writer->WriteException(1, 901, 1, 0, S("x"), S(""));
    writer->WriteException(1, 905, 1, 0, S(""), S(""), 1, S("y"), 2);
    EXPECT_EQ(DumpText(*writer), full);
}

}  // namespace
