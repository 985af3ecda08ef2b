#include <string>

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
    explicit LogWriter(bool withPolicy)
        : MediaExceptionLogWriter(withPolicy ? new android::MediaMonitorPolicy : nullptr) {}
    using MediaExceptionLogWriter::mLastSendTime;
    using MediaExceptionLogWriter::mLogMemSize;
};

TEST(MediaExceptionLogWriterTest, JoinsPerTypeReadsTypesUpTo15AndKeepsOnlyPriorityFourWhenFull) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    android::sp<LogWriter> writer = new LogWriter(false);
    for (auto [type, msg] : {std::pair{3, "a"}, {3, "b"}, {20, "hidden"}, {5, ""}, {5, "c"},
                             {7, ""}, {0, "zero"}, {15, "l\x7f"}, {16, "past"}}) {
        writer->WriteLogMsg(2, type, String8(msg));
    }
    EXPECT_EQ(writer->mLogMemSize, 20u) << "types 16 and 20 are charged";
    EXPECT_EQ(DumpText(*writer), kHead + "\n0:zero\n\n3:a;b\n\n5:c\n\n15:l\\x7f\n");
    EXPECT_TRUE(writer->IsRemoveMediaLogKey(3));
    writer->SendMediaLog();
    EXPECT_EQ(log.CountContaining("Vymedia_monitor", "DoSendMediaLog: 0:zero\n5:c\n7:\n15:l\x7f\n, time: "),
              1u);

    for (auto [prior, msg] : {std::pair{2, std::string(512, 'm')}, {2, "x"}, {4, "y"}, {3, "z"}}) {
        writer->WriteLogMsg(prior, 1, String8(msg.c_str()));
    }
    EXPECT_EQ(DumpText(*writer), kHead + "\n1:" + std::string(512, 'm') + ";y\n");
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, "Vymedia_monitor",
                             "WriteLogMsg add, type: 1, msg: " + std::string(256, 'm')))
            << "a client's text is cut in the log";
}

}  // namespace
