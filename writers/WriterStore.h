// Where one writer's state outlives the process: a snapshot of what it held
// at some moment, and a journal of what it took in since. Both live under
// the record folder, are read back once at start-up and are as untrusted as
// a client: opened as our own regular files only, read within a bound, and a
// snapshot of an unknown format or with a bad checksum is moved aside.
//
// Journal record: length (4 bytes, of what follows the checksum), CRC-32 (4),
// generation (4), the writer's operation. A snapshot carries the generation
// it starts; records of another generation predate it and are skipped, so a
// death between a snapshot's rename and the journal's truncation replays
// nothing twice. Reading stops at the first short or damaged record.
//
// Not thread-safe: one thread at a time (start-up, then the worker, then the
// shutdown once the worker has stopped).
#ifndef VYMM_WRITERS_WRITER_STORE_H
#define VYMM_WRITERS_WRITER_STORE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include <utils/String8.h>

#include "common/LogRateLimiter.h"
#include "writers/StatCounter.h"

namespace android {

// The system calls that change the files, so that tests can make any one of
// them fail or stop the "process" there.
class PersistFileOps {
public:
    virtual ~PersistFileOps() = default;
    virtual ssize_t Write(int fd, const void* data, size_t size);
    virtual int Rename(const char* from, const char* to);
    virtual int Sync(int fd);  // fsync
};

// Little-endian fields of an operation or a snapshot.
class StateWriter {
public:
    void PutU8(uint8_t value) { mBytes.push_back(static_cast<char>(value)); }
    void Put32(int32_t value);
    void Put64(int64_t value);
    void PutText(const String8& text);
    // Appends another writer's bytes as one framed item (length, bytes).
    void PutItem(const std::string& item);
    // Empties it, keeping its buffer unless one long text grew it past
    // KEPT_BYTES.
    void Clear() {
        if (mBytes.capacity() > KEPT_BYTES) {
            std::string().swap(mBytes);
        }
        mBytes.clear();
    }
    static constexpr size_t KEPT_BYTES = 4096;
    const std::string& Bytes() const { return mBytes; }
    std::string& Bytes() { return mBytes; }

private:
    std::string mBytes;
};

// Appends item to bytes as PutItem does.
void AppendItem(std::string* bytes, const std::string& item);

// Reads what StateWriter wrote; a read past the end sets Failed() and
// yields zeros.
class StateReader {
public:
    StateReader(const char* data, size_t size) : mData(data), mSize(size) {}
    explicit StateReader(const std::string& bytes) : StateReader(bytes.data(), bytes.size()) {}
    uint8_t GetU8();
    int32_t Get32();
    int64_t Get64();
    String8 GetText();
    // The next framed item; false at the end or when damaged.
    bool GetItem(StateReader* item);
    bool AtEnd() const { return mPos == mSize; }
    // What is left unread.
    std::string_view Rest() const { return std::string_view(mData + mPos, mSize - mPos); }
    bool Failed() const { return mFailed; }

private:
    bool Take(size_t size, const char** out);
    const char* mData;
    size_t mSize;
    size_t mPos = 0;
    bool mFailed = false;
};

struct StoreCounters {
    StatCounter journalBytes;      // in the journal now
    StatCounter snapshots;         // written since start
    StatCounter damaged;           // records or files found damaged and dropped
    StatCounter writeFailures;     // a write, sync or rename that failed
};

class WriterStore {
public:
    // Bounds of what is read back, in bytes; a longer snapshot is moved aside
    // and a longer journal read only up to the bound.
    static constexpr size_t MAX_SNAPSHOT_BYTES = 1024 * 1024;
    static constexpr size_t MAX_JOURNAL_BYTES = 512 * 1024;

    // What a start-up finds: the snapshot's payload and the journal's
    // operations of its generation.
    struct Contents {
        bool hasSnapshot = false;
        std::string snapshot;
        std::vector<std::string> operations;
    };

    // Files dir/vymm_<name>.snapshot and .journal. ops may be null (the real
    // calls) and must outlive the store.
    WriterStore(const char* dir, const char* name, PersistFileOps* ops = nullptr);
    ~WriterStore();
    WriterStore(const WriterStore&) = delete;
    WriterStore& operator=(const WriterStore&) = delete;

    // Reads both files and leaves the journal open for appending, cut after
    // its last sound record.
    Contents Load();
    // Appends operations (each a framed item of a StateWriter) in one write;
    // a failed write is undone. False when nothing was kept.
    bool Append(const std::string& framedOperations);
    // Replaces the snapshot (temporary file, sync, rename, sync of the folder)
    // and starts the journal anew. False when the old state was left.
    bool WriteSnapshot(const std::string& payload);
    // fdatasync of the journal.
    void SyncJournal();
    size_t JournalBytes() const { return mJournalBytes; }
    const StoreCounters& Counters() const { return mCounters; }
    const std::string& SnapshotPath() const { return mSnapshotPath; }
    const std::string& JournalPath() const { return mJournalPath; }
    // Lines held back by the rate limit.
    size_t LogSuppressed() const { return mFailureLog.Suppressed(); }

    // A journal record's bytes besides its operation.
    static constexpr size_t RECORD_HEADER_BYTES = 12;
    struct Record {
        uint32_t generation;
        std::string operation;
    };
    // Decodes journal records from bytes; returns the length of the sound
    // prefix. *damaged is set when it stopped early.
    static size_t ParseRecords(const char* data, size_t size, std::vector<Record>* records,
                               bool* damaged);
    // The same, keeping the operations of generation gen only.
    static size_t ParseJournal(const char* data, size_t size, uint32_t gen,
                               std::vector<std::string>* operations, bool* damaged);
    // The snapshot file's bytes for payload; the inverse of ParseSnapshot.
    static std::string FormatSnapshot(uint32_t gen, const std::string& payload);
    // Starts as a snapshot does, whatever follows.
    static bool IsSnapshot(const std::string& bytes);
    static bool ParseSnapshot(const std::string& bytes, uint32_t* gen, std::string* payload);

private:
    bool ReadSnapshot(Contents* contents);
    void LoadJournal(Contents* contents);
    void OpenJournal();
    void MoveAside(const std::string& path, const char* why);
    void Failed(const char* what, const std::string& path);
    ssize_t WriteAll(int fd, const std::string& bytes);

    PersistFileOps* const mOps;
    PersistFileOps mRealOps;
    const std::string mDir;
    const std::string mSnapshotPath;
    const std::string mJournalPath;
    uint32_t mGeneration = 0;
    int mJournalFd = -1;
    size_t mJournalBytes = 0;
    // A batch's records, kept to spare an allocation per batch: at most
    // MAX_JOURNAL_BYTES / 2 of operations (the writers' fold) and 8 bytes each.
    std::string mRecords;
    StoreCounters mCounters;
    LogRateLimiter mFailureLog;
};

}  // namespace android

#endif
