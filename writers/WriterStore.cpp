#define LOG_TAG "Vymedia_monitor"

#include "writers/WriterStore.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <log/log.h>

#include "common/Crc32.h"
#include "writers/OwnFile.h"

namespace android {

namespace {

constexpr uint32_t kSnapshotMagic = 0x534D5956;  // "VYMS"
constexpr uint32_t kSnapshotVersion = 1;
constexpr size_t kSnapshotHeader = 20;  // magic, version, generation, length, CRC

void Store32(char* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}

void Put32At(std::string* bytes, uint32_t value) {
    char little[4];
    Store32(little, value);
    bytes->append(little, sizeof(little));
}

uint32_t Get32At(const char* data) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<uint8_t>(data[i]);
    }
    return value;
}

// The checksum of the generation's bytes, which a record's covers first.
uint32_t GenerationCrc(uint32_t gen) {
    char genBytes[4];
    Store32(genBytes, gen);
    return Crc32(genBytes, sizeof(genBytes));
}

uint32_t RecordCrc(uint32_t gen, const char* data, size_t size) {
    return Crc32(data, size, GenerationCrc(gen));
}

// Reads at most limit bytes of fd; false on a read error.
bool ReadBounded(int fd, size_t limit, std::string* out) {
    out->resize(limit);
    size_t got = 0;
    while (got < limit) {
        const ssize_t n = read(fd, &(*out)[got], limit - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    out->resize(got);
    return true;
}

}  // namespace

ssize_t PersistFileOps::Write(int fd, const void* data, size_t size) {
    return write(fd, data, size);
}

int PersistFileOps::Rename(const char* from, const char* to) { return rename(from, to); }

int PersistFileOps::Sync(int fd) { return fsync(fd); }

void StateWriter::Put32(int32_t value) { Put32At(&mBytes, static_cast<uint32_t>(value)); }

void StateWriter::Put64(int64_t value) {
    Put32At(&mBytes, static_cast<uint32_t>(static_cast<uint64_t>(value) & 0xFFFFFFFFu));
    Put32At(&mBytes, static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32));
}

void StateWriter::PutText(const String8& text) {
    Put32(static_cast<int32_t>(text.length()));
    mBytes.append(text.string(), text.length());
}

void StateWriter::PutItem(const std::string& item) { AppendItem(&mBytes, item); }

void AppendItem(std::string* bytes, const std::string& item) {
    Put32At(bytes, static_cast<uint32_t>(item.size()));
    bytes->append(item);
}

bool StateReader::Take(size_t size, const char** out) {
    if (mFailed || size > mSize - mPos) {
        mFailed = true;
        return false;
    }
    *out = mData + mPos;
    mPos += size;
    return true;
}

uint8_t StateReader::GetU8() {
    const char* p = nullptr;
    return Take(1, &p) ? static_cast<uint8_t>(*p) : 0;
}

int32_t StateReader::Get32() {
    const char* p = nullptr;
    return Take(4, &p) ? static_cast<int32_t>(Get32At(p)) : 0;
}

int64_t StateReader::Get64() {
    const uint64_t low = static_cast<uint32_t>(Get32());
    const uint64_t high = static_cast<uint32_t>(Get32());
    return static_cast<int64_t>(low | (high << 32));
}

String8 StateReader::GetText() {
    const uint32_t size = static_cast<uint32_t>(Get32());
    const char* p = nullptr;
    return Take(size, &p) ? String8(p, size) : String8();
}

bool StateReader::GetItem(StateReader* item) {
    if (AtEnd()) {
        return false;
    }
    const uint32_t size = static_cast<uint32_t>(Get32());
    const char* p = nullptr;
    if (!Take(size, &p)) {
        return false;
    }
    *item = StateReader(p, size);
    return true;
}

WriterStore::WriterStore(const char* dir, const char* name, PersistFileOps* ops)
    : mOps(ops != nullptr ? ops : &mRealOps),
      mDir(dir),
      mSnapshotPath(std::string(dir) + "/vymm_" + name + ".snapshot"),
      mJournalPath(std::string(dir) + "/vymm_" + name + ".journal") {}

WriterStore::~WriterStore() {
    if (mJournalFd >= 0) {
        close(mJournalFd);
    }
}

WriterStore::Contents WriterStore::Load() {
    Contents contents;
    ReadSnapshot(&contents);
    LoadJournal(&contents);
    return contents;
}

bool WriterStore::ReadSnapshot(Contents* contents) {
    OwnFileFound found;
    const int fd = OpenOwnFile(mSnapshotPath.c_str(), O_RDONLY, 0, &found);
    if (found == OwnFileFound::REPLACED) {
        ALOGW("state file %s was not a file of ours: removed", mSnapshotPath.c_str());
    }
    if (fd < 0) {
        return false;
    }
    std::string bytes;
    const bool read = ReadBounded(fd, kSnapshotHeader + MAX_SNAPSHOT_BYTES + 1, &bytes);
    close(fd);
    if (!read) {
        return false;
    }
    if (!ParseSnapshot(bytes, &mGeneration, &contents->snapshot)) {
        MoveAside(mSnapshotPath, "unknown format, too long or damaged");
        return false;
    }
    contents->hasSnapshot = true;
    return true;
}

void WriterStore::LoadJournal(Contents* contents) {
    OpenJournal();
    if (mJournalFd < 0) {
        return;
    }
    std::string bytes;
    if (!ReadBounded(mJournalFd, MAX_JOURNAL_BYTES, &bytes)) {
        return;
    }
    bool damaged = false;
    mJournalBytes = ParseJournal(bytes.data(), bytes.size(), mGeneration, &contents->operations,
                                 &damaged);
    struct stat st;
    if (damaged || (fstat(mJournalFd, &st) == 0 && static_cast<size_t>(st.st_size) > mJournalBytes)) {
        mCounters.damaged.Add();
        ALOGW("state file %s: damaged or short record dropped at byte %zu", mJournalPath.c_str(),
              mJournalBytes);
        // Later records would sit behind the damage, never to be read.
        if (ftruncate(mJournalFd, static_cast<off_t>(mJournalBytes)) != 0) {
            Failed("cut", mJournalPath);
        }
    }
    mCounters.journalBytes.Set(mJournalBytes);
}

void WriterStore::OpenJournal() {
    OwnFileFound found;
    mJournalFd = OpenOwnFile(mJournalPath.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600, &found);
    if (found == OwnFileFound::REPLACED) {
        ALOGW("state file %s was not a file of ours: replaced", mJournalPath.c_str());
    }
    if (mJournalFd < 0) {
        Failed("open", mJournalPath);
    }
}

size_t WriterStore::ParseJournal(const char* data, size_t size, uint32_t gen,
                                 std::vector<std::string>* operations, bool* damaged) {
    std::vector<Record> records;
    const size_t sound = ParseRecords(data, size, &records, damaged);
    for (Record& record : records) {
        if (record.generation == gen) {
            operations->push_back(std::move(record.operation));
        }
    }
    return sound;
}

size_t WriterStore::ParseRecords(const char* data, size_t size, std::vector<Record>* records,
                                 bool* damaged) {
    size_t pos = 0;
    *damaged = false;
    while (pos < size) {
        if (size - pos < RECORD_HEADER_BYTES) {
            *damaged = true;
            break;
        }
        const uint32_t length = Get32At(data + pos);
        const uint32_t crc = Get32At(data + pos + 4);
        if (length < 4 || length > size - pos - 8) {
            *damaged = true;
            break;
        }
        const char* body = data + pos + 8;
        if (Crc32(body, length) != crc) {
            *damaged = true;
            break;
        }
        records->push_back({Get32At(body), std::string(body + 4, length - 4)});
        pos += 8 + length;
    }
    return pos;
}

std::string WriterStore::FormatSnapshot(uint32_t gen, const std::string& payload) {
    std::string bytes;
    Put32At(&bytes, kSnapshotMagic);
    Put32At(&bytes, kSnapshotVersion);
    Put32At(&bytes, gen);
    Put32At(&bytes, static_cast<uint32_t>(payload.size()));
    Put32At(&bytes, RecordCrc(gen, payload.data(), payload.size()));
    bytes.append(payload);
    return bytes;
}

bool WriterStore::IsSnapshot(const std::string& bytes) {
    return bytes.size() >= 4 && Get32At(bytes.data()) == kSnapshotMagic;
}

bool WriterStore::ParseSnapshot(const std::string& bytes, uint32_t* gen, std::string* payload) {
    if (bytes.size() < kSnapshotHeader || Get32At(bytes.data()) != kSnapshotMagic ||
        Get32At(bytes.data() + 4) != kSnapshotVersion) {
        return false;
    }
    const uint32_t fileGen = Get32At(bytes.data() + 8);
    const size_t length = Get32At(bytes.data() + 12);
    if (length > MAX_SNAPSHOT_BYTES || bytes.size() != kSnapshotHeader + length ||
        RecordCrc(fileGen, bytes.data() + kSnapshotHeader, length) != Get32At(bytes.data() + 16)) {
        return false;
    }
    *gen = fileGen;
    payload->assign(bytes, kSnapshotHeader, length);
    return true;
}

bool WriterStore::Append(const std::string& framedOperations) {
    if (framedOperations.empty()) {
        return true;
    }
    if (mJournalFd < 0) {
        return false;
    }
    // Each item becomes a record: its length grows by the generation's 4
    // bytes, and the checksum goes in front of the generation. Built in place:
    // the worker does this for every event it dispatches.
    const uint32_t genCrc = GenerationCrc(mGeneration);
    std::string& records = mRecords;
    records.clear();
    StateReader reader(framedOperations);
    StateReader item(nullptr, 0);
    while (reader.GetItem(&item)) {
        const std::string_view op = item.Rest();
        const size_t at = records.size();
        records.resize(at + RECORD_HEADER_BYTES + op.size());
        char* record = &records[at];
        Store32(record, static_cast<uint32_t>(op.size() + 4));
        Store32(record + 4, Crc32(op.data(), op.size(), genCrc));
        Store32(record + 8, mGeneration);
        memcpy(record + RECORD_HEADER_BYTES, op.data(), op.size());
    }
    if (WriteAll(mJournalFd, records) != static_cast<ssize_t>(records.size())) {
        Failed("append to", mJournalPath);
        // A torn record would hide every later one.
        if (ftruncate(mJournalFd, static_cast<off_t>(mJournalBytes)) != 0) {
            Failed("cut", mJournalPath);
        }
        return false;
    }
    mJournalBytes += records.size();
    mCounters.journalBytes.Set(mJournalBytes);
    return true;
}

bool WriterStore::WriteSnapshot(const std::string& payload) {
    const uint32_t gen = mGeneration + 1;
    const std::string temp = mSnapshotPath + ".tmp";
    OwnFileFound found;
    const int fd = OpenOwnFile(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600, &found);
    if (fd < 0) {
        Failed("create", temp);
        return false;
    }
    const std::string bytes = FormatSnapshot(gen, payload);
    const bool written =
            WriteAll(fd, bytes) == static_cast<ssize_t>(bytes.size()) && mOps->Sync(fd) == 0;
    close(fd);
    if (!written || mOps->Rename(temp.c_str(), mSnapshotPath.c_str()) != 0) {
        Failed("write", temp);
        unlink(temp.c_str());
        return false;
    }
    mGeneration = gen;
    mCounters.snapshots.Add();
    // The rename is durable only once the folder is.
    const int dirFd = open(mDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0 || mOps->Sync(dirFd) != 0) {
        Failed("sync", mDir);
    }
    if (dirFd >= 0) {
        close(dirFd);
    }
    // Records of the old generation are skipped from now on; cut them so the
    // journal holds only what follows this snapshot.
    if (mJournalFd >= 0 && ftruncate(mJournalFd, 0) != 0) {
        Failed("cut", mJournalPath);
    }
    mJournalBytes = 0;
    mCounters.journalBytes.Set(0);
    return true;
}

void WriterStore::SyncJournal() {
    if (mJournalFd >= 0 && mJournalBytes > 0 && fdatasync(mJournalFd) != 0) {
        Failed("sync", mJournalPath);
    }
}

ssize_t WriterStore::WriteAll(int fd, const std::string& bytes) {
    return mOps->Write(fd, bytes.data(), bytes.size());
}

void WriterStore::MoveAside(const std::string& path, const char* why) {
    mCounters.damaged.Add();
    const std::string aside = path + ".bad";
    if (rename(path.c_str(), aside.c_str()) != 0) {
        unlink(path.c_str());
    }
    ALOGW("state file %s: %s, moved aside to %s; the writer starts empty", path.c_str(), why,
          aside.c_str());
}

void WriterStore::Failed(const char* what, const std::string& path) {
    mCounters.writeFailures.Add();
    const int error = errno;
    ALOG_LIMITED(mFailureLog, ANDROID_LOG_WARN, "cannot %s state file %s, err: %d", what,
                 path.c_str(), error);
}

}  // namespace android
