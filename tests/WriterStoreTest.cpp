// The durable state of the writers: what a store reads back after a death at
// any point of a write, damaged and planted files, and each writer's records
// across a restart.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Crc32.h"
#include "support/TestEnv.h"
#include "writers/MediaBDCountWriter.h"
#include "writers/MediaBDFlowWriter.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/MediaExceptionWriter.h"
#include "writers/MediaMonitorPolicy.h"
#include "writers/WriterStore.h"

using namespace android;

namespace {

constexpr char kDir[] = "data/log";
const std::string kJournal = std::string(kDir) + "/vymm_w.journal";
const std::string kSnapshot = std::string(kDir) + "/vymm_w.snapshot";

// Counts the calls that change files; from call number `dieAt` on, the
// "process" is dead: that call writes only half of its bytes (a torn write)
// and every later one does nothing.
class DyingFileOps : public PersistFileOps {
public:
    explicit DyingFileOps(int dieAt) : mDieAt(dieAt) {}
    ssize_t Write(int fd, const void* data, size_t size) override {
        if (Dead()) {
            if (mCalls == mDieAt && size > 1) {
                PersistFileOps::Write(fd, data, size / 2);
            }
            return -1;
        }
        return PersistFileOps::Write(fd, data, size);
    }
    int Rename(const char* from, const char* to) override {
        return Dead() ? -1 : PersistFileOps::Rename(from, to);
    }
    int Sync(int fd) override { return Dead() ? -1 : PersistFileOps::Sync(fd); }
    int calls() const { return mCalls; }

private:
    bool Dead() { return ++mCalls >= mDieAt; }
    const int mDieAt;
    int mCalls = 0;
};

std::string Op(const std::string& text) {
    StateWriter op;
    op.PutItem(text);
    return op.Bytes();
}

void Overwrite(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

void MakeStateDir() {
    ASSERT_EQ(0, mkdir("data", 0755));
    ASSERT_EQ(0, mkdir(kDir, 0755));
}

class WriterStoreTest : public ::testing::Test {
protected:
    void SetUp() override { MakeStateDir(); }
    TempWorkDir mWorkDir;
};

TEST_F(WriterStoreTest, CutAtEveryOffsetOfTheLastRecordLoadsThePrefix) {
    off_t before = 0;
    {
        WriterStore store(kDir, "w");
        store.Load();
        ASSERT_TRUE(store.Append(Op("first") + Op("second")));
        before = static_cast<off_t>(store.JournalBytes());
        ASSERT_TRUE(store.Append(Op("third")));
    }
    const std::string whole = ReadFile(kJournal);
    for (size_t cut = static_cast<size_t>(before); cut <= whole.size(); ++cut) {
        SCOPED_TRACE(cut);
        Overwrite(kJournal, whole.substr(0, cut));
        WriterStore store(kDir, "w");
        const WriterStore::Contents contents = store.Load();
        const bool whole_ = cut == whole.size();
        EXPECT_EQ(whole_ ? 3u : 2u, contents.operations.size());
        EXPECT_EQ(contents.operations[1], "second");
        EXPECT_EQ(whole_ || cut == static_cast<size_t>(before) ? 0u : 1u,
                  store.Counters().damaged.Get());
        // The cut tail is gone, so what is appended next can be read.
        ASSERT_TRUE(store.Append(Op("next")));
        WriterStore again(kDir, "w");
        EXPECT_EQ("next", again.Load().operations.back());
    }
}

TEST_F(WriterStoreTest, FlippedByteDropsTheDamagedRecordAndWhatFollows) {
    {
        WriterStore store(kDir, "w");
        store.Load();
        ASSERT_TRUE(store.Append(Op("first") + Op("second") + Op("third")));
    }
    std::string bytes = ReadFile(kJournal);
    bytes[bytes.find("second") + 2] ^= 0x20;
    Overwrite(kJournal, bytes);
    WriterStore store(kDir, "w");
    EXPECT_EQ(std::vector<std::string>{"first"}, store.Load().operations);
    EXPECT_EQ(1u, store.Counters().damaged.Get());
    // A death between a snapshot's rename and the journal's cut leaves the
    // older records: they are not replayed on top of the snapshot.
    const std::string older = ReadFile(kJournal);
    ASSERT_TRUE(store.WriteSnapshot("state"));
    Overwrite(kJournal, older);
    WriterStore after(kDir, "w");
    EXPECT_TRUE(after.Load().operations.empty());
    // zlib's checksum, so that any tool can check the files.
    EXPECT_EQ(0xCBF43926u, Crc32("123456789", 9));
    EXPECT_EQ(0xD202EF8Du, Crc32("\0", 1));
}

// A death after the k-th write, sync or rename of a snapshot, for every k,
// leaves the old state (old snapshot and its journal) or the new one, never a
// mix of the two.
TEST_F(WriterStoreTest, DeathAtAnyStepOfASnapshotKeepsOldOrNewState) {
    for (int dieAt = 1;; ++dieAt) {
        SCOPED_TRACE(dieAt);
        TempWorkDir dir;
        MakeStateDir();
        {
            WriterStore store(kDir, "w");
            store.Load();
            ASSERT_TRUE(store.WriteSnapshot("old"));
            ASSERT_TRUE(store.Append(Op("after old")));
        }
        DyingFileOps ops(dieAt);
        {
            WriterStore store(kDir, "w", &ops);
            store.Load();
            store.WriteSnapshot("new");
            store.Append(Op("after new"));
        }
        WriterStore store(kDir, "w");
        const WriterStore::Contents contents = store.Load();
        ASSERT_TRUE(contents.hasSnapshot);
        if (contents.snapshot == "old") {
            EXPECT_EQ(std::vector<std::string>{"after old"}, contents.operations);
        } else {
            EXPECT_EQ("new", contents.snapshot);
            EXPECT_TRUE(contents.operations.empty() ||
                        contents.operations == std::vector<std::string>{"after new"});
        }
        if (ops.calls() < dieAt) {
            EXPECT_EQ("new", contents.snapshot);
            EXPECT_EQ(std::vector<std::string>{"after new"}, contents.operations);
            break;  // it lived through every step
        }
    }
}

TEST_F(WriterStoreTest, PlantedAndForeignFilesAreNotTrusted) {
    // A link to a file of someone else's, and a FIFO that would hold a read.
    Overwrite("victim", "victim");
    ASSERT_EQ(0, symlink("../../victim", kSnapshot.c_str()));
    ASSERT_EQ(0, mkfifo(kJournal.c_str(), 0600));
    {
        WriterStore store(kDir, "w");
        const WriterStore::Contents contents = store.Load();
        EXPECT_FALSE(contents.hasSnapshot);
        ASSERT_TRUE(store.Append(Op("mine")));
        ASSERT_TRUE(store.WriteSnapshot("state"));
    }
    EXPECT_EQ("victim", ReadFile("victim"));
    struct stat st;
    ASSERT_EQ(0, lstat(kJournal.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // Another format version, and a snapshot past its bound: set aside.
    std::string bytes = ReadFile(kSnapshot);
    bytes[4] = 9;
    for (const std::string& planted :
         {bytes, WriterStore::FormatSnapshot(1, std::string(WriterStore::MAX_SNAPSHOT_BYTES + 1,
                                                            'x'))}) {
        Overwrite(kSnapshot, planted);
        WriterStore store(kDir, "w");
        EXPECT_FALSE(store.Load().hasSnapshot);
        EXPECT_EQ(1u, store.Counters().damaged.Get());
        EXPECT_EQ(planted, ReadFile(kSnapshot + ".bad"));
        EXPECT_NE(0, access(kSnapshot.c_str(), F_OK));
    }
}

// Writes what the writer took in, as the worker does after a batch.
void Persist(MediaLogBase* writer, WriterStore* store) {
    const MediaLogBase::PersistWork work = writer->TakePersistWork();
    ASSERT_TRUE(work.snapshot ? store->WriteSnapshot(work.bytes) : store->Append(work.bytes));
}

// A writer as a new service makes it: recovered from the folder's store.
template <typename Writer>
sp<Writer> Start(std::unique_ptr<WriterStore>* store) {
    store->reset(new WriterStore(kDir, "w"));
    sp<Writer> writer = new Writer(nullptr);
    writer->Recover((*store)->Load());
    writer->AttachStore(store->get());
    return writer;
}

template <typename Writer>
class WriterRestartTest : public WriterStoreTest {};

// Fills the writer twice: what the first fill leaves goes into a snapshot,
// the second only into the journal.
void Fill(MediaExceptionLogWriter* w, int round) {
    w->WriteLogMsg(2, 3, String8::format("msg%d", round));
    w->WriteLogMsg(1, 20, String8("unread type"));
}
void Fill(MediaExceptionWriter* w, int round) {
    w->WriteException(1, 901, 1, 2, String8("reason"), String8::format("app%d", round));
    w->WriteException(1, 902, 3, 4, String8("r"), String8("a"), round, String8("p"), 7);
}
void Fill(MediaBigDataWriter* w, int round) {
    w->WriteBigData(916300001, String8("k"), round + 4, 0);
    String8 s1("codec"), s2("v"), s3(String8::format("t%d", round)), s4("x");
    w->WriteVideoBigData(918017000, s1, s2, s3, s4, round, 2, 3);
}
void Fill(MediaBDFlowWriter* w, int round) {
    w->WriteBigDataMsg(getpid(), 7, String8::format("play %d", round));
}
void Fill(MediaBDCountWriter* w, int round) {
    w->WriteBigDataMsg(getpid(), 5 + round);
    w->WriteBigDataMsg(-1, 2);
    w->WriteBigDataMsg(-1, 2);  // a snapshot holds a count above one
}

using Writers = ::testing::Types<MediaExceptionLogWriter, MediaExceptionWriter,
                                 MediaBigDataWriter, MediaBDFlowWriter, MediaBDCountWriter>;
TYPED_TEST_SUITE(WriterRestartTest, Writers);

TYPED_TEST(WriterRestartTest, ANewWriterHoldsWhatTheLastOneHeld) {
    std::unique_ptr<WriterStore> store;
    String8 held;
    WriterStats before;
    {
        sp<TypeParam> writer = Start<TypeParam>(&store);
        Persist(writer.get(), store.get());
        Fill(writer.get(), 1);
        writer->RequestSnapshot();
        Persist(writer.get(), store.get());
        Fill(writer.get(), 2);
        Persist(writer.get(), store.get());
        held = writer->DumpText();
        before = writer->GetStats();
        ASSERT_GT(before.records, 0u);
    }
    sp<TypeParam> writer = Start<TypeParam>(&store);
    EXPECT_EQ(std::string(held.string()), std::string(writer->DumpText().string()));
    const WriterStats after = writer->GetStats();
    EXPECT_EQ(before.records, after.records);
    EXPECT_EQ(before.charge, after.charge);
    EXPECT_EQ(before.bytes, after.bytes);
    EXPECT_GT(after.recoveredRecords, 0u);
    EXPECT_GT(after.recoveredEvents, 0u);
}

// Records flushed to the record file after the last snapshot, by a service
// that died before the next one, are not written to the file again.
TEST_F(WriterStoreTest, RecordsFlushedBeforeADeathAreNotWrittenAgain) {
    std::unique_ptr<WriterStore> store;
    {
        sp<MediaBDCountWriter> writer = Start<MediaBDCountWriter>(&store);
        Persist(writer.get(), store.get());
        Fill(writer.get(), 1);
        Persist(writer.get(), store.get());
        writer->FlushToFile();  // and death before the batch's end
    }
    const std::string file = ReadFile(BD_COUNT_FILE);
    ASSERT_NE(std::string::npos, file.find("New Record"));
    sp<MediaBDCountWriter> writer = Start<MediaBDCountWriter>(&store);
    EXPECT_EQ(0u, writer->GetStats().records);
    writer->FlushToFile();
    const std::string again = ReadFile(BD_COUNT_FILE);
    EXPECT_EQ(again.find("\t6:1"), again.rfind("\t6:1"));
}

// A full disk costs a counter, never the writer's records: once there is
// room again, the next batch's snapshot holds all of them.
TEST_F(WriterStoreTest, AFullDiskIsCountedAndMadeGoodOnceThereIsRoomAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "a tiny tmpfs needs root";
    }
    ASSERT_EQ(0, mount("tmpfs", kDir, "tmpfs", 0, "size=64k")) << strerror(errno);
    Overwrite("data/log/filler", std::string(128 << 10, 'x'));  // more than fits
    std::unique_ptr<WriterStore> store;
    String8 held;
    {
        sp<MediaExceptionWriter> writer = Start<MediaExceptionWriter>(&store);
        for (int round = 0; round < 50; ++round) {
            Fill(writer.get(), round);
            const MediaLogBase::PersistWork work = writer->TakePersistWork();
            if (!(work.snapshot ? store->WriteSnapshot(work.bytes) : store->Append(work.bytes))) {
                writer->RequestSnapshot();
            }
        }
        EXPECT_GT(writer->GetStats().persistFailures, 0u);
        ASSERT_EQ(0, unlink("data/log/filler"));
        Persist(writer.get(), store.get());
        held = writer->DumpText();
    }
    sp<MediaExceptionWriter> writer = Start<MediaExceptionWriter>(&store);
    EXPECT_EQ(std::string(held.string()), std::string(writer->DumpText().string()));
    store.reset();
    umount2(kDir, MNT_DETACH);
}

// Reads the upload grid's anchor under the writer's lock.
class GridProbe : public MediaExceptionWriter {
public:
    GridProbe() : MediaExceptionWriter(nullptr) {}
    nsecs_t LastTime() {
        Mutex::Autolock lock(mLock);
        return mLastSendTime;
    }
    nsecs_t Cycle() const { return globalMediaLogCycleDuration; }
};

// The last upload's wall-clock time is kept: a restart is due a whole cycle
// after it; a clock that went back, or on by more than two cycles, is due
// at once.
TEST_F(WriterStoreTest, TheUploadCycleKeepsItsGridAcrossARestart) {
    ScopedProperty cycle("ro.media.uploadduration", "600");
    const nsecs_t second = seconds_to_nanoseconds(1);
    struct Case {
        nsecs_t lastUploadAgo;
        nsecs_t expectedAgo;
    };
    for (const Case& c : {Case{200 * second, 200 * second}, Case{-3600 * second, 600 * second},
                          Case{1300 * second, 600 * second}}) {
        SCOPED_TRACE(c.lastUploadAgo / second);
        {
            WriterStore store(kDir, "w");
            store.Load();
            StateWriter payload;
            payload.Put64(systemTime(SYSTEM_TIME_REALTIME) - c.lastUploadAgo);
            payload.Put64(-1);
            payload.Put64(0);
            ASSERT_TRUE(store.WriteSnapshot(payload.Bytes()));
        }
        WriterStore store(kDir, "w");
        sp<GridProbe> writer = new GridProbe();
        ASSERT_EQ(600 * second, writer->Cycle());
        writer->Recover(store.Load());
        const nsecs_t ago = systemTime(SYSTEM_TIME_MONOTONIC) - writer->LastTime();
        EXPECT_NEAR(static_cast<double>(c.expectedAgo), static_cast<double>(ago),
                    static_cast<double>(5 * second));
    }
}

}  // namespace
