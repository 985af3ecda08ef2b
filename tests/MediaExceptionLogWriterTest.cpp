#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaExceptionLogWriter;
using android::MediaMonitorPolicy;
using android::Mutex;
using android::sp;
using android::String8;

namespace {

const char kTag[] = "Vymedia_monitor";
const char kHead[] = "\n---------ExceptionLog Record Begin---------\n";

class LogWriter : public MediaExceptionLogWriter {
public:
    // Without a policy nothing is ever sent or emptied behind the test's back.
    explicit LogWriter(bool withPolicy = true)
        : MediaExceptionLogWriter(withPolicy ? new MediaMonitorPolicy : nullptr) {}
    using MediaExceptionLogWriter::mLastSendTime;
    using MediaExceptionLogWriter::mLogMemSize;

    int Prior(bool nullPtr = false) {
        Mutex::Autolock lock(mLock);
        int prior = -2;
        GetLogPrior(nullPtr ? nullptr : &prior);
        return prior;
    }
};

TEST(MediaExceptionLogWriterTest, JoinsMessagesPerTypeAndReadsBackTypesUpTo15) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    sp<LogWriter> writer = new LogWriter;
    writer->WriteLogMsg(2, 3, String8("a"));
    writer->WriteLogMsg(2, 3, String8("b"));
    EXPECT_EQ(writer->mLogMemSize, 3u);
    writer->WriteLogMsg(2, 20, String8("hidden"));
    writer->WriteLogMsg(2, 5, String8(""));
    writer->WriteLogMsg(2, 5, String8("c"));
    writer->WriteLogMsg(2, 7, String8(""));
    writer->WriteLogMsg(2, 0, String8("zero"));
    EXPECT_EQ(writer->mLogMemSize, 14u) << "type 20 is charged";
    EXPECT_EQ(DumpText(*writer), std::string(kHead) + "\n0:zero\n\n3:a;b\n\n5:c\n");
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, kTag, "WriteLogMsg add, type: 3, msg: a"));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, kTag, "WriteLogMsg append, type: 3, value: a;b"));

    EXPECT_TRUE(writer->IsRemoveMediaLogKey(3));
    EXPECT_FALSE(writer->IsRemoveMediaLogKey(3));
    EXPECT_EQ(writer->mLogMemSize, 14u) << "removing does not uncharge";

    writer->SendMediaLog();
    EXPECT_EQ(log.CountContaining(kTag, "DoSendMediaLog: 0:zero\n5:c\n7:\n, time: "), 1u)
        << log.ToString();
    EXPECT_NE(writer->mLastSendTime, -1);
    EXPECT_EQ(writer->mLogMemSize, 0u);
    EXPECT_EQ(DumpText(*writer), kHead);
}

TEST(MediaExceptionLogWriterTest, FullWriterKeepsOnlyPriorityFour) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    sp<LogWriter> writer = new LogWriter(false);
    writer->WriteLogMsg(2, 1, String8(std::string(512, 'm').c_str()));
    writer->WriteLogMsg(2, 2, String8("x"));
    EXPECT_EQ(writer->Prior(), 2);
    writer->WriteLogMsg(4, 2, String8("y"));
    EXPECT_EQ(writer->Prior(), 4);
    writer->WriteLogMsg(3, 2, String8("z"));
    EXPECT_EQ(writer->Prior(), 3) << "a dropped message still sets the priority";
    EXPECT_EQ(writer->mLogMemSize, 513u);
    EXPECT_EQ(DumpText(*writer),
              std::string(kHead) + "\n1:" + std::string(512, 'm') + "\n\n2:y\n");
    EXPECT_EQ(log.Count(ANDROID_LOG_DEBUG, kTag, "WriteLogMsg, radar already full, drop this msg!"),
              2u);
    EXPECT_EQ(writer->Prior(true), -2);
    EXPECT_TRUE(log.Contains(ANDROID_LOG_WARN, kTag,
                             "MediaExceptionLogWriter::GetLogPrior fail, ptr is null"));
}

TEST(MediaExceptionLogWriterTest, PolicySendsPriorityFourAtOnceAndEmptiesAtTheCap) {
    sp<LogWriter> writer = new LogWriter;
    writer->WriteLogMsg(2, 1, String8(std::string(511, 'm').c_str()));
    EXPECT_EQ(writer->mLastSendTime, -1) << "not timed before the first send";
    writer->WriteLogMsg(2, 1, String8("x"));
    EXPECT_EQ(writer->mLogMemSize, 0u) << "reaching the cap empties without a send";
    EXPECT_EQ(writer->mLastSendTime, -1);

    writer->ForceLogSend(0);
    EXPECT_EQ(writer->mLastSendTime, -1) << "nothing held, nothing sent";
    writer->WriteLogMsg(2, 1, String8("held"));
    writer->ForceLogSend(0);
    EXPECT_NE(writer->mLastSendTime, -1);
    EXPECT_EQ(writer->mLogMemSize, 0u);

    sp<LogWriter> urgent = new LogWriter;
    urgent->WriteLogMsg(4, 1, String8("now"));
    EXPECT_NE(urgent->mLastSendTime, -1);
    EXPECT_EQ(urgent->mLogMemSize, 0u);
}

}  // namespace
