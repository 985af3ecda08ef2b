#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaBDCountWriter.h"
#include "writers/MediaBDFlowWriter.h"
#include "writers/MediaMonitorPolicy.h"

using namespace android;
namespace fs = std::filesystem;

namespace {

constexpr char kTag[] = "Vymedia_monitor";
constexpr int kUnknownPid = 0x7ffffff0;  // no such process: "Unknow App"

long OpenFds() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

template <typename Writer>
struct Exposed : Writer {
    using Writer::Writer;
    using MediaLogBase::mCurFileSize;
    using MediaLogBase::mLastSendTime;
    using MediaLogBase::mLogBody;
    using MediaLogBase::mLogMemSize;
};
using CountWriter = Exposed<MediaBDCountWriter>;
using FlowWriter = Exposed<MediaBDFlowWriter>;

void WriteOne(MediaBDCountWriter* writer) { writer->WriteBigDataMsg(kUnknownPid, 1); }
void WriteOne(MediaBDFlowWriter* writer) { writer->WriteBigDataMsg(kUnknownPid, 1, String8("m")); }

class BDWriterTest : public ::testing::Test {
protected:
    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    // Never due by time unless a test moves mLastSendTime back.
    ScopedProperty mUpload{"ro.media.uploadduration", "2000000000"};
    TempWorkDir mDir;
    LogCapture mLog;
    sp<MediaMonitorPolicy> mPolicy = new MediaMonitorPolicy;
};

TEST_F(BDWriterTest, CountWriterCountsByApplicationThenPidSaturatesAndFlushesAtItsCap) {
    fs::create_directories("data/log");
    struct Saturating : CountWriter {
        using CountWriter::CountWriter;
        void Saturate(const String8& app, int type) {
            Mutex::Autolock lock(mLock);
            mAppCounters.editValueFor(app).replaceValueFor(type, 4294967294u);
        }
    };
    sp<Saturating> writer = new Saturating(mPolicy);
    for (int type : {5, 5, 5, 2}) {
        writer->WriteBigDataMsg(getpid(), type);
    }
    EXPECT_EQ(writer->mLogMemSize, 8u);
    writer->WriteBigDataMsg(kUnknownPid, 3);
    writer->WriteBigDataMsg(-1, 4);
    writer->FlushToFile();
    // This process is named by its command line up to the first NUL: argv[0].
    const std::string body = ":\n\t4:1\n" + std::string(program_invocation_name) +
                             ":\n\t2:1\n\t5:3\nUnknow App@2147483632:\n\t3:1\n";
    EXPECT_EQ(ReadFile(BD_COUNT_FILE), "---------New Record Begin---------\n\n" + body);
    EXPECT_EQ(DumpText(*writer), "\n\n---------bigData Count Record Begin---------\n\n" + body);

    writer->Saturate(String8(), 4);
    mLog.Clear();
    writer->WriteBigDataMsg(-1, 4);
    EXPECT_NE(DumpText(*writer).find(":\n\t4:4294967294\n"), std::string::npos);
    EXPECT_EQ(mLog.CountContaining(kTag, "TriggerLogStrategy"), 0u) << mLog.ToString();

    writer->SendMediaLog();
    for (int type = 0; type <= 128; ++type) {
        writer->WriteBigDataMsg(kUnknownPid, type);
    }
    EXPECT_EQ(writer->mLogMemSize, 4u) << "128 pairs flushed, one held";
    const std::string file = ReadFile(BD_COUNT_FILE);
    EXPECT_EQ(std::count(file.begin(), file.end(), '\t'), 128);

    // Without a policy to flush it, the writer refuses what comes past its cap.
    sp<CountWriter> alone = new CountWriter(nullptr);
    for (int type = 0; type <= 128; ++type) {
        alone->WriteBigDataMsg(kUnknownPid, type);
    }
    EXPECT_EQ(alone->mLogMemSize, 512u);
}

TEST_F(BDWriterTest, FlowWriterFileAndDumpDifferByTheirBlanksAndItUploadsWhenDueEvenIfFull) {
    fs::create_directories("data/log");
    const std::regex time(R"(\d\d-\d\d \d\d:\d\d:\d\d)");
    sp<FlowWriter> writer = new FlowWriter(mPolicy);
    writer->WriteBigDataMsg(kUnknownPid, 7, String8("a"));
    EXPECT_EQ(writer->mLogMemSize, 33u) << "text, name, time and 8";
    writer->WriteBigDataMsg(-1, 1, String8("b"));
    writer->FlushToFile();
    EXPECT_EQ(std::regex_replace(ReadFile(BD_FLOW_FILE), time, "<t>"),
              "\n<t>  Unknow App@2147483632:7,a\n<t>  @-1:1,b");
    EXPECT_EQ(std::regex_replace(DumpText(*writer), time, "<t>"),
              "\n\n---------bigData Flow Record Begin---------\n\n"
              "\n<t>  Unknow App@2147483632: 7, a\n<t>  @-1: 1, b");

    writer->SendMediaLog();
    for (int i = 0; i < 15; ++i) {  // 10 + 10 + 14 + 8 each: the 13th reaches 512
        writer->WriteBigDataMsg(kUnknownPid, 1, String8("0123456789"));
    }
    EXPECT_EQ(writer->mLogMemSize, 84u);
    const std::string file = ReadFile(BD_FLOW_FILE);
    EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), 13);

    writer->mLogMemSize = 512;
    writer->mLastSendTime -= 2000000000L * 1000000000L;
    mLog.Clear();
    writer->WriteBigDataMsg(kUnknownPid, 1, String8("dropped"));
    EXPECT_EQ(ReadFile(BD_FLOW_FILE), "");
    EXPECT_EQ(mLog.CountContaining(kTag, "DoSendMediaLog: \n"), 1u) << "15 lines uploaded";
    EXPECT_EQ(mLog.CountContaining(kTag, "dropped"), 0u);
}

template <typename Writer>
class BDFileWriterTest : public BDWriterTest {};
using FileWriters = ::testing::Types<CountWriter, FlowWriter>;
TYPED_TEST_SUITE(BDFileWriterTest, FileWriters);

TYPED_TEST(BDFileWriterTest, KeepsGoingWithoutItsFileAndLeaksNoDescriptor) {
    const long baseline = OpenFds();
    {
        sp<TypeParam> writer = new TypeParam(this->mPolicy);  // no data/log yet
        const char* path = sp<MediaLogBase>(writer)->GetFilePath();
        WriteOne(writer.get());
        EXPECT_TRUE(writer->SendMediaLog());
        fs::create_directories("data/log");
        EXPECT_TRUE(writer->SendMediaLog());
        EXPECT_TRUE(fs::exists(path)) << "an upload creates the file";

        WriteOne(writer.get());
        EXPECT_TRUE(writer->SendMediaLog());
        EXPECT_TRUE(writer->mLogBody.isEmpty());
        EXPECT_EQ(ReadFile(path), "");
        EXPECT_EQ(writer->mCurFileSize, 0);
        EXPECT_TRUE(writer->SendMediaLog()) << "with nothing to send as well";
        EXPECT_EQ(OpenFds(), baseline + 1);

        remove(path);
        WriteOne(writer.get());
        writer->FlushToFile();
        EXPECT_FALSE(fs::exists(path)) << "a removed file stays so until the next upload";
        EXPECT_TRUE(writer->SendMediaLog());
        WriteOne(writer.get());
        writer->FlushToFile();
        sp<TypeParam> reopened = new TypeParam(this->mPolicy);
        EXPECT_NE(ReadFile(path), "") << "the upload recreated it and a new writer keeps it";
    }
    EXPECT_EQ(OpenFds(), baseline);
}

}  // namespace
