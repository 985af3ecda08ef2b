#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/FakeWriter.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaMonitorPolicy;
using android::sp;
using android::String8;

namespace {

constexpr long kSecond = 1000000000L;

sp<FakeWriter> MakeWriter(int32_t type = android::LOG_TYPE_BD_FLOW) {
    return new FakeWriter(new MediaMonitorPolicy, type);
}

TEST(MediaLogBaseTest, ReadsUploadCycleAndDebugSwitch) {
    for (auto [upload, cycle] : {std::pair{"3600", 3600 * kSecond}, {"0", 86400 * kSecond},
                                 {"-5", 86400 * kSecond}, {"abc", 86400 * kSecond}}) {
        ScopedProperty property("ro.media.uploadduration", upload);
        EXPECT_EQ(MakeWriter()->globalMediaLogCycleDuration, cycle) << upload;
    }
    for (auto [value, on] : {std::pair{"trueX", true}, {"True", false}, {"1", false}}) {
        ScopedProperty debuggable("ro.media.debuggable", value);
        EXPECT_EQ(MakeWriter()->mDebuggable, on) << value;
    }

    ScopedProperty debuggable("ro.media.debuggable", "true");
    ScopedProperty upload("ro.media.uploadduration", "3600");
    LogCapture log;
    MakeWriter();
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, "Vymedia_monitor",
                             "MediaLogBase globalMediaLogCycleDuration = 3600S"));
}

// Process names and times are checked in the file writers' records.
TEST(MediaLogBaseTest, ExceptionMessageArgumentsAreValidatedOnly) {
    sp<FakeWriter> writer = MakeWriter();
    const android::status_t error = static_cast<android::status_t>(0x80000000);
    EXPECT_EQ(writer->WriteLogExceptionMsg("a", 1, "c", "d"), 0);
    EXPECT_EQ(writer->WriteLogExceptionMsg("a", 1, nullptr, "d"), error);
    EXPECT_EQ(writer->WriteLogExceptionMsg("a", 1, nullptr, "d", "e"), 0) << "c is not checked";
    EXPECT_EQ(writer->WriteLogExceptionMsg("a", 1, "c", "d", nullptr), error);
    EXPECT_EQ(writer->WriteLogExceptionCmd("a", nullptr), error);
    EXPECT_EQ(writer->mLogBody, String8("")) << "validation only";
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(MediaLogBaseTest, LogBodyTakesTheRecordFileUpToWhatTheLogShows) {
    TempWorkDir dir;
    ASSERT_EQ(mkdir("data", 0775), 0);
    ASSERT_EQ(mkdir("data/log", 0775), 0);
    sp<FakeWriter> flow = MakeWriter(android::LOG_TYPE_BD_FLOW);

    int fd = open(android::BD_FLOW_FILE, O_RDWR | O_CREAT, 0664);
    flow->GetMediaLogbody(fd);
    EXPECT_TRUE(IsOpen(fd)) << "nothing held and an empty file: the descriptor stays open";

    ASSERT_EQ(write(fd, "line 1\nline 2\n", 14), 14);
    flow->mLogMemSize = 1;
    flow->GetMediaLogbody(fd);
    EXPECT_EQ(flow->calls, std::vector<std::string>({"WriteToFile"}));
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(flow->mCurFileSize, 14);
    EXPECT_EQ(flow->mLogBody, String8("line 1\nline 2\n"));

    // Any other writer type reads the count file.
    std::ofstream(android::BD_COUNT_FILE) << "count";
    sp<FakeWriter> count = MakeWriter(android::LOG_TYPE_BD_COUNT);
    count->mCurFileSize = 5;
    count->GetMediaLogbody(open("/dev/null", O_RDONLY));
    EXPECT_EQ(count->mLogBody, String8("count"));

    // Only what the debug line can show is read.
    std::ofstream(android::BD_COUNT_FILE) << std::string(100 * 1024, 'c');
    count->mLogBody.clear();
    count->mCurFileSize = 100 * 1024;
    count->GetMediaLogbody(open("/dev/null", O_RDONLY));
    EXPECT_EQ(count->mLogBody.length(), FakeWriter::MAX_RECORD_FILE_READ);
}

// The getters' shared bodies, as a writer of its own tag would use them.
struct ReportingWriter : android::MediaLogBase {
    ReportingWriter() : MediaLogBase(nullptr) {}
    void GetMemInfos(int* cur, int* max) override {
        ReportMemInfos("tag_x", "ReportingWriter::GetMemInfos", cur, max, 2048);
    }
    void GetLastTime(long* lastTime, long* cycle) override {
        ReportLastTime("tag_x", "ReportingWriter::GetLastTime", lastTime, cycle);
    }
    using MediaLogBase::mCurFileSize;
    using MediaLogBase::mLogMemSize;
};

TEST(MediaLogBaseTest, GettersAndSettersRejectNullPointers) {
    ScopedProperty debuggable("ro.media.debuggable", "true");
    LogCapture log;
    sp<ReportingWriter> writer = new ReportingWriter;
    writer->mLogMemSize = 7;
    int cur = -1;
    int max = -1;
    writer->GetMemInfos(&cur, nullptr);
    EXPECT_EQ(cur, -1);
    writer->GetMemInfos(&cur, &max);
    EXPECT_EQ(cur, 7);
    EXPECT_EQ(max, 2048);
    long cycle = 0;
    writer->GetLastTime(nullptr, &cycle);
    EXPECT_EQ(cycle, 0);

    writer->SetCurFileSize(nullptr);
    long size = 42;
    writer->SetCurFileSize(&size);
    EXPECT_EQ(writer->mCurFileSize, 42);

    EXPECT_TRUE(log.Contains(ANDROID_LOG_WARN, "tag_x",
                             "ReportingWriter::GetMemInfos fail, ptr is null"));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_WARN, "tag_x",
                             "ReportingWriter::GetLastTime fail, ptr is null"));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_WARN, "Vymedia_monitor",
                             "MediaLogBase::SetCurFileSize fail, ptr is null"));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_DEBUG, "Vymedia_monitor", "MediaLogBase::SetCurFileSize:42"));

    writer->TriggerLogStrategy();  // without a policy: nothing happens, nothing crashes
}

}  // namespace
