#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaExceptionWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::String8;

namespace {

const std::string kHead = "\n---------ExceptionLog Record Begin---------\n";

struct ExceptionWriter : android::MediaExceptionWriter {
    ExceptionWriter() : MediaExceptionWriter(new android::MediaMonitorPolicy) {}
    using MediaExceptionWriter::globalMediaLogCycleDuration;
    using MediaExceptionWriter::mLastSendTime;
    using MediaExceptionWriter::mLogMemSize;
};

String8 S(const std::string& text) { return String8(text.c_str()); }

TEST(MediaExceptionWriterTest, MergesByKeyAndUploadsEachRecordOnAFixedGrid) {
    ScopedProperty upload("ro.media.uploadduration", "100");
    TempWorkDir dir;
    EventLog events;
    android::sp<ExceptionWriter> writer = new ExceptionWriter;
    writer->WriteException(1, 903, 0, 0, S(""), S(""));  // unknown to the library
    writer->WriteException(1, 901, 1, 2, S("timeout"), S("AudioTrack"));
    writer->WriteException(1, 901, 1, 2, S("timeout"), S("MediaPlayer"));
    writer->WriteException(1, 901, 3, 2, S(""), S(""));
    writer->WriteException(1, 901, 1, 2, S("eof"), S("AudioTrack"), 7, S("x"), 902);
    // Repeated texts are not charged again.
    EXPECT_EQ(writer->mLogMemSize, 12u + 12u + 10u + 13u + 14u + 12u + 6u + 4u + 8u);

    const long cycle = writer->globalMediaLogCycleDuration;
    const long start = systemTime(SYSTEM_TIME_MONOTONIC) - 2 * cycle - cycle / 2;
    writer->mLastSendTime = start;
    setenv("VEXEL_REJECT_IDS", "903", 1);
    writer->TriggerLog();
    unsetenv("VEXEL_REJECT_IDS");
    const std::string head = R"({"id":901,"params":[{"name":"EeventLevel","int":)";
    EXPECT_EQ(events.Lines(),
              std::vector<std::string>({
                  head + R"(1},{"name":"SubType","int":2},)"
                         R"({"name":"Reason","str":"eof:1;timeout:2"},)"
                         R"({"name":"CallingApp","str":"AudioTrack:2;MediaPlayer:1"},)"
                         R"({"name":"Count","int":3},{"name":"ParaInt","int":7},)"
                         R"({"name":"ParaChar","str":"x:1"},)"
                         R"({"name":"AssociatedEeventID","int":902}]})",
                  head + R"(3},{"name":"SubType","int":2},{"name":"Count","int":1}]})",
              }));
    EXPECT_EQ(writer->mLastSendTime, start + cycle) << "moves by one cycle, not to now";
    EXPECT_EQ(DumpText(*writer), kHead);
}

TEST(MediaExceptionWriterTest, BoundsUploadStringsDumpsAndDropsReportsWhenFull) {
    android::sp<ExceptionWriter> writer = new ExceptionWriter;
    const std::string longest(61, 'r');  // with ":1", 63 characters
    for (const std::string& reason : {longest + "r", longest, std::string("a")}) {
        writer->WriteException(1, 901, 1, 0, S(reason), S(""), 7, S(""), 902);
    }
    EXPECT_EQ(writer->mLogMemSize, 12u + 61u + 3u + 3 * 8u);
    EXPECT_EQ(DumpText(*writer), kHead + "eventId:901\neventLevel:1\nreason:" + longest +
                                     ":1\ncallingApp:\ncount:3\nparaInt:7\nparaChar:\n"
                                     "associatedEventId:902\n");

    for (int subType = 1; writer->mLogMemSize < 10240; ++subType) {
        writer->WriteException(1, 901, 2, subType, S(""), S(""));
    }
    const std::string full = DumpText(*writer);
    writer->WriteException(1, 901, 1, 0, S("x"), S(""));
    writer->WriteException(1, 905, 1, 0, S(""), S(""), 1, S("y"), 2);
    EXPECT_EQ(DumpText(*writer), full);
}

}  // namespace
