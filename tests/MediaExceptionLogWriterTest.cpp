#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::String8;

namespace {

const std::string kHead = "\n---------ExceptionLog Record Begin---------\n";

struct LogWriter : android::MediaExceptionLogWriter {
    // Without a policy nothing is sent or emptied behind the test's back.
    explicit LogWriter(bool withPolicy = true)
        : MediaExceptionLogWriter(withPolicy ? new android::MediaMonitorPolicy : nullptr) {}
    using MediaExceptionLogWriter::mLastSendTime;
    using MediaExceptionLogWriter::mLogMemSize;
};

String8 S(const std::string& text) { return String8(text.c_str()); }

TEST(MediaExceptionLogWriterTest, JoinsMessagesPerTypeAndReadsBackTypesUpTo15) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    android::sp<LogWriter> writer = new LogWriter;
    for (auto [type, msg] : {std::pair{3, "a"}, {3, "b"}, {20, "hidden"}, {5, ""}, {5, "c"},
                             {7, ""}, {0, "zero"}}) {
        writer->WriteLogMsg(2, type, S(msg));
    }
    EXPECT_EQ(writer->mLogMemSize, 14u) << "type 20 is charged";
    EXPECT_EQ(DumpText(*writer), kHead + "\n0:zero\n\n3:a;b\n\n5:c\n");
    EXPECT_TRUE(writer->IsRemoveMediaLogKey(3));
    EXPECT_EQ(writer->mLogMemSize, 14u) << "removing does not uncharge";

    writer->SendMediaLog();
    EXPECT_EQ(log.CountContaining("Vymedia_monitor", "DoSendMediaLog: 0:zero\n5:c\n7:\n, time: "),
              1u)
        << log.ToString();
    EXPECT_NE(writer->mLastSendTime, -1);
    EXPECT_EQ(DumpText(*writer), kHead);
}

TEST(MediaExceptionLogWriterTest, FullWriterKeepsOnlyPriorityFour) {
    android::sp<LogWriter> writer = new LogWriter(false);
    for (auto [prior, msg] : {std::pair{2, std::string(512, 'm')}, {2, "x"}, {4, "y"}, {3, "z"}}) {
        writer->WriteLogMsg(prior, 1, S(msg));
    }
    EXPECT_EQ(DumpText(*writer), kHead + "\n1:" + std::string(512, 'm') + ";y\n");
}

TEST(MediaExceptionLogWriterTest, PolicySendsPriorityFourAtOnceAndEmptiesAtTheCap) {
    android::sp<LogWriter> writer = new LogWriter;
    writer->WriteLogMsg(2, 1, S(std::string(511, 'm')));
    writer->WriteLogMsg(2, 1, S("x"));
    EXPECT_EQ(writer->mLogMemSize, 0u) << "reaching the cap empties without a send";
    EXPECT_EQ(writer->mLastSendTime, -1);

    writer->WriteLogMsg(4, 1, S("now"));
    EXPECT_NE(writer->mLastSendTime, -1);
    EXPECT_EQ(writer->mLogMemSize, 0u);
}

}  // namespace
