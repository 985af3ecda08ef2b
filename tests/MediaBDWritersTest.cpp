#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/NamedProcess.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"
#include "writers/MediaBDCountWriter.h"
#include "writers/MediaBDFlowWriter.h"
#include "writers/MediaMonitorPolicy.h"

using namespace android;

namespace {

constexpr char kTag[] = "Vymedia_monitor";
constexpr int kUnknownPid = 0x7ffffff0;  // no such process: "Unknow App"
constexpr long kCycle = 2000000000L * 1000000000L;
const std::string kTime = R"(\d\d-\d\d \d\d:\d\d:\d\d)";

std::string ReadFile(const char* path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

size_t OpenFds() {
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

int ModeOf(const char* path) {  // -1: no such file
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
}

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
    static void MakeLogDir() {
        mkdir("data", 0775);
        mkdir("data/log", 0775);
    }

    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    // Never due by time unless a test moves mLastSendTime back.
    ScopedProperty mUpload{"ro.media.uploadduration", "2000000000"};
    TempWorkDir mDir;
    LogCapture mLog;
    sp<MediaMonitorPolicy> mPolicy = new MediaMonitorPolicy;
};

TEST_F(BDWriterTest, CountWriterCountsByApplicationThenPidAndSaturates) {
    MakeLogDir();
    NamedProcess server("mediaserver");
    struct Saturating : CountWriter {
        using CountWriter::CountWriter;
        void Saturate(const String8& app, int type) {
            Mutex::Autolock lock(mLock);
            mAppCounters.editValueFor(app).replaceValueFor(type, 4294967294u);
        }
    };
    sp<Saturating> writer = new Saturating(mPolicy);
    for (int type : {5, 5, 5, 2}) {
        writer->WriteBigDataMsg(server.pid(), type);
    }
    EXPECT_EQ(writer->mLogMemSize, 8u);
    writer->WriteBigDataMsg(kUnknownPid, 3);
    writer->WriteBigDataMsg(-1, 4);
    writer->FlushToFile();
    const std::string body = ":\n\t4:1\nmediaserver:\n\t2:1\n\t5:3\nUnknow App@2147483632:\n\t3:1\n";
    EXPECT_EQ(ReadFile(BD_COUNT_FILE), "---------New Record Begin---------\n\n" + body);
    EXPECT_EQ(DumpText(*writer), "\n\n---------bigData Count Record Begin---------\n\n" + body);

    writer->Saturate(String8(), 4);
    mLog.Clear();
    writer->WriteBigDataMsg(-1, 4);
    EXPECT_NE(DumpText(*writer).find(":\n\t4:4294967294\n"), std::string::npos);
    EXPECT_EQ(mLog.CountContaining(kTag, "TriggerLogStrategy"), 0u) << mLog.ToString();
}

TEST_F(BDWriterTest, CountWriterIsFlushedAtItsCapOrDropsWhenNothingFlushesIt) {
    MakeLogDir();
    sp<CountWriter> writer = new CountWriter(mPolicy);
    sp<CountWriter> alone = new CountWriter(nullptr);
    for (int type = 0; type <= 128; ++type) {
        writer->WriteBigDataMsg(kUnknownPid, type);
        alone->WriteBigDataMsg(kUnknownPid, type);
    }
    EXPECT_EQ(writer->mLogMemSize, 4u) << "128 pairs flushed, one held";
    const std::string file = ReadFile(BD_COUNT_FILE);
    EXPECT_EQ(std::count(file.begin(), file.end(), '\t'), 128);
    EXPECT_EQ(alone->mLogMemSize, 512u);
    EXPECT_EQ(DumpText(*alone).find("\t128:"), std::string::npos);
}

TEST_F(BDWriterTest, FlowWriterFileAndDumpDifferByTheirBlanks) {
    MakeLogDir();
    NamedProcess server("mediaserver");
    sp<FlowWriter> writer = new FlowWriter(mPolicy);
    writer->WriteBigDataMsg(server.pid(), 7, String8("a"));
    EXPECT_EQ(writer->mLogMemSize, 34u);
    writer->WriteBigDataMsg(-1, 1, String8("b"));
    writer->FlushToFile();
    const std::string app = "  mediaserver@" + std::to_string(server.pid());
    EXPECT_TRUE(std::regex_match(ReadFile(BD_FLOW_FILE),
                                 std::regex("\n" + kTime + app + ":7,a\n" + kTime + "  @-1:1,b")));
    EXPECT_TRUE(std::regex_match(
            DumpText(*writer), std::regex("\n\n---------bigData Flow Record Begin---------\n\n\n" +
                                       kTime + app + ": 7, a\n" + kTime + "  @-1: 1, b")));
}

TEST_F(BDWriterTest, FlowWriterIsFlushedAtItsCapAndUploadsWhenDueEvenIfFull) {
    MakeLogDir();
    sp<FlowWriter> writer = new FlowWriter(mPolicy);
    for (int i = 0; i < 15; ++i) {  // 10 + 10 + 14 + 8 each: the 13th reaches 512
        writer->WriteBigDataMsg(kUnknownPid, 1, String8("0123456789"));
    }
    EXPECT_EQ(writer->mLogMemSize, 84u);
    const std::string file = ReadFile(BD_FLOW_FILE);
    EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), 13);

    writer->mLogMemSize = 512;
    writer->mLastSendTime -= kCycle;
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
    const size_t baseline = OpenFds();
    const mode_t mask = umask(0);
    const char* path = nullptr;
    {
        sp<TypeParam> writer = new TypeParam(this->mPolicy);  // no data/log yet
        path = sp<MediaLogBase>(writer)->GetFilePath();
        WriteOne(writer.get());
        EXPECT_TRUE(writer->SendMediaLog());
        this->MakeLogDir();
        WriteOne(writer.get());
        writer->FlushToFile();
        EXPECT_EQ(ModeOf(path), -1) << "only an upload creates the file";
        EXPECT_TRUE(writer->SendMediaLog());
        EXPECT_EQ(ModeOf(path), 0664);

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
        EXPECT_EQ(ModeOf(path), -1);
        EXPECT_TRUE(writer->SendMediaLog());
        EXPECT_EQ(ModeOf(path), 0664) << "the upload recreates it";

        ASSERT_EQ(truncate(path, TypeParam::MAX_FILE_SIZE), 0);
        WriteOne(writer.get());
        EXPECT_EQ(ReadFile(path), "") << "a file at its cap is uploaded at once";
    }
    EXPECT_EQ(OpenFds(), baseline);

    remove(path);
    sp<TypeParam> created = new TypeParam(this->mPolicy);
    WriteOne(created.get());
    created->FlushToFile();
    EXPECT_EQ(ModeOf(path), 0640);
    const std::string kept = ReadFile(path);
    sp<TypeParam> reopened = new TypeParam(this->mPolicy);
    EXPECT_EQ(ReadFile(path), kept) << "an existing file is kept";
    umask(mask);
}

}  // namespace
